#include "host/cli/commands/stats_format.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <map>
#include <tuple>

#include "dwi_common/ip_protocol.h"
#include "host/services/json_records.h"

namespace nti::host {

using dwi::network::HasPorts;
using dwi::network::ProtocolName;
using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;
using system_interceptors::net::statistics::PeriodAlignment;

namespace {

const std::uint8_t* Bytes(const ip_t& ip) {
    return ip.family == 4 ? ip.v4.bytes.data() : ip.v6.bytes.data();
}

bool InNetwork(const std::optional<ip_t>& ip, const dwi::firewall::IpNetwork& net) {
    if (!ip || ip->family != net.family) {
        return false;
    }
    const std::uint8_t* bytes = Bytes(*ip);
    for (unsigned bit = 0; bit < net.prefixLength; ++bit) {
        const auto mask = static_cast<std::uint8_t>(0x80u >> (bit % 8));
        if ((bytes[bit / 8] & mask) != (net.address[bit / 8] & mask)) {
            return false;
        }
    }
    return true;
}

bool OnInterface(const ConnectionCounter& c, const InterfaceIdentity& interface) {
    if (c.localMac && c.localMac == interface.mac) {
        return true;
    }
    return c.localIp && std::find(interface.addresses.begin(), interface.addresses.end(),
                                  *c.localIp) != interface.addresses.end();
}

bool ShowsPorts(const ConnectionCounter& c) {
    return !c.ipProtocol || HasPorts(*c.ipProtocol);
}

// EndpointText: "198.18.0.1:53", "[fd00::1]:53", "[fd00::1]" (no port for
// ICMP and the like), or "-" when unknown.
std::string EndpointText(const std::optional<ip_t>& ip, const std::optional<std::uint16_t>& port,
                         bool showPort) {
    if (!ip) {
        return "-";
    }
    // Appends rather than operator+: GCC 12 warns falsely (-Wrestrict) on the
    // chained form at -O3.
    std::string text;
    if (ip->family == 6) {
        text.push_back('[');
    }
    text.append(IpText(*ip));
    if (ip->family == 6) {
        text.push_back(']');
    }
    if (port && showPort) {
        text.push_back(':');
        text.append(std::to_string(*port));
    }
    return text;
}

std::string LocalText(const ConnectionCounter& c) {
    return EndpointText(c.localIp, c.localPort, ShowsPorts(c));
}

std::string RemoteText(const ConnectionCounter& c) {
    return EndpointText(c.remoteIp, c.remotePort, ShowsPorts(c));
}

std::string GatewayText(const ConnectionCounter& c) {
    if (!c.gatewayIp) {
        return "-";
    }
    return IpText(*c.gatewayIp) + (c.gatewayMac ? " (" + MacText(*c.gatewayMac) + ")" : "");
}

template <class T>
void Fill(std::optional<T>& into, const std::optional<T>& from) {
    if (!into) {
        into = from;
    }
}

}  // namespace

std::optional<PeriodAlignment> ParseAlignment(std::string_view text) {
    if (text == "epoch") {
        return PeriodAlignment::EpochStartDate;
    }
    if (text == "registration") {
        return PeriodAlignment::CollectorRegistration;
    }
    return std::nullopt;
}

std::optional<InterfaceIdentity> LookupInterface(const std::string& name) {
    if (if_nametoindex(name.c_str()) == 0) {
        return std::nullopt;
    }
    InterfaceIdentity identity;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return identity;
    }
    for (const ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || name != a->ifa_name) {
            continue;
        }
        ip_t ip;
        if (a->ifa_addr->sa_family == AF_INET) {
            ip.family = 4;
            std::memcpy(ip.v4.bytes.data(),
                        &reinterpret_cast<const sockaddr_in*>(a->ifa_addr)->sin_addr, 4);
            identity.addresses.push_back(ip);
        } else if (a->ifa_addr->sa_family == AF_INET6) {
            ip.family = 6;
            std::memcpy(ip.v6.bytes.data(),
                        &reinterpret_cast<const sockaddr_in6*>(a->ifa_addr)->sin6_addr, 16);
            identity.addresses.push_back(ip);
        } else if (a->ifa_addr->sa_family == AF_PACKET) {
            const auto* link = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
            if (link->sll_halen == 6) {
                qor::mac48_address_t mac;
                std::memcpy(mac.bytes.data(), link->sll_addr, 6);
                identity.mac = mac;
            }
        }
    }
    freeifaddrs(list);
    return identity;
}

std::vector<ConnectionCounter> Filtered(const std::vector<ConnectionCounter>& counters,
                                        const StatsFilter& filter) {
    std::vector<ConnectionCounter> kept;
    for (const ConnectionCounter& c : counters) {
        if ((filter.protocol && c.ipProtocol != filter.protocol) ||
            (filter.address && !InNetwork(c.localIp, *filter.address) &&
             !InNetwork(c.remoteIp, *filter.address)) ||
            (filter.interface && !OnInterface(c, *filter.interface))) {
            continue;
        }
        kept.push_back(c);
    }
    return kept;
}

std::vector<ConnectionCounter> MergedByConnection(const std::vector<ConnectionCounter>& counters) {
    using Key = std::tuple<std::string, std::string, std::optional<std::uint8_t>>;
    std::map<Key, std::size_t> index;
    std::vector<ConnectionCounter> merged;
    for (const ConnectionCounter& c : counters) {
        const auto [it, added] =
            index.try_emplace(Key{LocalText(c), RemoteText(c), c.ipProtocol}, merged.size());
        if (added) {
            merged.push_back(c);
            continue;
        }
        ConnectionCounter& m = merged[it->second];
        m.packetsSent += c.packetsSent;
        m.bytesSent += c.bytesSent;
        m.packetsReceived += c.packetsReceived;
        m.bytesReceived += c.bytesReceived;
        m.proxyDetected = m.proxyDetected || c.proxyDetected;
        Fill(m.localMac, c.localMac);
        Fill(m.remoteMac, c.remoteMac);
        Fill(m.gatewayIp, c.gatewayIp);
        Fill(m.gatewayMac, c.gatewayMac);
        Fill(m.domain, c.domain);
    }
    return merged;
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
        rows.push_back({c.bytesSent + c.bytesReceived, LocalText(c), RemoteText(c), &c});
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

std::string FormatTable(const IntervalHeader& header, const IntervalCounters& interval, bool wide) {
    const std::vector<ConnectionCounter> rows =
        SortedByBytes(MergedByConnection(interval.counters));
    std::string out = "collector " + std::to_string(header.collector) + " interval " +
                      TicksToIso8601(interval.begin) + " .. " + TicksToIso8601(interval.end) +
                      (header.restored ? " (saved earlier)" : "") + ": " +
                      std::to_string(rows.size()) + " connections\n";
    if (rows.empty()) {
        return out;
    }
    // Text cells are padded to the widest one; the last column is not.
    std::vector<std::vector<std::string>> cells{{"PROTO", "LOCAL", "REMOTE"}};
    if (wide) {
        cells.front().insert(cells.front().end(), {"LOCAL_MAC", "REMOTE_MAC"});
    }
    cells.front().insert(cells.front().end(),
                         {"PKTS_OUT", "BYTES_OUT", "PKTS_IN", "BYTES_IN", "GATEWAY"});
    const auto mac = [](const std::optional<qor::mac48_address_t>& m) {
        return m ? MacText(*m) : std::string("-");
    };
    for (const ConnectionCounter& c : rows) {
        std::vector<std::string> row{c.ipProtocol ? ProtocolName(*c.ipProtocol) : "-", LocalText(c),
                                     RemoteText(c)};
        if (wide) {
            row.insert(row.end(), {mac(c.localMac), mac(c.remoteMac)});
        }
        row.insert(row.end(), {std::to_string(c.packetsSent), std::to_string(c.bytesSent),
                               std::to_string(c.packetsReceived), std::to_string(c.bytesReceived),
                               GatewayText(c)});
        cells.push_back(std::move(row));
    }
    const std::size_t columns = cells.front().size();
    const std::size_t firstNumber = columns - 5;
    std::vector<std::size_t> width(columns, 0);
    for (const auto& row : cells) {
        for (std::size_t i = 0; i < columns; ++i) {
            width[i] = std::max(width[i], row[i].size());
        }
    }
    for (const auto& row : cells) {
        std::string line;
        for (std::size_t i = 0; i < columns; ++i) {
            const std::string pad(width[i] - row[i].size(), ' ');
            const bool number = i >= firstNumber && i + 1 < columns;
            line += i == 0 ? "" : "  ";
            line += number ? pad + row[i] : i + 1 < columns ? row[i] + pad : row[i];
        }
        out += line + '\n';
    }
    return out;
}

}  // namespace nti::host
