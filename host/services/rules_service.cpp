#include "host/services/rules_service.h"

namespace nti::host {

qor::result_t RulesService::AddRules(const dwi::firewall::Rules& rules, const char* tag) noexcept {
    const qor::result_t r = Install(rules, tag);
    if (tag != nullptr) {
        try {
            NoteTag(tag, QOR_SUCCEEDED(r));
        } catch (...) {
            // A waiter then times out instead.
        }
    }
    return r;
}

bool RulesService::WaitForTag(const std::string& tag, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_tagMutex);
    m_tagNoted.wait_for(lock, timeout,
                        [&] { return m_addedTags.contains(tag) || m_failedTags.contains(tag); });
    return m_addedTags.contains(tag);
}

void RulesService::NoteTag(const char* tag, bool added) {
    {
        std::lock_guard lock(m_tagMutex);
        (added ? m_addedTags : m_failedTags).insert(tag);
    }
    m_tagNoted.notify_all();
}

}  // namespace nti::host
