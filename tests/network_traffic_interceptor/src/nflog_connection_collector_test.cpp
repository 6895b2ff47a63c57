#include "network_traffic_interceptor/src/nflog_connection_collector.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "host/services/service_locator.h"
#include "tests/fakes/fake_dynamic_rules.h"
#include "tests/fakes/fake_nflog_listener_factory.h"
#include "tests/support/nflog_message.h"
#include "tests/support/recording_tracer.h"

namespace dwi::network_interceptor {
namespace {

using nti::test::Bytes;
using nti::test::NflogMessage;
using nti::test::NflogPacket;
using qor::object::Create;
using qor::object::ImplPtr;

constexpr std::uint8_t kLocalIn = 1;
constexpr std::uint8_t kForward = 2;
constexpr std::uint8_t kLocalOut = 3;
constexpr std::uint32_t kBypassMark = 0x4000;

using nti::test::kHostV4;
using nti::test::kHostV6;
using nti::test::kPeerV4;
using nti::test::kPeerV6;
const Mac48 kHostMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const Mac48 kRouterMac{0x02, 0x00, 0x00, 0x00, 0x00, 0xfe};

IpAddress V4(std::array<std::uint8_t, 4> a) {
    return IpAddress{{a[0], a[1], a[2], a[3]}, 4};
}

IpAddress V6(std::array<std::uint8_t, 16> a) {
    return IpAddress{a, 6};
}

// TcpKey is the key of a TCP connection of this host with the peer, without
// link-layer fields.
ConnectionKey TcpKey(std::uint32_t ifindex, std::uint16_t localPort, std::uint16_t remotePort) {
    ConnectionKey key;
    key.ifindex = ifindex;
    key.localIp = V4(kHostV4);
    key.remoteIp = V4(kPeerV4);
    key.localPort = localPort;
    key.remotePort = remotePort;
    key.ipProto = nti::test::kTcp;
    return key;
}

Bytes Outgoing(std::uint16_t totalLength = 60) {
    return nti::test::Ipv4Packet(kHostV4, kPeerV4, nti::test::kTcp, 40000, 443, totalLength);
}

Bytes Incoming(std::uint16_t totalLength = 60) {
    return nti::test::Ipv4Packet(kPeerV4, kHostV4, nti::test::kTcp, 443, 40000, totalLength);
}

// CollectorHarness: a collector's host services, all fakes.
class CollectorHarness {
public:
    explicit CollectorHarness(std::uint32_t maxTraceLevel = 1000)
        : m_tracer(Create<nti::test::RecordingTracer>(maxTraceLevel)) {
        m_locator->Add(m_firewall.Get());
        m_locator->Add(m_factory.Get());
    }

    ImplPtr<NfLogConnectionCollector> Make(std::uint8_t iptablesFlags = 1) {
        return Create<NfLogConnectionCollector>(m_locator.Get(), m_tracer.Get(), iptablesFlags,
                                                std::uint16_t{10000}, kBypassMark);
    }

    void Deliver(const NflogPacket& packet) {
        const NflogMessage message(packet);
        m_factory->Listener()->Deliver(message.Header(), message.Attributes());
    }

    ConnectionMap Take(NfLogConnectionCollector& collector) {
        ConnectionMap snapshot;
        EXPECT_EQ(collector.TakeStats(snapshot), 0);
        return snapshot;
    }

    bool HasCheckRecord(const std::string& expression, const std::string& tail) const {
        return m_tracer->HasCheckRecord(
            "network_traffic_interceptor/src/nflog_connection_collector", expression, tail);
    }

    ImplPtr<nti::host::ServiceLocator> m_locator = Create<nti::host::ServiceLocator>();
    ImplPtr<nti::test::RecordingTracer> m_tracer;
    ImplPtr<nti::test::FakeDynamicRules> m_firewall = Create<nti::test::FakeDynamicRules>();
    ImplPtr<nti::test::FakeNflogListenerFactory> m_factory =
        Create<nti::test::FakeNflogListenerFactory>();
};

class NflogCollectorTest : public ::testing::Test, public CollectorHarness {};

TEST_F(NflogCollectorTest, BuildsTheThreeStatisticsRules) {
    struct Case {
        std::uint8_t iptablesFlags;
        std::optional<std::uint8_t> ipVersion;
    };
    for (const Case c : {Case{0, 4}, Case{1, std::nullopt}, Case{0x80, std::nullopt}}) {
        SCOPED_TRACE(static_cast<int>(c.iptablesFlags));
        const auto rule = [&](const char* name, std::uint8_t chain, bool excluded) {
            return dwi::firewall::NflogRule{name, chain,    10000,    kBypassMark,
                                            true, excluded, excluded, c.ipVersion};
        };
        EXPECT_EQ(
            Make(c.iptablesFlags)->Rules(),
            (dwi::firewall::Rules{rule("zolt_stats_fwd", 4, false), rule("zolt_stats_in", 2, true),
                                  rule("zolt_stats_out", 3, true)}));
    }
}

// The firewall step comes first: when it fails the listener is left alone.
TEST_F(NflogCollectorTest, StartAndStopReportFailuresInOrder) {
    struct Case {
        const char* name;
        std::function<void(CollectorHarness&)> breakIt;
        bool start;
        qor::result_t result;
        std::string expression;
        std::string tail;
    };
    const Case cases[] = {
        {"add", [](CollectorHarness& h) { h.m_firewall->FailAdd(qor::errors::kUnspecified); }, true,
         qor::errors::kUnspecified, "m_firewall->AddRules(m_rules, \"zolt\" \"_stats\")",
         "0x8000004b (Unspecified error) Cannot add firewall rules"},
        {"listener start",
         [](CollectorHarness& h) {
             h.m_factory->Listener()->FailStart(qor::errors::kInvalidState);
         },
         true, qor::errors::kInvalidState, "m_nflogListener->Start(groups)",
         "0x8000006a (Invalid state) Cannot"},
        {"remove",
         [](CollectorHarness& h) { h.m_firewall->FailRemove(qor::errors::kAccessDenied); }, false,
         qor::errors::kAccessDenied, "m_firewall->RemoveRules(m_rules)",
         "0x80000045 (Access denied) Cannot"},
        {"listener stop",
         [](CollectorHarness& h) { h.m_factory->Listener()->FailStop(qor::errors::kUnspecified); },
         false, qor::errors::kUnspecified, "m_nflogListener->Stop()", "0x8000004b"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CollectorHarness h;
        const auto collector = h.Make();
        c.breakIt(h);
        EXPECT_EQ(c.start ? collector->Start() : collector->Stop(), c.result);
        EXPECT_TRUE(h.HasCheckRecord(c.expression, c.tail));
        const bool firewallFailed = c.expression.rfind("m_firewall", 0) == 0;
        EXPECT_EQ(h.m_factory->Listener()->Starts().empty(), firewallFailed || !c.start);
        if (firewallFailed) {
            EXPECT_EQ(h.m_factory->Listener()->Stops(), 0);
        }
    }
}

TEST_F(NflogCollectorTest, DestructorRemovesRulesAndStopsListenerTracingFailures) {
    auto collector = Make();
    const auto listener = m_factory->Listener();
    m_firewall->FailRemove(qor::errors::kUnspecified);
    listener->FailStop(qor::errors::kInvalidState);
    collector.Reset();
    EXPECT_EQ(m_firewall->Calls().size(), 1u);
    EXPECT_EQ(listener->Stops(), 1);
    EXPECT_TRUE(m_tracer->Contains(
        "NfLogConnectionCollector: ~NfLogConnectionCollector: '(m_firewall->RemoveRules(m_rules))="
        "0x8000004b (Unspecified error)' Cannot remove firewall rules"));
    EXPECT_TRUE(m_tracer->Contains(
        "~NfLogConnectionCollector: '(m_nflogListener->Stop())=0x8000006a (Invalid state)'"));
}

// Direction and interface: the hook decides; without a local hook the raw
// network-order words of the two devices are compared.
TEST_F(NflogCollectorTest, DirectionAndInterfaceFromHookAndDevices) {
    struct Case {
        const char* name;
        std::optional<std::uint8_t> hook;
        std::optional<std::uint32_t> inDevice;
        std::optional<std::uint32_t> outDevice;
        bool in;
        std::uint32_t ifindex;
    };
    const Case cases[] = {
        {"local in", kLocalIn, 2, std::nullopt, true, 2},
        {"local out", kLocalOut, std::nullopt, 3, false, 3},
        // Raw words: htonl(3) > htonl(2), so the input device wins.
        {"forward, smaller input", kForward, 2, 3, true, 2},
        {"forward, smaller output", kForward, 3, 2, false, 2},
        {"forward, equal devices", kForward, 4, 4, false, 4},
        // Numerically 2 < 256, but raw htonl(2) = 0x02000000 > htonl(256) = 0x00010000.
        {"forward compares raw words", kForward, 256, 2, true, 256},
        {"no header, both devices", std::nullopt, 5, 7, true, 5},
        {"no header, no out device", std::nullopt, 5, std::nullopt, false, 0},
        {"no devices at all", kForward, std::nullopt, std::nullopt, false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CollectorHarness fresh;
        const auto collector = fresh.Make();
        fresh.Deliver({.hook = c.hook,
                       .inDevice = c.inDevice,
                       .outDevice = c.outDevice,
                       .payload = c.in ? Incoming(100) : Outgoing(100)});
        EXPECT_EQ(
            fresh.Take(*collector),
            (ConnectionMap{{TcpKey(c.ifindex, 40000, 443), c.in ? TrafficCounters{1, 100, 0, 0}
                                                                : TrafficCounters{0, 0, 1, 100}}}));
    }
}

TEST_F(NflogCollectorTest, LinkLayerFieldsOnlyFromEthernetHeaders) {
    const Bytes ethernetIn = nti::test::EthernetHeader(kHostMac, kRouterMac, 0x0800);
    const Bytes ethernetOut = nti::test::EthernetHeader(kRouterMac, kHostMac, 0x86dd);
    Bytes longer = ethernetIn;
    longer.push_back(0xAA);
    struct Case {
        const char* name;
        std::uint8_t hook;
        std::optional<std::uint16_t> hwType;
        std::optional<Bytes> hwHeader;
        std::optional<std::uint16_t> etherType;  // none: no link-layer fields
    };
    const Case cases[] = {
        {"ethernet in", kLocalIn, 1, ethernetIn, 0x0800},
        {"ethernet out", kLocalOut, 1, ethernetOut, 0x86dd},
        {"longer header", kLocalIn, 1, longer, 0x0800},
        {"loopback type", kLocalIn, 772, ethernetIn, std::nullopt},
        {"short header", kLocalIn, 1, Bytes(ethernetIn.begin(), ethernetIn.end() - 1),
         std::nullopt},
        {"no header", kLocalIn, 1, std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CollectorHarness fresh;
        const auto collector = fresh.Make();
        const bool in = c.hook == kLocalIn;
        fresh.Deliver({.hook = c.hook,
                       .inDevice = 2,
                       .outDevice = 2,
                       .hwType = c.hwType,
                       .hwHeader = c.hwHeader,
                       .payload = in ? Incoming() : Outgoing()});
        ConnectionKey expected = TcpKey(2, 40000, 443);
        if (c.etherType) {
            expected.etherType = c.etherType;
            expected.localMac = kHostMac;
            expected.remoteMac = kRouterMac;
        }
        const ConnectionMap snapshot = fresh.Take(*collector);
        ASSERT_EQ(snapshot.size(), 1u);
        EXPECT_EQ(snapshot.begin()->first, expected);
    }
}

TEST_F(NflogCollectorTest, AddressesPortsAndBytesByFamilyAndProtocol) {
    using nti::test::Ipv4Packet;
    using nti::test::Ipv6Packet;
    struct Case {
        const char* name;
        Bytes payload;
        int family;  // of the addresses; 0: none
        std::optional<std::uint16_t> localPort;
        std::optional<std::uint16_t> remotePort;
        std::uint8_t ipProto;
        std::uint64_t bytes;
    };
    const Case cases[] = {
        // The header's length counts, not the captured length.
        {"ipv4 tcp", Ipv4Packet(kPeerV4, kHostV4, nti::test::kTcp, 443, 40000, 1500), 4, 40000, 443,
         6, 1500},
        {"ipv4 udp", Ipv4Packet(kPeerV4, kHostV4, nti::test::kUdp, 53, 5353, 80), 4, 5353, 53, 17,
         80},
        {"ipv4 icmp has no ports", Ipv4Packet(kPeerV4, kHostV4, nti::test::kIcmp, 0, 0, 84), 4,
         std::nullopt, std::nullopt, 1, 84},
        {"ipv6 tcp adds the fixed header",
         Ipv6Packet(kPeerV6, kHostV6, nti::test::kTcp, 443, 40000, 1000), 6, 40000, 443, 6, 1040},
        {"ipv6 udp", Ipv6Packet(kPeerV6, kHostV6, nti::test::kUdp, 123, 123, 56), 6, 123, 123, 17,
         96},
        {"icmpv6 has no ports", Ipv6Packet(kPeerV6, kHostV6, nti::test::kIcmpv6, 0, 0, 64), 6,
         std::nullopt, std::nullopt, 58, 104},
        {"unknown version counts without addresses", Bytes(40, 0x20), 0, std::nullopt, std::nullopt,
         255, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CollectorHarness fresh;
        const auto collector = fresh.Make();
        fresh.Deliver({.hook = kLocalIn, .inDevice = 2, .payload = c.payload});
        ConnectionKey key;
        key.ifindex = 2;
        if (c.family != 0) {
            key.localIp = c.family == 4 ? V4(kHostV4) : V6(kHostV6);
            key.remoteIp = c.family == 4 ? V4(kPeerV4) : V6(kPeerV6);
        }
        key.localPort = c.localPort;
        key.remotePort = c.remotePort;
        key.ipProto = c.ipProto;
        EXPECT_EQ(fresh.Take(*collector),
                  (ConnectionMap{{key, TrafficCounters{1, c.bytes, 0, 0}}}));
    }
}

// A message without payload is traced once at 700; a truncated packet is a
// failure; neither counts, and the next good one does.
TEST_F(NflogCollectorTest, BrokenMessagesAreDroppedAndTraced) {
    const auto collector = Make();
    const Bytes full = Incoming();
    m_tracer->Clear();
    Deliver({.hook = kLocalIn, .inDevice = 2});
    EXPECT_EQ(m_tracer->Lines().size(), 1u);
    EXPECT_TRUE(
        m_tracer->Has(700, "NfLogConnectionCollector: OnData: No NFULA_PAYLOAD attribute found"));
    EXPECT_TRUE(Take(*collector).empty());
    // Short of the IPv4 header, then short of the TCP header.
    Deliver({.hook = kLocalIn, .inDevice = 2, .payload = Bytes(full.begin(), full.begin() + 19)});
    Deliver({.hook = kLocalIn, .inDevice = 2, .payload = Bytes(full.begin(), full.begin() + 30)});
    Deliver({.hook = kLocalIn, .inDevice = 2, .payload = full});
    EXPECT_EQ(Take(*collector),
              (ConnectionMap{{TcpKey(2, 40000, 443), TrafficCounters{1, 60, 0, 0}}}));
    int failures = 0;
    for (const auto& line : m_tracer->Lines()) {
        failures += line.level == 300 && line.text.find("OnData") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(failures, 2);
}

}  // namespace
}  // namespace dwi::network_interceptor
