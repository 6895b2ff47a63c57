#include "host/services/binary_serializer.h"

#include <cstring>
#include <string>
#include <vector>

#include "host/services/cbor_io.h"
#include "host/services/meta_shape.h"
#include "qor/exception.h"

namespace nti::host {
namespace {

using cbor::Item;
using qor::result_t;
using qor::meta::FieldDescriptor;
using qor::meta::Kind;
using qor::meta::TypeDescriptor;
namespace errors = qor::errors;

using meta_shape::Bytes;

// Encoder writes one described value.
class Encoder {
public:
    explicit Encoder(cbor::Writer& out) : m_out(out) {}

    [[nodiscard]] result_t Value(const TypeDescriptor& type, const void* object, int depth) {
        if (depth > BinarySerializer::kMaxDepth) {
            return errors::kInvalidType;
        }
        const std::uint8_t* bytes = nullptr;
        std::size_t size = 0;
        result_t result = errors::kOk;
        if (meta_shape::IsUnsigned(type.kind)) {
            std::uint64_t value = 0;
            result = meta_shape::GetUnsigned(type, object, &value);
            if (QOR_SUCCEEDED(result)) {
                m_out.Uint(value);
            }
            return result;
        }
        if (meta_shape::IsRaw(type.kind) || type.kind == Kind::IpAddress) {
            result = type.kind == Kind::IpAddress
                         ? meta_shape::GetAddress(type, object, &bytes, &size)
                         : meta_shape::GetRaw(type, object, &bytes, &size);
            if (QOR_SUCCEEDED(result)) {
                m_out.Bytes(bytes, size);
            }
            return result;
        }
        switch (type.kind) {
            case Kind::Bool:
                m_out.Bool(*static_cast<const bool*>(object));
                return errors::kOk;
            case Kind::String:
                m_out.Text(*static_cast<const std::string*>(object));
                return errors::kOk;
            case Kind::ByteVector: {
                const auto& vector = *static_cast<const std::vector<std::uint8_t>*>(object);
                m_out.Bytes(vector.data(), vector.size());
                return errors::kOk;
            }
            case Kind::Struct:
                return Struct(type, object, depth);
            case Kind::Vector:
                return Vector(type, object, depth);
            case Kind::Optional:
                if (type.optionalOps == nullptr || type.element == nullptr) {
                    return errors::kInvalidType;
                }
                if (!type.optionalOps->hasValue(object)) {
                    m_out.Null();
                    return errors::kOk;
                }
                return Value(*type.element, type.optionalOps->value(object), depth + 1);
            default:
                return errors::kInvalidType;
        }
    }

private:
    [[nodiscard]] result_t Struct(const TypeDescriptor& type, const void* object, int depth) {
        if (!meta_shape::IsValidStruct(type)) {
            return errors::kInvalidType;
        }
        m_out.Map(type.fieldCount);
        for (std::size_t i = 0; i < type.fieldCount; ++i) {
            const FieldDescriptor& field = type.fields[i];
            m_out.Text(field.name);
            const result_t written = Value(*field.type, Bytes(object) + field.offset, depth + 1);
            if (!QOR_SUCCEEDED(written)) {
                return written;
            }
        }
        return errors::kOk;
    }

    [[nodiscard]] result_t Vector(const TypeDescriptor& type, const void* object, int depth) {
        if (type.vectorOps == nullptr || type.element == nullptr) {
            return errors::kInvalidType;
        }
        const std::size_t count = type.vectorOps->size(object);
        m_out.Array(count);
        for (std::size_t i = 0; i < count; ++i) {
            const result_t written = Value(*type.element, type.vectorOps->at(object, i), depth + 1);
            if (!QOR_SUCCEEDED(written)) {
                return written;
            }
        }
        return errors::kOk;
    }

    cbor::Writer& m_out;
};

// Decoder reads one described value.
class Decoder {
public:
    explicit Decoder(cbor::Reader& in) : m_in(in) {}

    [[nodiscard]] result_t Value(const TypeDescriptor& type, void* object, int depth) {
        if (depth > BinarySerializer::kMaxDepth) {
            return errors::kInvalidType;
        }
        Item item;
        if (meta_shape::IsUnsigned(type.kind)) {
            const result_t read = m_in.Expect(Item::Type::Uint, item);
            return QOR_SUCCEEDED(read) ? meta_shape::SetUnsigned(type, object, item.value) : read;
        }
        if (meta_shape::IsRaw(type.kind) || type.kind == Kind::IpAddress) {
            const result_t read = m_in.Expect(Item::Type::Bytes, item);
            if (!QOR_SUCCEEDED(read)) {
                return read;
            }
            return type.kind == Kind::IpAddress
                       ? meta_shape::SetAddress(type, object, item.data, item.length)
                       : meta_shape::SetRaw(type, object, item.data, item.length);
        }
        switch (type.kind) {
            case Kind::Bool: {
                const result_t read = m_in.Expect(Item::Type::Bool, item);
                if (QOR_SUCCEEDED(read)) {
                    *static_cast<bool*>(object) = item.flag;
                }
                return read;
            }
            case Kind::String: {
                const result_t read = m_in.Expect(Item::Type::Text, item);
                if (QOR_SUCCEEDED(read)) {
                    static_cast<std::string*>(object)->assign(item.AsText());
                }
                return read;
            }
            case Kind::ByteVector: {
                const result_t read = m_in.Expect(Item::Type::Bytes, item);
                if (QOR_SUCCEEDED(read)) {
                    static_cast<std::vector<std::uint8_t>*>(object)->assign(
                        item.data, item.data + item.length);
                }
                return read;
            }
            case Kind::Struct:
                return Struct(type, object, depth);
            case Kind::Vector:
                return Vector(type, object, depth);
            case Kind::Optional:
                return Optional(type, object, depth);
            default:
                return errors::kInvalidType;
        }
    }

private:
    [[nodiscard]] result_t Struct(const TypeDescriptor& type, void* object, int depth) {
        if (!meta_shape::IsValidStruct(type)) {
            return errors::kInvalidType;
        }
        Item item;
        result_t read = m_in.Expect(Item::Type::Map, item);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        if (item.value != type.fieldCount) {
            return errors::kInvalidType;
        }
        for (std::size_t i = 0; i < type.fieldCount; ++i) {
            const FieldDescriptor& field = type.fields[i];
            read = m_in.Expect(Item::Type::Text, item);
            if (!QOR_SUCCEEDED(read)) {
                return read;
            }
            if (item.AsText() != field.name) {
                return errors::kInvalidType;
            }
            read = Value(*field.type, Bytes(object) + field.offset, depth + 1);
            if (!QOR_SUCCEEDED(read)) {
                return read;
            }
        }
        return errors::kOk;
    }

    [[nodiscard]] result_t Vector(const TypeDescriptor& type, void* object, int depth) {
        if (type.vectorOps == nullptr || type.element == nullptr) {
            return errors::kInvalidType;
        }
        Item item;
        const result_t read = m_in.Expect(Item::Type::Array, item);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        // Every element takes at least one byte of input.
        if (item.value > m_in.Remaining()) {
            return errors::kInvalidSize;
        }
        const auto count = static_cast<std::size_t>(item.value);
        if (!type.vectorOps->resize(object, 0)) {
            return errors::kOutOfMemory;
        }
        // Growing one element at a time keeps memory in step with what the
        // input really holds.
        for (std::size_t i = 0; i < count; ++i) {
            if (!type.vectorOps->resize(object, i + 1)) {
                return errors::kOutOfMemory;
            }
            const result_t element =
                Value(*type.element, type.vectorOps->mutableAt(object, i), depth + 1);
            if (!QOR_SUCCEEDED(element)) {
                return element;
            }
        }
        return errors::kOk;
    }

    [[nodiscard]] result_t Optional(const TypeDescriptor& type, void* object, int depth) {
        if (type.optionalOps == nullptr || type.element == nullptr) {
            return errors::kInvalidType;
        }
        if (m_in.SkipNull()) {
            type.optionalOps->reset(object);
            return errors::kOk;
        }
        void* value = type.optionalOps->emplace(object);
        if (value == nullptr) {
            return errors::kOutOfMemory;
        }
        return Value(*type.element, value, depth + 1);
    }

    cbor::Reader& m_in;
};

}  // namespace

result_t BinarySerializer::Serialize(const qor::AnyRef& data, qor::IAllocator* alloc, void** ptr,
                                     std::size_t* len, std::uint32_t mode) noexcept {
    if (!data.IsValid() || alloc == nullptr || ptr == nullptr || len == nullptr) {
        return errors::kInvalidArgument;
    }
    if (mode != 0) {
        return errors::kNotSupported;
    }
    try {
        cbor::Writer writer;
        writer.Header(4, kFormat, kVersion);
        writer.Uint(data.type->typeId);
        const result_t written = Encoder(writer).Value(*data.type, data.object, 0);
        if (!QOR_SUCCEEDED(written)) {
            return written;
        }
        const auto& out = writer.Output();
        void* buffer = alloc->Allocate(out.size());
        if (buffer == nullptr) {
            return errors::kOutOfMemory;
        }
        std::memcpy(buffer, out.data(), out.size());
        *ptr = buffer;
        *len = out.size();
        return errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(nullptr, "Serialize");
    }
}

result_t BinarySerializer::Deserialize(const void* blob, const qor::AnyRef& data, std::size_t len,
                                       std::uint32_t mode) noexcept {
    if (!data.IsValid() || (blob == nullptr && len != 0)) {
        return errors::kInvalidArgument;
    }
    if (mode != 0) {
        return errors::kNotSupported;
    }
    try {
        cbor::Reader reader(static_cast<const std::uint8_t*>(blob), len);
        result_t read = reader.ExpectHeader(4, kFormat, kVersion);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        Item item;
        read = reader.Expect(Item::Type::Uint, item);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        if (item.value != data.type->typeId) {
            return errors::kInvalidType;
        }
        read = Decoder(reader).Value(*data.type, data.object, 0);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        return reader.Remaining() == 0 ? errors::kOk : errors::kInvalidSize;
    } catch (...) {
        return qor::CurrentExceptionToResult(nullptr, "Deserialize");
    }
}

}  // namespace nti::host
