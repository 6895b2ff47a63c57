#include "host/services/rule_text.h"

#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <set>
#include <sstream>

#include "dwi_common/ip_protocol.h"

namespace nti::host {
namespace {

using dwi::firewall::IpNetwork;
using dwi::firewall::NflogRule;
using dwi::firewall::PortRange;
using dwi::firewall::QueueRule;
using dwi::network::HasPorts;
using dwi::network::ProtocolName;

constexpr std::string_view kCommentPrefix = "nti:";

struct Families {
    bool v4 = true;
    bool v6 = true;
    bool Has(IpFamily f) const { return f == IpFamily::kIpv4 ? v4 : v6; }
};

// Narrow narrows `f` to the family `code` (0 any, 4, 6); false for another code.
bool Narrow(Families& f, std::uint8_t code) {
    switch (code) {
        case 0:
            return true;
        case 4:
            f.v6 = false;
            return true;
        case 6:
            f.v4 = false;
            return true;
        default:
            return false;
    }
}

bool ValidInterface(std::string_view name) {
    return !name.empty() && name.size() < 16 && std::none_of(name.begin(), name.end(), [](char c) {
        return c == '/' || c == '"' || c == '\'' || c <= ' ' || c > '~';
    });
}

// NetworkText prints `net` masked to its prefix, as iptables-save does;
// empty for a prefix of 0 (any address).
std::optional<std::string> NetworkText(const IpNetwork& net) {
    const unsigned maxPrefix = net.family == 4 ? 32 : 128;
    if (net.prefixLength > maxPrefix) {
        return std::nullopt;
    }
    if (net.prefixLength == 0) {
        return std::string();
    }
    std::array<std::uint8_t, 16> masked{};
    for (unsigned bit = 0; bit < net.prefixLength; ++bit) {
        masked[bit / 8] |= net.address[bit / 8] & static_cast<std::uint8_t>(0x80u >> (bit % 8));
    }
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(net.family == 4 ? AF_INET : AF_INET6, masked.data(), text, sizeof(text));
    return std::string(text) + "/" + std::to_string(net.prefixLength);
}

bool IsAny(const PortRange& r) {
    return r.first == 0 && r.last == 0;
}

std::string CommentMatch(std::string_view comment) {
    return " -m comment --comment \"" + std::string(comment) + "\"";
}

// RuleParts is a record taken apart for one family: what every firewall
// matches on, before each prints it in its own syntax.
struct RuleParts {
    const char* chain = nullptr;  // kChainIn, kChainOut or kChainFwd
    bool atHead = false;
    // Queue rules; empty text matches anything.
    std::string source;
    std::string destination;
    std::string interfaceName;
    bool outputInterface = false;
    std::uint8_t protocol = 0;
    bool ports = false;  // the protocol's port match is used
    std::optional<PortRange> sourcePorts;
    std::optional<PortRange> destinationPorts;
    std::optional<std::uint16_t> queue;
    bool bypass = false;
    // NFLOG rules.
    bool notLoopbackIn = false;
    bool notLoopbackOut = false;
    std::optional<std::uint32_t> notMark;
    bool notMulticast = false;
    bool notBroadcast = false;
    std::uint16_t nflogGroup = 0;
};

bool ValidPorts(const PortRange& r) {
    return r.last == 0 || r.first <= r.last;
}

[[nodiscard]] qor::result_t SplitQueueRule(const QueueRule& rule, IpFamily family, bool failClosed,
                                           std::optional<RuleParts>& out) {
    using namespace dwi::firewall;
    constexpr qor::result_t kInvalid = qor::errors::kInvalidArgument;
    if ((rule.direction & ~std::uint32_t{kOutbound | kForwarded}) != 0) {
        return kInvalid;
    }
    const bool outbound = (rule.direction & kOutbound) != 0;
    Families families;
    if (!Narrow(families, rule.family) || !Narrow(families, rule.localAddress.family) ||
        !Narrow(families, rule.remoteAddress.family)) {
        return kInvalid;
    }
    if (rule.protocol == 1) {
        families.v6 = false;
    } else if (rule.protocol == 58) {
        families.v4 = false;
    }
    if (!families.v4 && !families.v6) {
        return kInvalid;
    }
    const bool ports = !IsAny(rule.localPorts) || !IsAny(rule.remotePorts);
    if (ports && !HasPorts(rule.protocol)) {
        return kInvalid;
    }
    if (!rule.interfaceName.empty() && !ValidInterface(rule.interfaceName)) {
        return kInvalid;
    }
    // Addresses without a family, or with a prefix but family "any", name nothing.
    const auto address = [&](const IpNetwork& n) -> std::optional<std::string> {
        if (n.family == 0) {
            return n.prefixLength == 0 ? std::optional<std::string>("") : std::nullopt;
        }
        return NetworkText(n);
    };
    const std::optional<std::string> local = address(rule.localAddress);
    const std::optional<std::string> remote = address(rule.remoteAddress);
    if (!local || !remote || !ValidPorts(rule.localPorts) || !ValidPorts(rule.remotePorts)) {
        return kInvalid;
    }
    out.reset();
    if (!families.Has(family)) {
        return qor::errors::kOk;
    }
    RuleParts p;
    p.chain = (rule.direction & kForwarded) != 0 ? kChainFwd : outbound ? kChainOut : kChainIn;
    p.source = outbound ? *local : *remote;
    p.destination = outbound ? *remote : *local;
    p.interfaceName = rule.interfaceName;
    p.outputInterface = outbound;
    p.protocol = rule.protocol;
    p.ports = ports;
    const PortRange& sourcePorts = outbound ? rule.localPorts : rule.remotePorts;
    const PortRange& destinationPorts = outbound ? rule.remotePorts : rule.localPorts;
    if (!IsAny(sourcePorts)) {
        p.sourcePorts = sourcePorts;
    }
    if (!IsAny(destinationPorts)) {
        p.destinationPorts = destinationPorts;
    }
    p.queue = rule.queueNumber;
    p.bypass = !failClosed;
    out = std::move(p);
    return qor::errors::kOk;
}

[[nodiscard]] qor::result_t SplitNflogRule(const NflogRule& rule, IpFamily family,
                                           std::optional<RuleParts>& out) {
    using namespace dwi::firewall;
    RuleParts p;
    p.atHead = true;
    switch (rule.chain) {
        case kChainInput:
            p.chain = kChainIn;
            p.notLoopbackIn = rule.excludeLoopback;
            break;
        case kChainOutput:
            p.chain = kChainOut;
            p.notLoopbackOut = rule.excludeLoopback;
            break;
        case kChainForward:
            p.chain = kChainFwd;
            p.notLoopbackIn = p.notLoopbackOut = rule.excludeLoopback;
            break;
        default:
            return qor::errors::kInvalidArgument;
    }
    if (rule.ipVersion && *rule.ipVersion != 4 && *rule.ipVersion != 6) {
        return qor::errors::kInvalidArgument;
    }
    out.reset();
    if (rule.ipVersion && *rule.ipVersion != static_cast<std::uint8_t>(family)) {
        return qor::errors::kOk;
    }
    if (rule.bypassMarkSet) {
        p.notMark = rule.bypassMark;
    }
    p.notMulticast = rule.excludeMulticast;
    p.notBroadcast = rule.excludeMulticast && family == IpFamily::kIpv4;
    p.nflogGroup = rule.nflogGroup;
    out = std::move(p);
    return qor::errors::kOk;
}

[[nodiscard]] qor::result_t SplitRule(const dwi::firewall::Rule& rule, IpFamily family,
                                      bool failClosed, std::optional<RuleParts>& out) {
    out.reset();
    if (const auto* queue = std::get_if<QueueRule>(&rule)) {
        return SplitQueueRule(*queue, family, failClosed, out);
    }
    if (const auto* nflog = std::get_if<NflogRule>(&rule)) {
        return SplitNflogRule(*nflog, family, out);
    }
    return qor::errors::kInvalidArgument;
}

std::string PortText(const PortRange& r, char rangeSeparator) {
    if (r.last == 0 || r.last == r.first) {
        return std::to_string(r.first);
    }
    return std::to_string(r.first) + rangeSeparator + std::to_string(r.last);
}

std::string MarkText(std::uint32_t mark) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%x", mark);
    return text;
}

// IptablesSpec prints the parts in the order iptables-save uses.
std::string IptablesSpec(const RuleParts& p, std::string_view comment) {
    std::string s;
    if (!p.source.empty()) {
        s += " -s " + p.source;
    }
    if (!p.destination.empty()) {
        s += " -d " + p.destination;
    }
    if (!p.interfaceName.empty()) {
        s += (p.outputInterface ? " -o " : " -i ") + p.interfaceName;
    }
    if (p.protocol != 0) {
        s += " -p " + ProtocolName(p.protocol);
    }
    if (p.ports) {
        s += " -m " + ProtocolName(p.protocol);
        if (p.sourcePorts) {
            s += " --sport " + PortText(*p.sourcePorts, ':');
        }
        if (p.destinationPorts) {
            s += " --dport " + PortText(*p.destinationPorts, ':');
        }
    }
    if (p.notLoopbackIn) {
        s += " ! -i lo";
    }
    if (p.notLoopbackOut) {
        s += " ! -o lo";
    }
    if (p.notMark) {
        s += " -m mark ! --mark " + MarkText(*p.notMark);
    }
    if (p.notMulticast) {
        s += " -m addrtype ! --dst-type MULTICAST";
    }
    if (p.notBroadcast) {
        s += " -m addrtype ! --dst-type BROADCAST";
    }
    s += CommentMatch(comment);
    if (p.queue) {
        s += " -j NFQUEUE --queue-num " + std::to_string(*p.queue);
        if (p.bypass) {
            s += " --queue-bypass";
        }
    } else {
        s += " -j NFLOG --nflog-group " + std::to_string(p.nflogGroup);
    }
    s.erase(0, 1);
    return s;
}

// NftSpec prints the parts as an nft rule statement for an inet table.
std::string NftSpec(const RuleParts& p, IpFamily family, std::string_view comment) {
    const bool v4 = family == IpFamily::kIpv4;
    std::string s = v4 ? "meta nfproto ipv4" : "meta nfproto ipv6";
    const char* ip = v4 ? " ip" : " ip6";
    if (!p.source.empty()) {
        s += std::string(ip) + " saddr " + p.source;
    }
    if (!p.destination.empty()) {
        s += std::string(ip) + " daddr " + p.destination;
    }
    if (!p.interfaceName.empty()) {
        s += (p.outputInterface ? " oifname \"" : " iifname \"") + p.interfaceName + "\"";
    }
    if (p.protocol != 0) {
        s += " meta l4proto " + std::to_string(p.protocol);
    }
    if (p.sourcePorts) {
        s += " th sport " + PortText(*p.sourcePorts, '-');
    }
    if (p.destinationPorts) {
        s += " th dport " + PortText(*p.destinationPorts, '-');
    }
    if (p.notLoopbackIn) {
        s += " iifname != \"lo\"";
    }
    if (p.notLoopbackOut) {
        s += " oifname != \"lo\"";
    }
    if (p.notMark) {
        s += " meta mark != " + MarkText(*p.notMark);
    }
    if (p.notBroadcast) {
        s += " fib daddr type != { multicast, broadcast }";
    } else if (p.notMulticast) {
        s += " fib daddr type != multicast";
    }
    if (p.queue) {
        s += " queue num " + std::to_string(*p.queue);
        if (p.bypass) {
            s += " bypass";
        }
    } else {
        s += " log group " + std::to_string(p.nflogGroup);
    }
    s += " comment \"" + std::string(comment) + "\"";
    return s;
}

bool ValidName(std::string_view name, std::size_t maxLength) {
    return name.size() <= maxLength && std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '.' || c == '-' || c == '@';
           });
}

// CommentOwner finds the owner pid in an iptables-save rule line carrying one
// of our comments.
std::optional<pid_t> CommentOwner(std::string_view line) {
    constexpr std::string_view kKey = "--comment ";
    const std::size_t at = line.find(kKey);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view value = line.substr(at + kKey.size());
    if (!value.empty() && value.front() == '"') {
        value.remove_prefix(1);
    }
    if (!value.starts_with(kCommentPrefix)) {
        return std::nullopt;
    }
    value.remove_prefix(kCommentPrefix.size());
    pid_t pid = 0;
    std::size_t digits = 0;
    for (; digits < value.size() && value[digits] >= '0' && value[digits] <= '9'; ++digits) {
        pid = pid * 10 + (value[digits] - '0');
    }
    if (digits == 0 || digits > 9 || digits >= value.size() || value[digits] != ':') {
        return std::nullopt;
    }
    return pid;
}

}  // namespace

std::string RuleComment(pid_t owner, std::string_view tag, std::string_view name) {
    std::string comment = std::string(kCommentPrefix) + std::to_string(owner) + ":";
    comment += tag;
    if (!name.empty()) {
        comment += ":";
        comment += name;
    }
    return comment;
}

bool ValidTag(std::string_view tag) {
    return !tag.empty() && ValidName(tag, 200);
}

bool ValidNflogName(std::string_view name) {
    return ValidName(name, 50);
}

[[nodiscard]] qor::result_t RenderRule(const dwi::firewall::Rule& rule, IpFamily family,
                                       std::string_view comment, bool failClosed,
                                       std::optional<RuleText>& out) {
    out.reset();
    std::optional<RuleParts> parts;
    const qor::result_t r = SplitRule(rule, family, failClosed, parts);
    if (QOR_SUCCEEDED(r) && parts) {
        out = RuleText{parts->chain, IptablesSpec(*parts, comment), parts->atHead};
    }
    return r;
}

[[nodiscard]] qor::result_t RenderNftRule(const dwi::firewall::Rule& rule, IpFamily family,
                                          std::string_view comment, bool failClosed,
                                          std::optional<RuleText>& out) {
    out.reset();
    std::optional<RuleParts> parts;
    const qor::result_t r = SplitRule(rule, family, failClosed, parts);
    if (QOR_SUCCEEDED(r) && parts) {
        out = RuleText{NftChain(parts->chain), NftSpec(*parts, family, comment), parts->atHead};
    }
    return r;
}

const char* NftChain(std::string_view chain) {
    return chain == kChainIn ? "input" : chain == kChainOut ? "output" : "forward";
}

std::string AddCommand(const RuleText& rule) {
    return (rule.atHead ? "-I " + rule.chain + " 1 " : "-A " + rule.chain + " ") + rule.spec;
}

std::string DeleteCommand(const RuleText& rule) {
    return "-D " + rule.chain + " " + rule.spec;
}

std::string RestoreScript(const std::vector<std::string>& commands) {
    std::string script = "*filter\n";
    for (const std::string& c : commands) {
        script += c;
        script += '\n';
    }
    script += "COMMIT\n";
    return script;
}

std::vector<std::string> TeardownCommands(std::string_view saveText) {
    constexpr std::pair<const char*, const char*> kHooks[] = {
        {"INPUT", kChainIn}, {"OUTPUT", kChainOut}, {"FORWARD", kChainFwd}};
    std::set<std::string> chains;
    std::set<std::string> used;
    std::set<std::string> lines;
    std::istringstream in{std::string(saveText)};
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(":")) {
            chains.insert(line.substr(1, line.find(' ') - 1));
        } else if (line.starts_with("-A ")) {
            used.insert(line.substr(3, line.find(' ', 3) - 3));
            lines.insert(line);
        }
    }
    std::vector<std::string> commands;
    for (const auto& [builtin, chain] : kHooks) {
        if (!chains.contains(chain) || used.contains(chain)) {
            continue;
        }
        const std::string jump = std::string(builtin) + " -j " + chain;
        if (lines.contains("-A " + jump)) {
            commands.push_back("-D " + jump);
        }
        commands.push_back(std::string("-X ") + chain);
    }
    return commands;
}

std::vector<std::string> SetupCommands(std::string_view saveText,
                                       const std::function<bool(pid_t)>& ownerAlive) {
    struct Hook {
        const char* builtin;
        const char* chain;
    };
    constexpr Hook kHooks[] = {{"INPUT", kChainIn}, {"OUTPUT", kChainOut}, {"FORWARD", kChainFwd}};
    std::set<std::string> chains;
    std::set<std::string> lines;
    std::vector<std::string> stale;
    std::istringstream in{std::string(saveText)};
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(":")) {
            chains.insert(line.substr(1, line.find(' ') - 1));
            continue;
        }
        lines.insert(line);
        for (const Hook& h : kHooks) {
            const std::string prefix = std::string("-A ") + h.chain + " ";
            if (!line.starts_with(prefix)) {
                continue;
            }
            if (const auto owner = CommentOwner(line); owner && !ownerAlive(*owner)) {
                stale.push_back("-D" + line.substr(2));
            }
        }
    }
    std::vector<std::string> commands;
    for (const Hook& h : kHooks) {
        if (!chains.contains(h.chain)) {
            // Declaring an existing chain would flush it: only new ones.
            commands.push_back(std::string(":") + h.chain + " - [0:0]");
        }
    }
    for (const Hook& h : kHooks) {
        if (!lines.contains(std::string("-A ") + h.builtin + " -j " + h.chain)) {
            commands.push_back(std::string("-I ") + h.builtin + " 1 -j " + h.chain);
        }
    }
    commands.insert(commands.end(), stale.begin(), stale.end());
    return commands;
}

}  // namespace nti::host
