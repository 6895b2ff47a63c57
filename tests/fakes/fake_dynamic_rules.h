// FakeDynamicRules records AddRules/RemoveRules calls and can fail them.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "dwi/firewall/services.h"
#include "qor/object.h"

namespace nti::test {

class FakeDynamicRules : public qor::object::Ifaces<dwi::firewall::IDynamicRules> {
public:
    struct Call {
        bool add;
        dwi::firewall::Rules rules;
        std::string tag;  // empty for RemoveRules
    };

    qor::result_t AddRules(const dwi::firewall::Rules& rules, const char* tag) noexcept override {
        std::lock_guard lock(m_mutex);
        m_calls.push_back({true, rules, tag != nullptr ? tag : ""});
        return m_addResult;
    }
    qor::result_t RemoveRules(const dwi::firewall::Rules& rules) noexcept override {
        std::lock_guard lock(m_mutex);
        m_calls.push_back({false, rules, {}});
        return m_removeResult;
    }

    void FailAdd(qor::result_t code) { m_addResult = code; }
    void FailRemove(qor::result_t code) { m_removeResult = code; }
    std::vector<Call> Calls() const {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Call> m_calls;
    std::atomic<qor::result_t> m_addResult{0};
    std::atomic<qor::result_t> m_removeResult{0};
};

}  // namespace nti::test
