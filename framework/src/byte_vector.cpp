#include "qor/byte_vector.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace qor {

ByteVector::ByteVector(const ByteVector& other) : m_allocator(other.m_allocator) {
    Assign(other.data(), other.size());
}

void ByteVector::Assign(const std::uint8_t* data, std::size_t size) {
    if (size <= capacity()) {
        if (size != 0) {
            std::memmove(m_begin, data, size);
        }
        m_end = m_begin + size;
        return;
    }
    const std::size_t bytes = std::max<std::size_t>(size, 4);
    void* raw = m_allocator ? m_allocator->Allocate(bytes) : std::malloc(bytes);
    if (raw == nullptr) {
        throw std::bad_alloc();
    }
    auto* fresh = static_cast<std::uint8_t*>(raw);
    std::memcpy(fresh, data, size);
    Release();
    m_begin = fresh;
    m_end = fresh + size;
    m_capacity = fresh + bytes;
}

void ByteVector::Release() noexcept {
    if (m_begin != nullptr) {
        if (m_allocator) {
            m_allocator->Free(m_begin);
        } else {
            std::free(m_begin);
        }
    }
    m_begin = m_end = m_capacity = nullptr;
}

bool operator==(const ByteVector& a, const ByteVector& b) noexcept {
    return a.size() == b.size() &&
           (a.size() == 0 || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

}  // namespace qor
