#include "host/commands/stats_format.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <tuple>

#include "host/ip_protocol.h"
#include "host/json_records.h"

namespace nti::host {

using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;
using system_interceptors::net::statistics::PeriodAlignment;

namespace {

constexpr std::uint32_t kMaxPeriodMs = 24 * 60 * 60 * 1000;

std::string IpText(const ip_t& ip) {
    char text[INET6_ADDRSTRLEN] = {};
    if (ip.family == 4) {
        inet_ntop(AF_INET, ip.v4.bytes.data(), text, sizeof(text));
    } else {
        inet_ntop(AF_INET6, ip.v6.bytes.data(), text, sizeof(text));
    }
    return text;
}

std::string MacText(const qor::mac48_address_t& mac) {
    char text[18];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac.bytes[0], mac.bytes[1],
                  mac.bytes[2], mac.bytes[3], mac.bytes[4], mac.bytes[5]);
    return text;
}

// EndpointText: "198.18.0.1:53", "[fd00::1]:53", or "-" when unknown.
std::string EndpointText(const std::optional<ip_t>& ip, const std::optional<std::uint16_t>& port) {
    if (!ip) {
        return "-";
    }
    // Appends rather than operator+: GCC 12 warns falsely (-Wrestrict) on the
    // chained form at -O3.
    const bool bracket = ip->family == 6 && port;
    std::string text;
    if (bracket) {
        text.push_back('[');
    }
    text.append(IpText(*ip));
    if (bracket) {
        text.push_back(']');
    }
    if (port) {
        text.push_back(':');
        text.append(std::to_string(*port));
    }
    return text;
}

std::string GatewayText(const ConnectionCounter& c) {
    if (!c.gatewayIp) {
        return "-";
    }
    return IpText(*c.gatewayIp) + (c.gatewayMac ? " (" + MacText(*c.gatewayMac) + ")" : "");
}

}  // namespace

std::optional<std::uint32_t> ParsePeriod(std::string_view text) {
    std::uint64_t multiplier = 1000;
    if (text.ends_with("ms")) {
        multiplier = 1;
        text.remove_suffix(2);
    } else if (text.ends_with("s")) {
        text.remove_suffix(1);
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size() || value == 0 ||
        value > kMaxPeriodMs / multiplier) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(value * multiplier);
}

std::optional<PeriodAlignment> ParseAlignment(std::string_view text) {
    if (text == "epoch") {
        return PeriodAlignment::EpochStartDate;
    }
    if (text == "registration") {
        return PeriodAlignment::CollectorRegistration;
    }
    return std::nullopt;
}

std::vector<ConnectionCounter> SortedByBytes(const std::vector<ConnectionCounter>& counters) {
    struct Row {
        std::uint64_t bytes;
        std::string local;
        std::string remote;
        const ConnectionCounter* counter;
    };
    std::vector<Row> rows;
    rows.reserve(counters.size());
    for (const auto& c : counters) {
        rows.push_back({c.bytesSent + c.bytesReceived, EndpointText(c.localIp, c.localPort),
                        EndpointText(c.remoteIp, c.remotePort), &c});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return std::tie(b.bytes, a.local, a.remote) < std::tie(a.bytes, b.local, b.remote);
    });
    std::vector<ConnectionCounter> sorted;
    sorted.reserve(rows.size());
    for (const auto& row : rows) {
        sorted.push_back(*row.counter);
    }
    return sorted;
}

std::string FormatTable(const IntervalHeader& header, const IntervalCounters& interval) {
    std::string out;
    char line[512];
    std::snprintf(line, sizeof(line),
                  "collector %" PRIu32 " interval %s .. %s%s: %zu connections\n", header.collector,
                  TicksToIso8601(interval.begin).c_str(), TicksToIso8601(interval.end).c_str(),
                  header.restored ? " (saved earlier)" : "", interval.counters.size());
    out += line;
    if (interval.counters.empty()) {
        return out;
    }
    std::snprintf(line, sizeof(line), "%-46s %-46s %-6s %10s %12s %10s %12s  %s\n", "LOCAL",
                  "REMOTE", "PROTO", "PKTS_OUT", "BYTES_OUT", "PKTS_IN", "BYTES_IN", "GATEWAY");
    out += line;
    for (const auto& c : SortedByBytes(interval.counters)) {
        std::snprintf(
            line, sizeof(line),
            "%-46s %-46s %-6s %10" PRIu64 " %12" PRIu64 " %10" PRIu64 " %12" PRIu64 "  %s\n",
            EndpointText(c.localIp, c.localPort).c_str(),
            EndpointText(c.remoteIp, c.remotePort).c_str(), (c.ipProtocol ? ProtocolName(*c.ipProtocol) : std::string("-")).c_str(),
            c.packetsSent, c.bytesSent, c.packetsReceived, c.bytesReceived, GatewayText(c).c_str());
        out += line;
    }
    return out;
}

}  // namespace nti::host
