#include "dwi_common/network_interfaces.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string_view>

#include "dwi_common/mnl_socket.h"

namespace dwi::network {
namespace {

// At is the T at `offset` bytes past `base`: what rtnetlink's RTNH_DATA and
// RTNH_NEXT compute, without their casts from char* that clang reports as
// raising the alignment (the kernel aligns these records to 4).
template <class T>
const T* At(const void* base, std::size_t offset) {
    return static_cast<const T*>(static_cast<const void*>(static_cast<const char*>(base) + offset));
}

using Address = std::array<std::uint8_t, 16>;

using MnlSocketPtr = dwi::tools::MnlSocket;

using MessageHandler = std::function<void(const nlmsghdr*)>;

// Dump sends one NLM_F_DUMP request with a zeroed family header of
// `headerSize` bytes (its first byte is the family) and hands every answer
// to `handler`.
[[nodiscard]] qor::result_t Dump(mnl_socket* socket, std::uint16_t type, std::uint8_t family,
                                 std::size_t headerSize, std::uint32_t seq,
                                 const MessageHandler& handler) {
    std::vector<char> buffer(std::size_t{32} * 1024);  // what the kernel fills per dump read
    nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = seq;
    auto* header = static_cast<std::uint8_t*>(mnl_nlmsg_put_extra_header(request, headerSize));
    header[0] = family;
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
        return qor::ErrnoToResult(errno);
    }
    const std::uint32_t portId = mnl_socket_get_portid(socket);
    while (true) {
        const ssize_t length = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (length < 0) {
            return qor::ErrnoToResult(errno);
        }
        const int run = mnl_cb_run(
            buffer.data(), static_cast<std::size_t>(length), seq, portId,
            [](const nlmsghdr* m, void* data) {
                (*static_cast<const MessageHandler*>(data))(m);
                return MNL_CB_OK;
            },
            const_cast<MessageHandler*>(&handler));
        if (run == MNL_CB_ERROR) {
            return qor::ErrnoToResult(errno);
        }
        if (run == MNL_CB_STOP) {
            return qor::errors::kOk;
        }
    }
}

// Attributes collects the top-level attributes of a message by type.
template <std::size_t N>
std::array<const nlattr*, N + 1> Attributes(const nlmsghdr* message, std::size_t headerSize) {
    std::array<const nlattr*, N + 1> table{};
    mnl_attr_parse(
        message, static_cast<unsigned>(headerSize),
        [](const nlattr* a, void* data) {
            if (mnl_attr_type_valid(a, N) >= 0) {
                (*static_cast<std::array<const nlattr*, N + 1>*>(data))[mnl_attr_get_type(a)] = a;
            }
            return MNL_CB_OK;
        },
        &table);
    return table;
}

std::optional<Mac48> MacFromBytes(const void* bytes, std::size_t length) {
    if (length != 6) {
        return std::nullopt;
    }
    Mac48 mac{};
    std::memcpy(mac.data(), bytes, 6);
    if (mac == Mac48{}) {
        return std::nullopt;  // loopback and the like have no real address
    }
    return mac;
}

std::optional<Mac48> MacFromText(const std::string& text) {
    unsigned b[6];
    char tail = 0;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4],
                    &b[5], &tail) != 6) {
        return std::nullopt;
    }
    const std::uint8_t bytes[6] = {
        static_cast<std::uint8_t>(b[0]), static_cast<std::uint8_t>(b[1]),
        static_cast<std::uint8_t>(b[2]), static_cast<std::uint8_t>(b[3]),
        static_cast<std::uint8_t>(b[4]), static_cast<std::uint8_t>(b[5])};
    return MacFromBytes(bytes, 6);
}

std::optional<std::string> ReadSysfs(const std::string& name, std::string_view file) {
    std::ifstream in("/sys/class/net/" + name + "/" + std::string(file));
    std::string line;
    if (!in || !std::getline(in, line)) {
        return std::nullopt;
    }
    return line;
}

bool IsTunnelType(std::uint32_t type) {
    switch (type) {
        case ARPHRD_TUNNEL:
        case ARPHRD_TUNNEL6:
        case ARPHRD_SIT:
        case ARPHRD_IPGRE:
        case ARPHRD_IP6GRE:
        case ARPHRD_NONE:  // tun in IP mode, WireGuard
        case ARPHRD_PPP:
            return true;
        default:
            return false;
    }
}

bool IsTunnelKind(std::string_view kind) {
    static const std::set<std::string_view> kinds{
        "tun",    "wireguard", "ipip",      "gre",    "gretap", "sit",    "vti",  "vti6",
        "ip6tnl", "ip6gre",    "ip6gretap", "erspan", "vxlan",  "geneve", "l2tp", "ipvtap"};
    return kinds.contains(kind);
}

struct Link {
    NetworkInterface data;
    std::string kind;  // IFLA_INFO_KIND, empty for plain devices
};

// FillFromSysfs takes type, MAC and tunnel hints from /sys/class/net, but
// only when that tree shows this namespace (a thread that entered another
// namespace still sees the /sys of its mount); netlink values stay otherwise.
void FillFromSysfs(NetworkInterface& nic) {
    const auto index = ReadSysfs(nic.name, "ifindex");
    if (!index || *index != std::to_string(nic.index)) {
        return;
    }
    if (const auto type = ReadSysfs(nic.name, "type")) {
        nic.type = static_cast<std::uint32_t>(std::strtoul(type->c_str(), nullptr, 10));
    }
    if (const auto address = ReadSysfs(nic.name, "address")) {
        nic.mac = MacFromText(*address);
    }
    if (ReadSysfs(nic.name, "tun_flags")) {
        nic.tunnel = true;  // tun and tap
    }
    std::ifstream uevent("/sys/class/net/" + nic.name + "/uevent");
    for (std::string line; std::getline(uevent, line);) {
        if (line == "DEVTYPE=wireguard") {
            nic.tunnel = true;
        }
    }
}

void OnLink(const nlmsghdr* message, std::map<std::uint32_t, Link>& links) {
    if (message->nlmsg_type != RTM_NEWLINK) {
        return;
    }
    const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
    const auto attributes = Attributes<IFLA_MAX>(message, sizeof(ifinfomsg));
    Link link;
    link.data.index = static_cast<std::uint32_t>(info->ifi_index);
    link.data.enabled = (info->ifi_flags & IFF_UP) != 0;
    link.data.type = info->ifi_type;
    if (const nlattr* name = attributes[IFLA_IFNAME]) {
        link.data.name = mnl_attr_get_str(name);
    }
    if (const nlattr* address = attributes[IFLA_ADDRESS]) {
        link.data.mac =
            MacFromBytes(mnl_attr_get_payload(address), mnl_attr_get_payload_len(address));
    }
    if (const nlattr* linkInfo = attributes[IFLA_LINKINFO]) {
        mnl_attr_parse_nested(
            linkInfo,
            [](const nlattr* a, void* data) {
                if (mnl_attr_get_type(a) == IFLA_INFO_KIND) {
                    *static_cast<std::string*>(data) = mnl_attr_get_str(a);
                }
                return MNL_CB_OK;
            },
            &link.kind);
    }
    links[link.data.index] = std::move(link);
}

Address AddressFrom(const nlattr* attribute) {
    Address address{};
    const std::size_t length =
        std::min<std::size_t>(mnl_attr_get_payload_len(attribute), address.size());
    std::memcpy(address.data(), mnl_attr_get_payload(attribute), length);
    return address;
}

struct RouteGateway {
    Gateway gateway;
    std::uint32_t metric = 0;
};
using GatewayMap = std::map<std::pair<std::uint32_t, std::uint8_t>, RouteGateway>;

void KeepGateway(GatewayMap& gateways, std::uint32_t index, std::uint8_t family,
                 const Address& address, std::uint32_t metric) {
    const auto key = std::make_pair(index, family);
    const auto it = gateways.find(key);
    if (it != gateways.end() && it->second.metric <= metric) {
        return;  // the route with the lowest metric wins
    }
    RouteGateway g;
    g.gateway.family = family;
    g.gateway.address = address;
    g.metric = metric;
    gateways[key] = g;
}

void OnRoute(const nlmsghdr* message, GatewayMap& gateways) {
    if (message->nlmsg_type != RTM_NEWROUTE) {
        return;
    }
    const auto* route = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
    const auto attributes = Attributes<RTA_MAX>(message, sizeof(rtmsg));
    const std::uint32_t table = attributes[RTA_TABLE] != nullptr
                                    ? mnl_attr_get_u32(attributes[RTA_TABLE])
                                    : route->rtm_table;
    if (table != RT_TABLE_MAIN || route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) {
        return;
    }
    const std::uint8_t family = route->rtm_family == AF_INET ? 4 : 6;
    const std::uint32_t metric =
        attributes[RTA_PRIORITY] != nullptr ? mnl_attr_get_u32(attributes[RTA_PRIORITY]) : 0;
    if (attributes[RTA_GATEWAY] != nullptr && attributes[RTA_OIF] != nullptr) {
        KeepGateway(gateways, mnl_attr_get_u32(attributes[RTA_OIF]), family,
                    AddressFrom(attributes[RTA_GATEWAY]), metric);
    }
    if (const nlattr* multipath = attributes[RTA_MULTIPATH]) {
        auto remaining = static_cast<int>(mnl_attr_get_payload_len(multipath));
        const auto* hop = static_cast<const rtnexthop*>(mnl_attr_get_payload(multipath));
        while (remaining >= static_cast<int>(sizeof(rtnexthop)) &&
               hop->rtnh_len >= sizeof(rtnexthop) && hop->rtnh_len <= remaining) {
            const auto* a = At<nlattr>(hop, RTNH_LENGTH(0));
            int left = hop->rtnh_len - static_cast<int>(RTNH_LENGTH(0));
            while (mnl_attr_ok(a, left)) {
                if (mnl_attr_get_type(a) == RTA_GATEWAY) {
                    KeepGateway(gateways, static_cast<std::uint32_t>(hop->rtnh_ifindex), family,
                                AddressFrom(a), metric);
                }
                left -= static_cast<int>(MNL_ALIGN(a->nla_len));
                a = mnl_attr_next(a);
            }
            remaining -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
            hop = At<rtnexthop>(hop, RTNH_ALIGN(hop->rtnh_len));
        }
    }
}

using NeighbourMap = std::map<std::tuple<std::uint32_t, std::uint8_t, Address>, Mac48>;

void OnNeighbour(const nlmsghdr* message, NeighbourMap& neighbours) {
    if (message->nlmsg_type != RTM_NEWNEIGH) {
        return;
    }
    const auto* neighbour = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(message));
    constexpr std::uint16_t kValid =
        NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY;
    if ((neighbour->ndm_state & kValid) == 0) {
        return;  // incomplete or failed: no usable address
    }
    const auto attributes = Attributes<NDA_MAX>(message, sizeof(ndmsg));
    if (attributes[NDA_DST] == nullptr || attributes[NDA_LLADDR] == nullptr) {
        return;
    }
    const auto mac = MacFromBytes(mnl_attr_get_payload(attributes[NDA_LLADDR]),
                                  mnl_attr_get_payload_len(attributes[NDA_LLADDR]));
    if (mac) {
        const std::uint8_t family = neighbour->ndm_family == AF_INET ? 4 : 6;
        neighbours[{static_cast<std::uint32_t>(neighbour->ndm_ifindex), family,
                    AddressFrom(attributes[NDA_DST])}] = *mac;
    }
}

}  // namespace

[[nodiscard]] qor::result_t GetNetworkInterfaces(std::vector<NetworkInterface>& out) {
    try {
        MnlSocketPtr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
        if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
            return qor::ErrnoToResult(errno);
        }
        std::uint32_t seq = 0;
        std::map<std::uint32_t, Link> links;
        qor::result_t r = Dump(socket.get(), RTM_GETLINK, AF_UNSPEC, sizeof(ifinfomsg), ++seq,
                               [&](const nlmsghdr* m) { OnLink(m, links); });
        GatewayMap gateways;
        NeighbourMap neighbours;
        for (const std::uint8_t family : {AF_INET, AF_INET6}) {
            if (QOR_SUCCEEDED(r)) {
                r = Dump(socket.get(), RTM_GETROUTE, family, sizeof(rtmsg), ++seq,
                         [&](const nlmsghdr* m) { OnRoute(m, gateways); });
            }
            if (QOR_SUCCEEDED(r)) {
                r = Dump(socket.get(), RTM_GETNEIGH, family, sizeof(ndmsg), ++seq,
                         [&](const nlmsghdr* m) { OnNeighbour(m, neighbours); });
            }
        }
        if (!QOR_SUCCEEDED(r)) {
            return r;
        }

        std::vector<NetworkInterface> result;
        result.reserve(links.size());
        for (auto& [index, link] : links) {
            NetworkInterface& nic = link.data;
            FillFromSysfs(nic);
            nic.tunnel = nic.tunnel || IsTunnelType(nic.type) || IsTunnelKind(link.kind);
            for (const std::uint8_t family : {std::uint8_t{4}, std::uint8_t{6}}) {
                const auto gateway = gateways.find({index, family});
                if (gateway == gateways.end()) {
                    continue;
                }
                Gateway g = gateway->second.gateway;
                if (const auto mac = neighbours.find({index, family, g.address});
                    mac != neighbours.end()) {
                    g.mac = mac->second;
                }
                (family == 4 ? nic.ipv4Gateway : nic.ipv6Gateway) = g;
            }
            result.push_back(std::move(nic));
        }
        out = std::move(result);
        return qor::errors::kOk;
    } catch (const std::bad_alloc&) {
        return qor::errors::kOutOfMemory;
    } catch (...) {
        return qor::errors::kUnspecified;
    }
}

}  // namespace dwi::network
