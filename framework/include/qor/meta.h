// Serialisation metadata: descriptions of record types that a serialiser in
// the host can walk without knowing the module's C++ types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qor/object.h"

namespace qor::meta {

// Kind of a described type.
enum class Kind : std::uint8_t {
    UInt8,
    UInt16,
    UInt32,
    UInt64,
    Bool,
    String,      // std::string
    ByteVector,  // std::vector<std::uint8_t>
    FixedBytes,  // std::array<std::uint8_t, size>
    Mac48,       // qor::mac48_address_t: one FixedBytes field
    Ipv4,        // ipv4_t: one FixedBytes field
    Ipv6,        // ipv6_t: one FixedBytes field
    IpAddress,   // ip_t: fields family (UInt8), an Ipv4 and an Ipv6
    Struct,      // fields below
    Vector,      // std::vector<element>, through VectorOps
    Optional,    // std::optional<element>, through OptionalOps
};

struct TypeDescriptor;

// VectorOps lets a serialiser use a std::vector<T> it only knows by descriptor.
struct VectorOps {
    std::size_t (*size)(const void* vector);
    const void* (*at)(const void* vector, std::size_t index);
    // resize to `count` default-constructed elements; false on allocation failure
    bool (*resize)(void* vector, std::size_t count) noexcept;
    void* (*mutableAt)(void* vector, std::size_t index);
};

// OptionalOps does the same for std::optional<T>.
struct OptionalOps {
    bool (*hasValue)(const void* optional);
    const void* (*value)(const void* optional);
    // emplace a default-constructed value and return it; null on failure
    void* (*emplace)(void* optional) noexcept;
    void (*reset)(void* optional);
};

struct FieldDescriptor {
    const char* name;
    std::size_t offset;  // within the record
    const TypeDescriptor* type;
};

// TypeDescriptor describes one C++ type. Descriptors are static tables of
// the module that owns the type; they stay valid while the module is loaded.
struct TypeDescriptor {
    std::uint32_t typeId;  // 0 for anonymous (primitives, vectors, optionals)
    const char* name;
    std::size_t size;
    Kind kind;
    const FieldDescriptor* fields = nullptr;  // Struct
    std::size_t fieldCount = 0;
    const TypeDescriptor* element = nullptr;  // Vector, Optional
    const VectorOps* vectorOps = nullptr;
    const OptionalOps* optionalOps = nullptr;
};

}  // namespace qor::meta

namespace qor {

// AnyRef: a typed reference to a serialisable object.
struct AnyRef {
    void* object = nullptr;
    const meta::TypeDescriptor* type = nullptr;
    bool IsValid() const noexcept { return object != nullptr && type != nullptr; }
};

// MakeAnyRef refers to `object` described by `type` (a null `type` gives an
// invalid reference).
template <class T>
AnyRef MakeAnyRef(T& object, const meta::TypeDescriptor* type) noexcept {
    return AnyRef{&object, type};
}

// IMetaInfoProvider answers type descriptors by type id.
struct IMetaInfoProvider : IObject {
    static constexpr iid_t IID = 0xFE7DA4E6;
    // GetTypeInfo stores the descriptor of `typeId`; 0x8000004C when unknown.
    [[nodiscard]] virtual result_t GetTypeInfo(std::uint32_t typeId,
                                               const meta::TypeDescriptor** out) noexcept = 0;

protected:
    ~IMetaInfoProvider() = default;
};

// IStructMetaInfoRegistry is a module's registry of top-level record types.
struct IStructMetaInfoRegistry : IObject {
    static constexpr iid_t IID = 0x2D6B0E91;
    // EnumerateTypes appends the registry's top-level type ids to `ids`.
    [[nodiscard]] virtual result_t EnumerateTypes(std::vector<std::uint32_t>& ids) noexcept = 0;
    // GetTypeInfo is the same lookup as IMetaInfoProvider's.
    [[nodiscard]] virtual result_t GetTypeInfo(std::uint32_t typeId,
                                               const meta::TypeDescriptor** out) noexcept = 0;

protected:
    ~IStructMetaInfoRegistry() = default;
};

// IObjectFactory creates objects of one class.
struct IObjectFactory : IObject {
    static constexpr iid_t IID = 0x0BF1C7A4;
    [[nodiscard]] virtual result_t CreateInstance(iid_t iid, void** out) noexcept = 0;

protected:
    ~IObjectFactory() = default;
};

}  // namespace qor
