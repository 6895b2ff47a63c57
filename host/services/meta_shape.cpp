#include "host/services/meta_shape.h"

#include <cstring>
#include <limits>

namespace nti::host::meta_shape {
namespace {

using qor::meta::FieldDescriptor;
using qor::meta::Kind;
using qor::meta::TypeDescriptor;
namespace errors = qor::errors;

// Offset of the bytes of a raw type, or false for a malformed descriptor.
bool RawOffset(const TypeDescriptor& type, std::size_t* offset, std::size_t* size) {
    if (type.kind == Kind::FixedBytes) {
        *offset = 0;
        *size = type.size;
        return true;
    }
    if (!IsRaw(type.kind) || type.fieldCount != 1 || type.fields == nullptr ||
        type.fields[0].type == nullptr || type.fields[0].type->kind != Kind::FixedBytes) {
        return false;
    }
    *offset = type.fields[0].offset;
    *size = type.fields[0].type->size;
    return true;
}

// The family, v4 and v6 fields of an either-family address.
struct AddressFields {
    const FieldDescriptor* family = nullptr;
    const FieldDescriptor* v4 = nullptr;
    const FieldDescriptor* v6 = nullptr;
};
bool FindAddressFields(const TypeDescriptor& type, AddressFields& fields) {
    if (type.kind != Kind::IpAddress || type.fieldCount != 3 || type.fields == nullptr) {
        return false;
    }
    const FieldDescriptor* f = type.fields;
    if (f[0].type == nullptr || f[0].type->kind != Kind::UInt8 || f[1].type == nullptr ||
        f[1].type->kind != Kind::Ipv4 || f[2].type == nullptr || f[2].type->kind != Kind::Ipv6) {
        return false;
    }
    fields = {&f[0], &f[1], &f[2]};
    return true;
}

}  // namespace

bool IsValidStruct(const TypeDescriptor& type) noexcept {
    if (type.kind != Kind::Struct || (type.fields == nullptr && type.fieldCount != 0)) {
        return false;
    }
    for (std::size_t i = 0; i < type.fieldCount; ++i) {
        if (type.fields[i].name == nullptr || type.fields[i].type == nullptr) {
            return false;
        }
    }
    return true;
}

bool IsUnsigned(Kind kind) noexcept {
    return kind == Kind::UInt8 || kind == Kind::UInt16 || kind == Kind::UInt32 ||
           kind == Kind::UInt64;
}

[[nodiscard]] qor::result_t GetUnsigned(const TypeDescriptor& type, const void* object,
                                        std::uint64_t* value) noexcept {
    if (!IsUnsigned(type.kind) || type.size > sizeof(*value)) {
        return errors::kInvalidType;
    }
    *value = 0;
    std::memcpy(value, object, type.size);  // little-endian host
    return errors::kOk;
}

[[nodiscard]] qor::result_t SetUnsigned(const TypeDescriptor& type, void* object,
                                        std::uint64_t value) noexcept {
    if (!IsUnsigned(type.kind) || type.size > sizeof(value)) {
        return errors::kInvalidType;
    }
    if (type.size < sizeof(value) && value >> (8 * type.size) != 0) {
        return errors::kOutOfRange;
    }
    std::memcpy(object, &value, type.size);
    return errors::kOk;
}

bool IsRaw(Kind kind) noexcept {
    return kind == Kind::FixedBytes || kind == Kind::Mac48 || kind == Kind::Ipv4 ||
           kind == Kind::Ipv6;
}

[[nodiscard]] qor::result_t GetRaw(const TypeDescriptor& type, const void* object,
                                   const std::uint8_t** data, std::size_t* size) noexcept {
    std::size_t offset = 0;
    if (!RawOffset(type, &offset, size)) {
        return errors::kInvalidType;
    }
    *data = Bytes(object) + offset;
    return errors::kOk;
}

[[nodiscard]] qor::result_t SetRaw(const TypeDescriptor& type, void* object,
                                   const std::uint8_t* data, std::size_t size) noexcept {
    std::size_t offset = 0;
    std::size_t expected = 0;
    if (!RawOffset(type, &offset, &expected)) {
        return errors::kInvalidType;
    }
    if (size != expected) {
        return errors::kInvalidSize;
    }
    if (size != 0) {
        std::memcpy(Bytes(object) + offset, data, size);
    }
    return errors::kOk;
}

[[nodiscard]] qor::result_t GetAddress(const TypeDescriptor& type, const void* object,
                                       const std::uint8_t** data, std::size_t* size) noexcept {
    AddressFields fields;
    if (!FindAddressFields(type, fields)) {
        return errors::kInvalidType;
    }
    const std::uint8_t family = *(Bytes(object) + fields.family->offset);
    const FieldDescriptor* member = family == 4 ? fields.v4 : family == 6 ? fields.v6 : nullptr;
    if (member == nullptr) {
        return errors::kInvalidArgument;
    }
    return GetRaw(*member->type, Bytes(object) + member->offset, data, size);
}

[[nodiscard]] qor::result_t SetAddress(const TypeDescriptor& type, void* object,
                                       const std::uint8_t* data, std::size_t size) noexcept {
    AddressFields fields;
    if (!FindAddressFields(type, fields)) {
        return errors::kInvalidType;
    }
    const std::uint8_t* v4 = nullptr;
    const std::uint8_t* v6 = nullptr;
    std::size_t v4Size = 0;
    std::size_t v6Size = 0;
    if (!QOR_SUCCEEDED(GetRaw(*fields.v4->type, Bytes(object) + fields.v4->offset, &v4, &v4Size)) ||
        !QOR_SUCCEEDED(GetRaw(*fields.v6->type, Bytes(object) + fields.v6->offset, &v6, &v6Size))) {
        return errors::kInvalidType;
    }
    const std::uint8_t family = size == v4Size ? 4 : size == v6Size ? 6 : 0;
    if (family == 0) {
        return errors::kInvalidSize;
    }
    *(Bytes(object) + fields.family->offset) = family;
    std::memset(const_cast<std::uint8_t*>(v4), 0, v4Size);
    std::memset(const_cast<std::uint8_t*>(v6), 0, v6Size);
    std::memcpy(const_cast<std::uint8_t*>(family == 4 ? v4 : v6), data, size);
    return errors::kOk;
}

}  // namespace nti::host::meta_shape
