// Host serialisers driven by metadata.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qor/byte_vector.h"
#include "qor/meta.h"
#include "qor/object.h"

namespace qor {

// IBinarySerializer turns described objects into a self-describing binary
// form and back.
struct IBinarySerializer : IObject {
    static constexpr iid_t IID = 0x239FC1DB;
    // Serialize writes `data` into a buffer from `alloc`, returned in
    // `*ptr`/`*len` (the caller frees it through `alloc`).
    [[nodiscard]] virtual result_t Serialize(const AnyRef& data, IAllocator* alloc, void** ptr,
                                             std::size_t* len, std::uint32_t mode) noexcept = 0;
    // Deserialize reads `len` bytes at `blob` into `data`. Damaged or foreign
    // input gives a failure code, never a crash.
    [[nodiscard]] virtual result_t Deserialize(const void* blob, const AnyRef& data,
                                               std::size_t len, std::uint32_t mode) noexcept = 0;

protected:
    ~IBinarySerializer() = default;
};

// IIo is a random-access byte store that storages live in.
struct IIo : IObject {
    static constexpr iid_t IID = 0x3A9E51C2;
    [[nodiscard]] virtual result_t GetSize(std::uint64_t* size) noexcept = 0;
    // Read copies up to `size` bytes at `offset`; `*read` is what was there.
    [[nodiscard]] virtual result_t Read(std::uint64_t offset, void* buffer, std::size_t size,
                                        std::size_t* read) noexcept = 0;
    // Write stores `size` bytes at `offset`, growing the store as needed;
    // 0x80000045 on a read-only IO.
    [[nodiscard]] virtual result_t Write(std::uint64_t offset, const void* data,
                                         std::size_t size) noexcept = 0;
    // SetSize truncates or zero-extends the store.
    [[nodiscard]] virtual result_t SetSize(std::uint64_t size) noexcept = 0;

protected:
    ~IIo() = default;
};

// IStorageNode is a named node of a storage tree: an optional value and
// ordered children (names may repeat, as vector elements do).
struct IStorageNode : IObject {
    static constexpr iid_t IID = 0x3A9E51C3;
    // GetName stores the node's name, valid while the node lives.
    [[nodiscard]] virtual result_t GetName(const char** name) noexcept = 0;
    // GetValue exposes the value, valid until the node changes; 0x8000004C
    // when the node has none.
    [[nodiscard]] virtual result_t GetValue(const void** data, std::size_t* size) noexcept = 0;
    [[nodiscard]] virtual result_t SetValue(const void* data, std::size_t size) noexcept = 0;
    [[nodiscard]] virtual result_t GetChildCount(std::size_t* count) noexcept = 0;
    // GetChild: 0x8000005E past the end.
    [[nodiscard]] virtual result_t GetChild(std::size_t index, IStorageNode** child) noexcept = 0;
    // FindChild returns the first child named `name`; 0x8000004C when none.
    [[nodiscard]] virtual result_t FindChild(const char* name, IStorageNode** child) noexcept = 0;
    // AddChild appends a new empty child.
    [[nodiscard]] virtual result_t AddChild(const char* name, IStorageNode** child) noexcept = 0;
    // Clear drops the value and all children.
    [[nodiscard]] virtual result_t Clear() noexcept = 0;
    // Flush writes the whole storage (from its root) to its IO; 0x80000045
    // for a storage opened read-only.
    [[nodiscard]] virtual result_t Flush() noexcept = 0;

protected:
    ~IStorageNode() = default;
};

// IStorageFactory makes storage trees over an IO.
struct IStorageFactory : IObject {
    static constexpr iid_t IID = 0x47EAA67D;
    // CreateStorage starts an empty storage whose root is named `rootName`.
    [[nodiscard]] virtual result_t CreateStorage(IIo* io, const char* rootName,
                                                 IStorageNode** root) noexcept = 0;
    // OpenStorage reads the storage image the IO holds; damaged images give
    // a failure code.
    [[nodiscard]] virtual result_t OpenStorage(IIo* io, std::uint32_t readOnly,
                                               IStorageNode** root) noexcept = 0;

protected:
    ~IStorageFactory() = default;
};

// IStorageSerializer2 writes described objects into storage nodes and back.
struct IStorageSerializer2 : IObject {
    static constexpr iid_t IID = 0x7CC64BFF;
    enum class Flags : std::uint32_t { Default = 0 };
    // Serialize replaces the content of `node` with `data`.
    [[nodiscard]] virtual result_t Serialize(const AnyRef& data, IStorageNode* node,
                                             std::uint32_t mode, std::uint32_t flags) noexcept = 0;
    // Deserialize reads `node` into `data`; `reserved` must be null.
    [[nodiscard]] virtual result_t Deserialize(const AnyRef& data, IStorageNode* node, Flags flags,
                                               void* reserved) noexcept = 0;

protected:
    ~IStorageSerializer2() = default;
};

}  // namespace qor
