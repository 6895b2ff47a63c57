// IptablesRules: the host's firewall rules in iptables and ip6tables, in the
// filter table's chains of our own (see rule_text.h), run through
// iptables-restore.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/services/exit_cleanup.h"
#include "host/services/rule_text.h"
#include "host/services/rules_service.h"
#include "qor/trace/tracer.h"

namespace nti::host {

// FirewallOptions are the settings of an IptablesRules.
struct FirewallOptions {
    // Queue rules drop packets while no program listens on their queue,
    // instead of letting them pass.
    bool failClosed = false;
    // The programs run; tests may point them elsewhere.
    std::string ipv4Save = "iptables-save";
    std::string ipv4Restore = "iptables-restore";
    std::string ipv6Save = "ip6tables-save";
    std::string ipv6Restore = "ip6tables-restore";
};

// IptablesRules installs each AddRules call with one restore run per family
// (IPv4 then IPv6; a failing IPv6 run takes the IPv4 rules back out). It
// remembers what it installed by tag; RemoveRules deletes the installed
// rules equal to the given records, and destruction deletes what is left and
// then the chains no nti uses any more.
class IptablesRules : public RulesService {
public:
    IptablesRules(FirewallOptions options, qor::RefPtr<qor::ITracer> tracer);
    ~IptablesRules() override;

    const char* BackendName() const noexcept override { return "iptables"; }
    // Initialize creates the chains and jumps in both families and deletes
    // the rules left behind by runs that have ended.
    [[nodiscard]] qor::result_t Initialize() override;

    [[nodiscard]] qor::result_t Install(const dwi::firewall::Rules& rules,
                                        const char* tag) noexcept override;
    // RemoveRules: 1 when some record was not installed (the others are
    // removed), 0x8000004B when a rule could not be deleted.
    [[nodiscard]] qor::result_t RemoveRules(const dwi::firewall::Rules& rules) noexcept override;

    std::size_t InstalledCount() const override;

private:
    struct Installed {
        dwi::firewall::Rule rule;
        std::string tag;
        std::optional<RuleText> v4;
        std::optional<RuleText> v6;
    };

    [[nodiscard]] qor::result_t Restore(IpFamily family, const std::vector<std::string>& commands);
    [[nodiscard]] qor::result_t SetUpChains();
    void RemoveUnusedChains();
    void RemoveEverything();
    // DeleteInstalled deletes the rules of `gone` and returns those it could
    // not delete, each with the text of the families that failed.
    [[nodiscard]] std::vector<Installed> DeleteInstalled(std::vector<Installed> gone);

    FirewallOptions m_options;
    qor::RefPtr<qor::ITracer> m_tracer;
    pid_t m_owner;
    // Timed so that the cleanup at std::terminate cannot hang on it.
    mutable std::timed_mutex m_mutex;
    std::vector<Installed> m_installed;
    // Removed by the module but still in the kernel (a restore run failed):
    // tried again on the way out.
    std::vector<Installed> m_undeleted;
    // Last: destroyed first, so a cleanup running elsewhere finishes before
    // the members it uses go.
    ExitCleanup m_exitCleanup;
};

}  // namespace nti::host
