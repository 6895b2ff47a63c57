// FakeNfqueueQuery hands out consecutive queue numbers from a set first
// one on, the way the host reserves them, or fails.
#pragma once

#include <atomic>
#include <cstdint>

#include "dwi/firewall/services.h"
#include "qor/object.h"

namespace nti::test {

class FakeNfqueueQuery : public qor::object::Ifaces<firewall::INfqueueQuery> {
public:
    explicit FakeNfqueueQuery(std::uint16_t first = 0) : m_first(first) {}

    qor::result_t GetAvailableQueue(std::uint32_t count,
                                    std::uint16_t* queueNum) noexcept override {
        m_lastCount = count;
        ++m_calls;
        if (!QOR_SUCCEEDED(m_result)) {
            return m_result;
        }
        *queueNum = m_first.fetch_add(static_cast<std::uint16_t>(count));
        return m_result;
    }

    void SetFirst(std::uint16_t first) { m_first = first; }
    void Fail(qor::result_t code) { m_result = code; }
    std::uint32_t LastCount() const { return m_lastCount; }
    int Calls() const { return m_calls; }

private:
    std::atomic<std::uint16_t> m_first;
    std::atomic<qor::result_t> m_result{0};
    std::atomic<std::uint32_t> m_lastCount{0};
    std::atomic<int> m_calls{0};
};

}  // namespace nti::test
