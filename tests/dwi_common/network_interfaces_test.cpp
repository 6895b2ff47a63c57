#include "dwi_common/network_interfaces.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "tests/support/netns.h"

namespace dwi::network {
namespace {

using nti::test::NetNs;

std::string MacText(const Mac48& mac) {
    char text[18];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

std::string GatewayText(const std::optional<Gateway>& g) {
    if (!g) {
        return "-";
    }
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(g->family == 4 ? AF_INET : AF_INET6, g->address.data(), text, sizeof(text));
    return std::string(text) + "@" + (g->mac ? MacText(*g->mac) : "-");
}

// Inventory lists the interfaces one per line: name, then the fields.
std::string Inventory() {
    std::vector<NetworkInterface> nics;
    const qor::result_t r = GetNetworkInterfaces(nics);
    if (r != 0) {
        return "error " + qor::FormatResult(r);
    }
    std::ostringstream out;
    for (const auto& n : nics) {
        out << n.name << " index=" << n.index << " up=" << n.enabled << " type=" << n.type
            << " mac=" << (n.mac ? MacText(*n.mac) : "-") << " tunnel=" << n.tunnel
            << " gw4=" << GatewayText(n.ipv4Gateway) << " gw6=" << GatewayText(n.ipv6Gateway)
            << "\n";
    }
    return out.str();
}

std::map<std::string, std::string> ByName(const std::string& inventory) {
    std::map<std::string, std::string> lines;
    std::istringstream in(inventory);
    for (std::string line; std::getline(in, line);) {
        const auto blank = line.find(' ');
        lines[line.substr(0, blank)] = line.substr(blank + 1);
    }
    return lines;
}

// One namespace with: a veth whose default routes (v4 and v6) go through
// gateways with neighbour entries; a second veth whose higher-metric default
// route has no neighbour entry; a default route in another table that must
// not count; a veth left down and a tun device.
class NetworkInterfacesTest : public ::testing::Test {
protected:
    void SetUp() override {
        nti::test::Veth(
            {&m_ns, "nti0", "02:00:00:00:01:01", {"198.18.1.1/24", "fd00:198:18::1/64"}},
            {&m_peer, "nti1", "02:00:00:00:01:02", {}});
        nti::test::Veth({&m_ns, "nti2", "02:00:00:00:02:01", {"198.18.2.1/24"}},
                        {&m_peer, "nti3", "02:00:00:00:02:02", {}});
        m_ns.Must("ip neigh add 198.18.1.254 lladdr 02:00:00:00:01:fe dev nti0 nud permanent");
        m_ns.Must(
            "ip -6 neigh add fd00:198:18::fe lladdr 02:00:00:00:01:f6 dev nti0 nud permanent");
        m_ns.Must("ip route add default via 198.18.1.254 dev nti0 metric 100");
        m_ns.Must("ip -6 route add default via fd00:198:18::fe dev nti0");
        m_ns.Must("ip route add default via 198.18.2.254 dev nti2 metric 200");
        m_ns.Must("ip route add default via 198.18.2.253 dev nti2 table 100");
        m_ns.Must("ip link add ntid0 address 02:00:00:00:03:01 type veth peer name ntid1 netns " +
                  m_peer.Name());
        m_ns.Must("ip tuntap add dev ntit0 mode tun");
        m_ns.Must("ip link set ntit0 up");
    }

    NetNs m_ns{"inventory"};
    NetNs m_peer{"inventory-peer"};
};

std::string Index(const NetNs& ns, const std::string& name) {
    std::string index = ns.Must("cat /sys/class/net/" + name + "/ifindex");
    return index.substr(0, index.find('\n'));
}

TEST_F(NetworkInterfacesTest, GatewaysAndMacsOfTheNamespaceExactlyAndAfterARouteChange) {
    const std::map<std::string, std::string> expected{
        {"lo", "index=1 up=1 type=772 mac=- tunnel=0 gw4=- gw6=-"},
        {"nti0", "index=" + Index(m_ns, "nti0") +
                     " up=1 type=1 mac=02:00:00:00:01:01 tunnel=0 "
                     "gw4=198.18.1.254@02:00:00:00:01:fe gw6=fd00:198:18::fe@02:00:00:00:01:f6"},
        {"nti2", "index=" + Index(m_ns, "nti2") +
                     " up=1 type=1 mac=02:00:00:00:02:01 tunnel=0 gw4=198.18.2.254@- gw6=-"},
        {"ntid0", "index=" + Index(m_ns, "ntid0") +
                      " up=0 type=1 mac=02:00:00:00:03:01 tunnel=0 gw4=- gw6=-"},
        {"ntit0", "index=" + Index(m_ns, "ntit0") + " up=1 type=65534 mac=- tunnel=1 gw4=- gw6=-"},
    };
    // With the namespace's own /sys, as `ip netns exec` runs nti ...
    const std::string fromSysfs = nti::test::RunInNetNs(m_ns, Inventory);
    EXPECT_EQ(ByName(fromSysfs), expected) << fromSysfs;
    // ... and from a thread that only entered the namespace, where /sys shows
    // another one and netlink alone must tell.
    std::string fromNetlink;
    {
        nti::test::ScopedNetNs inside(m_ns);
        fromNetlink = Inventory();
    }
    EXPECT_EQ(fromNetlink, fromSysfs);

    // Replacing the default route moves the gateway.
    m_ns.Must("ip route del default via 198.18.1.254 dev nti0");
    m_ns.Must("ip -6 route del default via fd00:198:18::fe dev nti0");
    m_ns.Must("ip route add default via 198.18.1.253 dev nti0 metric 50");
    const auto lines = ByName(nti::test::RunInNetNs(m_ns, Inventory));
    ASSERT_TRUE(lines.contains("nti0"));
    EXPECT_NE(lines.at("nti0").find("gw4=198.18.1.253@- gw6=-"), std::string::npos)
        << lines.at("nti0");
    EXPECT_NE(lines.at("nti2").find("gw4=198.18.2.254@-"), std::string::npos);
}

}  // namespace
}  // namespace dwi::network
