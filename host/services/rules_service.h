// RulesService: the host's firewall rules service as the commands use it,
// whichever firewall holds the rules.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

#include "dwi/firewall/services.h"
#include "qor/object.h"

namespace nti::host {

// RulesService is the host's rules service as the commands use it, whichever
// firewall holds the rules.
class RulesService : public qor::object::Ifaces<dwi::firewall::IDynamicRules> {
public:
    RulesService() = default;
    RulesService(const RulesService&) = delete;
    RulesService& operator=(const RulesService&) = delete;

    // BackendName is "nftables" or "iptables".
    virtual const char* BackendName() const noexcept = 0;
    // Initialize prepares the firewall for this run's rules.
    [[nodiscard]] virtual qor::result_t Initialize() = 0;
    // InstalledCount counts the installed records.
    virtual std::size_t InstalledCount() const = 0;

    // AddRules installs through Install and notes the outcome for WaitForTag.
    [[nodiscard]] qor::result_t AddRules(const dwi::firewall::Rules& rules,
                                         const char* tag) noexcept final;

    // WaitForTag waits until an AddRules call with `tag` has succeeded; false
    // at once when one has failed, or after `timeout`.
    bool WaitForTag(const std::string& tag, std::chrono::milliseconds timeout);

protected:
    ~RulesService() override = default;
    // Install: 0x80000046 for an invalid tag or record (nothing installed),
    // 0x8000004B when the firewall refuses the rules.
    [[nodiscard]] virtual qor::result_t Install(const dwi::firewall::Rules& rules,
                                                const char* tag) noexcept = 0;

private:
    void NoteTag(const char* tag, bool added);

    std::mutex m_tagMutex;
    std::condition_variable m_tagNoted;
    std::set<std::string> m_addedTags;
    std::set<std::string> m_failedTags;
};

}  // namespace nti::host
