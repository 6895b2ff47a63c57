// FakeAllocator is a malloc allocator that counts what is outstanding.
#pragma once

#include <atomic>
#include <cstdlib>

#include "qor/byte_vector.h"
#include "qor/object.h"

namespace nti::test {

class FakeAllocator : public qor::object::Ifaces<qor::IAllocator> {
public:
    void* Allocate(std::size_t size) noexcept override {
        if (m_fail) {
            return nullptr;
        }
        void* p = std::malloc(size == 0 ? 1 : size);
        if (p != nullptr) {
            ++m_outstanding;
        }
        return p;
    }
    void Free(void* p) noexcept override {
        if (p != nullptr) {
            --m_outstanding;
            std::free(p);
        }
    }

    void FailAllocations(bool fail) { m_fail = fail; }
    int Outstanding() const { return m_outstanding; }

private:
    std::atomic<bool> m_fail{false};
    std::atomic<int> m_outstanding{0};
};

}  // namespace nti::test
