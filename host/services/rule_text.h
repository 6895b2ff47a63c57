// The text of the firewall rules: rule records rendered as iptables and
// nftables rules, each carrying the comment "nti:<owner pid>:<tag>" (NFLOG
// rules add ":<name>") so that a later run can tell its own rules from those a
// dead run left behind, and the iptables-restore scripts that set up and tear
// down our chains (NTI_IN, NTI_OUT, NTI_FWD, jumped to first from INPUT,
// OUTPUT, FORWARD).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dwi/firewall/services.h"
#include "qor/result.h"

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
[[nodiscard]] qor::result_t RenderRule(const dwi::firewall::Rule& rule, IpFamily family,
                                       std::string_view comment, bool failClosed,
                                       std::optional<RuleText>& out);

// RenderNftRule is RenderRule for a rule of our nftables table: `chain` is
// "input", "output" or "forward" and `spec` the rule's statement, matching the same
// packets as the iptables rule.
[[nodiscard]] qor::result_t RenderNftRule(const dwi::firewall::Rule& rule, IpFamily family,
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

}  // namespace nti::host
