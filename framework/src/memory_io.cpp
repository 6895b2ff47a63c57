#include "qor/memory_io.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

namespace qor::memory_io::detail {
namespace {

// Resize keeps the first bytes of `data` and zero-fills what it adds.
[[nodiscard]] result_t Resize(ByteVector& data, std::size_t size) noexcept {
    try {
        std::vector<std::uint8_t> copy(data.begin(), data.end());
        copy.resize(size);
        data.Assign(copy.data(), copy.size());
        return errors::kOk;
    } catch (...) {
        return errors::kOutOfMemory;
    }
}

}  // namespace

result_t ReadOnlyIo::GetSize(std::uint64_t* size) noexcept {
    if (size == nullptr) {
        return errors::kInvalidArgument;
    }
    *size = m_data.size();
    return errors::kOk;
}

result_t ReadOnlyIo::Read(std::uint64_t offset, void* buffer, std::size_t size,
                          std::size_t* read) noexcept {
    if ((buffer == nullptr && size != 0) || read == nullptr) {
        return errors::kInvalidArgument;
    }
    *read = 0;
    if (offset >= m_data.size()) {
        return errors::kOk;
    }
    const std::size_t from = static_cast<std::size_t>(offset);
    *read = std::min(size, m_data.size() - from);
    if (*read != 0) {
        std::memcpy(buffer, m_data.data() + from, *read);
    }
    return errors::kOk;
}

result_t ReadWriteIo::Write(std::uint64_t offset, const void* data, std::size_t size) noexcept {
    if (data == nullptr && size != 0) {
        return errors::kInvalidArgument;
    }
    if (offset > std::numeric_limits<std::size_t>::max() - size) {
        return errors::kOutOfRange;
    }
    const std::size_t end = static_cast<std::size_t>(offset) + size;
    if (end > m_data.size()) {
        const result_t grown = Resize(m_data, end);
        if (!QOR_SUCCEEDED(grown)) {
            return grown;
        }
    }
    if (size != 0) {
        std::memcpy(m_data.data() + offset, data, size);
    }
    return errors::kOk;
}

result_t ReadWriteIo::SetSize(std::uint64_t size) noexcept {
    if (size > std::numeric_limits<std::size_t>::max()) {
        return errors::kOutOfRange;
    }
    return Resize(m_data, static_cast<std::size_t>(size));
}

}  // namespace qor::memory_io::detail
