// In-memory IO objects over byte vectors.
#pragma once

#include <cstdint>

#include "qor/byte_vector.h"
#include "qor/object.h"
#include "qor/serializer.h"

namespace qor::memory_io {

// ExternalStorageTraits: the IO works on the caller's vector, which must
// outlive it.
struct ExternalStorageTraits {};

namespace detail {

class ReadOnlyIo : public object::Ifaces<IIo> {
public:
    explicit ReadOnlyIo(const ByteVector& data) noexcept : m_data(data) {}
    [[nodiscard]] result_t GetSize(std::uint64_t* size) noexcept override;
    [[nodiscard]] result_t Read(std::uint64_t offset, void* buffer, std::size_t size,
                                std::size_t* read) noexcept override;
    [[nodiscard]] result_t Write(std::uint64_t, const void*, std::size_t) noexcept override {
        return errors::kAccessDenied;
    }
    [[nodiscard]] result_t SetSize(std::uint64_t) noexcept override {
        return errors::kAccessDenied;
    }

private:
    const ByteVector& m_data;
};

class ReadWriteIo : public ReadOnlyIo {
public:
    explicit ReadWriteIo(ByteVector& data) noexcept : ReadOnlyIo(data), m_data(data) {}
    [[nodiscard]] result_t Write(std::uint64_t offset, const void* data,
                                 std::size_t size) noexcept override;
    [[nodiscard]] result_t SetSize(std::uint64_t size) noexcept override;

private:
    ByteVector& m_data;
};

}  // namespace detail

// CreateReadWriteIo makes an IO that reads and writes `buffer` in place.
// Returns 0; throws std::bad_alloc when the object cannot be allocated.
template <class Traits>
[[nodiscard]] result_t CreateReadWriteIo(ByteVector& buffer, IIo** out) {
    static_assert(std::is_same_v<Traits, ExternalStorageTraits>);
    if (out == nullptr) {
        return errors::kInvalidArgument;
    }
    *out = object::Create<detail::ReadWriteIo>(buffer).Detach();
    return errors::kOk;
}

// CreateReadOnlyIo makes an IO that reads `blob`; writes are refused.
template <class Traits>
[[nodiscard]] result_t CreateReadOnlyIo(const ByteVector& blob, IIo** out) {
    static_assert(std::is_same_v<Traits, ExternalStorageTraits>);
    if (out == nullptr) {
        return errors::kInvalidArgument;
    }
    *out = object::Create<detail::ReadOnlyIo>(blob).Detach();
    return errors::kOk;
}

}  // namespace qor::memory_io
