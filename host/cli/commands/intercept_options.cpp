#include "host/cli/commands/intercept_options.h"

#include <arpa/inet.h>

#include <charconv>

#include "host/services/packet_summary.h"
#include "host/services/rule_text.h"

namespace nti::host {
namespace {

template <class T>
std::optional<T> ParseNumber(std::string_view text, T min, T max) {
    std::uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty() || value < min ||
        value > max) {
        return std::nullopt;
    }
    return static_cast<T>(value);
}

}  // namespace

std::optional<std::uint32_t> ParseDirection(std::string_view text) {
    using namespace dwi::firewall;
    if (text == "in") {
        return kInbound;
    }
    if (text == "out") {
        return kOutbound;
    }
    if (text == "fwd-in") {
        return kForwarded;
    }
    if (text == "fwd-out") {
        return kForwarded | kOutbound;
    }
    return std::nullopt;
}

std::optional<dwi::firewall::PortRange> ParsePortRange(std::string_view text) {
    const std::size_t dash = text.find('-');
    const auto first = ParseNumber<std::uint16_t>(text.substr(0, dash), 1, 65535);
    const auto last = dash == std::string_view::npos
                          ? first
                          : ParseNumber<std::uint16_t>(text.substr(dash + 1), 1, 65535);
    if (!first || !last || *first > *last) {
        return std::nullopt;
    }
    return dwi::firewall::PortRange{*first, *last};
}

std::optional<dwi::firewall::IpNetwork> ParseNetwork(std::string_view text) {
    const std::size_t slash = text.find('/');
    const std::string address(text.substr(0, slash));
    dwi::firewall::IpNetwork net;
    unsigned maxPrefix = 32;
    if (inet_pton(AF_INET, address.c_str(), net.address.data()) == 1) {
        net.family = 4;
    } else if (inet_pton(AF_INET6, address.c_str(), net.address.data()) == 1) {
        net.family = 6;
        maxPrefix = 128;
    } else {
        return std::nullopt;
    }
    const auto prefix = slash == std::string_view::npos
                            ? std::optional<std::uint8_t>(static_cast<std::uint8_t>(maxPrefix))
                            : ParseNumber<std::uint8_t>(text.substr(slash + 1), 0,
                                                        static_cast<std::uint8_t>(maxPrefix));
    if (!prefix) {
        return std::nullopt;
    }
    net.prefixLength = *prefix;
    return net;
}

std::optional<std::uint8_t> ParseFamily(std::string_view text) {
    if (text == "any") {
        return 0;
    }
    if (text == "4" || text == "6") {
        return static_cast<std::uint8_t>(text[0] - '0');
    }
    return std::nullopt;
}

std::optional<std::pair<std::uint16_t, std::uint16_t>> ParseQueueRange(std::string_view text) {
    const std::size_t dash = text.find('-');
    if (dash == std::string_view::npos) {
        return std::nullopt;
    }
    const auto first = ParseNumber<std::uint16_t>(text.substr(0, dash), 0, 65535);
    const auto last = ParseNumber<std::uint16_t>(text.substr(dash + 1), 0, 65535);
    if (!first || !last || *first > *last) {
        return std::nullopt;
    }
    return std::pair{*first, *last};
}

std::optional<VerdictChoice> ParseVerdict(std::string_view text) {
    using dwi::network_interceptor::Verdict;
    if (text == "allow") {
        return VerdictChoice{Verdict::ALLOW, 0};
    }
    if (text == "drop") {
        return VerdictChoice{Verdict::DROP, 0};
    }
    if (text == "repeat") {
        return VerdictChoice{Verdict::REPEAT, 0};
    }
    for (const bool mixed : {false, true}) {
        const std::string_view prefix = mixed ? "mix:" : "later:";
        if (text.starts_with(prefix)) {
            if (const auto ms =
                    ParseNumber<std::uint32_t>(text.substr(prefix.size()), 0, 3600000)) {
                return VerdictChoice{Verdict::LATER, *ms, mixed};
            }
        }
    }
    return std::nullopt;
}

dwi::network_interceptor::Verdict MixedVerdict(const std::uint8_t* packet, std::size_t size) {
    using dwi::network_interceptor::Verdict;
    const PacketSummary s = Summarize(packet, size);
    std::size_t start = 0;
    if (s.sourcePort && !s.fragment && (s.protocol == 17 || s.protocol == 6)) {
        const std::size_t header =
            s.protocol == 17 ? 8
            : s.transportOffset + 12 < size
                ? static_cast<std::size_t>(packet[s.transportOffset + 12] >> 4) * 4
                : size;
        start = std::min(size, s.transportOffset + header);
    }
    std::uint32_t hash = 2166136261U;
    for (std::size_t i = start; i < size; ++i) {
        hash = (hash ^ packet[i]) * 16777619U;
    }
    constexpr Verdict kMix[] = {Verdict::ALLOW, Verdict::DROP, Verdict::LATER};
    return kMix[hash % 3];
}

std::optional<dwi::firewall::Filter> BuildFilter(const FilterOptions& options, std::string& error) {
    dwi::firewall::QueueRule rule;
    rule.family = options.family;
    rule.protocol = options.protocol;
    rule.localPorts = options.localPorts;
    rule.remotePorts = options.remotePorts;
    rule.localAddress = options.localAddress;
    rule.remoteAddress = options.remoteAddress;
    rule.interfaceName = options.interfaceName;
    dwi::firewall::Filter filter;
    std::vector<std::uint32_t> directions = options.directions;
    if (directions.empty()) {
        directions.push_back(dwi::firewall::kInbound);
    }
    for (std::uint32_t direction : directions) {
        rule.direction = direction;
        filter.push_back(rule);
    }
    // The firewall service renders the same records later, on the poll
    // thread: reject here what it would refuse there.
    std::optional<RuleText> text;
    if (!QOR_SUCCEEDED(RenderRule(filter.front(), IpFamily::kIpv4, "check", false, text))) {
        error =
            "the filter options contradict each other (ports need --proto tcp or udp; addresses, "
            "--family and icmp/icmpv6 must agree; interface names are at most 15 characters)";
        return std::nullopt;
    }
    return filter;
}

}  // namespace nti::host
