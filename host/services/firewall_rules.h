// DynamicRules: the host's firewall rules service. Rule records become
// iptables and ip6tables rules in the filter table, in chains of their own
// (NTI_IN, NTI_OUT, NTI_FWD, jumped to first from INPUT, OUTPUT, FORWARD), each
// carrying the comment "nti:<owner pid>:<tag>" (NFLOG rules add ":<name>"), so
// that a later run can tell its own rules from those a dead run left behind.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "dwi/firewall/services.h"
#include "host/services/exit_signals.h"
#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace nti::host {

enum class IpFamily : std::uint8_t { kIpv4 = 4, kIpv6 = 6 };

inline constexpr const char* kChainIn = "NTI_IN";
inline constexpr const char* kChainOut = "NTI_OUT";
inline constexpr const char* kChainFwd = "NTI_FWD";

// RuleText is one rule as iptables-save prints it, split into its chain and
// the matches and target that follow.
struct RuleText {
    std::string chain;
    std::string spec;
    // NFLOG copies go to the head of the chain so that they see the packets
    // a queue rule takes away.
    bool atHead = false;
    friend bool operator==(const RuleText&, const RuleText&) = default;
};

// RuleComment builds the comment of a rule of `owner`; an empty `name` is
// left out.
std::string RuleComment(pid_t owner, std::string_view tag, std::string_view name = {});

// ValidTag tells whether `tag` may name rules: 1 to 200 characters of
// letters, digits and "_.-@".
bool ValidTag(std::string_view tag);

// ValidNflogName tells whether an NFLOG record's name may go into a rule's
// comment: up to 50 of the characters a tag may have.
bool ValidNflogName(std::string_view name);

// RenderRule turns a record into its rule for `family`: nullopt in `out` when
// the record does not apply to that family (an IPv6 address, ipVersion 4,
// ICMP on IPv6, ...). Returns 0x80000046 for a record no family can take
// (unknown chain or direction bits, ports without a protocol that has them,
// conflicting families, bad prefix or interface name).
qor::result_t RenderRule(const dwi::firewall::Rule& rule, IpFamily family, std::string_view comment,
                         bool failClosed, std::optional<RuleText>& out);

// RenderNftRule is RenderRule for a rule of our nftables table: `chain` is
// "input", "output" or "forward" and `spec` the rule's statement, matching the same
// packets as the iptables rule.
qor::result_t RenderNftRule(const dwi::firewall::Rule& rule, IpFamily family,
                            std::string_view comment, bool failClosed,
                            std::optional<RuleText>& out);

// NftChain names the chain of our nftables table that stands for an
// iptables chain of ours.
const char* NftChain(std::string_view chain);

// AddCommand and DeleteCommand are the restore-file lines for a rule.
std::string AddCommand(const RuleText& rule);
std::string DeleteCommand(const RuleText& rule);

// RestoreScript wraps commands into an input for `iptables-restore --noflush`.
std::string RestoreScript(const std::vector<std::string>& commands);

// TeardownCommands reads `iptables-save -t filter` output and returns the
// commands that delete each of our chains holding no rule, with its jump.
// Run as one restore, the kernel refuses the whole run if another nti added a
// rule in the meantime.
std::vector<std::string> TeardownCommands(std::string_view saveText);

// SetupCommands reads `iptables-save -t filter` output and returns the
// commands that create the missing chains and jumps and delete the rules of
// owners that `ownerAlive` says are gone.
std::vector<std::string> SetupCommands(std::string_view saveText,
                                       const std::function<bool(pid_t)>& ownerAlive);

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
    qor::result_t AddRules(const dwi::firewall::Rules& rules, const char* tag) noexcept final;

    // WaitForTag waits until an AddRules call with `tag` has succeeded; false
    // at once when one has failed, or after `timeout`.
    bool WaitForTag(const std::string& tag, std::chrono::milliseconds timeout);

protected:
    ~RulesService() = default;
    // Install: 0x80000046 for an invalid tag or record (nothing installed),
    // 0x8000004B when the firewall refuses the rules.
    virtual qor::result_t Install(const dwi::firewall::Rules& rules, const char* tag) noexcept = 0;

private:
    void NoteTag(const char* tag, bool added);

    std::mutex m_tagMutex;
    std::condition_variable m_tagNoted;
    std::set<std::string> m_addedTags;
    std::set<std::string> m_failedTags;
};

// DynamicRules installs each AddRules call with one restore run per family
// (IPv4 then IPv6; a failing IPv6 run takes the IPv4 rules back out). It
// remembers what it installed by tag; RemoveRules deletes the installed
// rules equal to the given records, and destruction deletes what is left and
// then the chains no nti uses any more.
class DynamicRules : public RulesService {
public:
    DynamicRules(FirewallOptions options, qor::RefPtr<qor::ITracer> tracer);
    ~DynamicRules();

    const char* BackendName() const noexcept override { return "iptables"; }
    // Initialize creates the chains and jumps in both families and deletes
    // the rules left behind by runs that have ended.
    [[nodiscard]] qor::result_t Initialize() override;

    qor::result_t Install(const dwi::firewall::Rules& rules, const char* tag) noexcept override;
    // RemoveRules: 1 when some record was not installed (the others are
    // removed), 0x8000004B when a rule could not be deleted.
    qor::result_t RemoveRules(const dwi::firewall::Rules& rules) noexcept override;

    std::size_t InstalledCount() const override;

private:
    struct Installed {
        dwi::firewall::Rule rule;
        std::string tag;
        std::optional<RuleText> v4;
        std::optional<RuleText> v6;
    };

    qor::result_t Restore(IpFamily family, const std::vector<std::string>& commands);
    qor::result_t SetUpChains();
    void RemoveUnusedChains();
    void RemoveEverything();
    qor::result_t DeleteInstalled(const std::vector<Installed>& gone);

    FirewallOptions m_options;
    qor::RefPtr<qor::ITracer> m_tracer;
    pid_t m_owner;
    // Timed so that the cleanup at std::terminate cannot hang on it.
    mutable std::timed_mutex m_mutex;
    std::vector<Installed> m_installed;
    // Last: destroyed first, so a cleanup running elsewhere finishes before
    // the members it uses go.
    ExitCleanup m_exitCleanup;
};

}  // namespace nti::host
