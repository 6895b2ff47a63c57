// Packets through the interceptor: loopback UDP in a network namespace of
// the test's own, queued by iptables rules that a test firewall installs.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/services/service_locator.h"
#include "network_traffic_interceptor/src/network_interceptor.h"
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"
#include "tests/fakes/fake_nfqueue_query.h"
#include "tests/fakes/fake_packet_event_callback.h"
#include "tests/fakes/private_netns.h"
#include "tests/support/recording_tracer.h"
#include "tests/support/watched_interceptor.h"

namespace {

namespace ni = dwi::network_interceptor;
namespace fw = dwi::firewall;
using nti::test::Eventually;
using nti::test::FakePacketCallback;
using qor::object::Create;
using qor::object::ImplPtr;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr std::uint16_t kPort = 9999;

// Before main: no socket of the test may come from the machine's namespace.
const std::string kNetnsFailure = nti::test::EnterPrivateNetns();

// IptablesRules installs queue rules for UDP to kPort on loopback: selector 0
// in INPUT, 1 in OUTPUT.
class IptablesRules : public qor::object::Ifaces<fw::IDynamicRules> {
public:
    qor::result_t AddRules(const fw::Rules& rules, const char*) noexcept override {
        return Apply(rules, "-A");
    }
    qor::result_t RemoveRules(const fw::Rules& rules) noexcept override {
        return Apply(rules, "-D");
    }
    int Added() const {
        std::lock_guard lock(m_mutex);
        return m_added;
    }

private:
    qor::result_t Apply(const fw::Rules& rules, const std::string& op) {
        std::lock_guard lock(m_mutex);
        for (const auto& r : rules) {
            const auto& rule = std::get<fw::kQueueRuleIndex>(r);
            const bool out = rule.direction == fw::kOutbound;
            const std::string command =
                "iptables " + op + (out ? " OUTPUT -o lo" : " INPUT -i lo") + " -p udp --dport " +
                std::to_string(kPort) + " -j NFQUEUE --queue-num " +
                std::to_string(rule.queueNumber);
            if (std::system(command.c_str()) != 0) {
                return qor::errors::kUnspecified;
            }
        }
        m_added += op == "-A" ? 1 : 0;
        return 0;
    }

    mutable std::mutex m_mutex;
    int m_added = 0;
};

class Udp {
public:
    Udp() : m_fd(socket(AF_INET, SOCK_DGRAM, 0)) {}
    ~Udp() { close(m_fd); }
    Udp(const Udp&) = delete;
    Udp& operator=(const Udp&) = delete;

    bool Bind(std::uint16_t port) {
        const sockaddr_in a = Address(port);
        return bind(m_fd, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) == 0;
    }
    bool Send(const std::string& text) {
        const sockaddr_in a = Address(kPort);
        return sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&a),
                      sizeof(a)) == static_cast<ssize_t>(text.size());
    }
    // Receive waits up to `seconds` for one datagram.
    std::string Receive(int seconds = 10) {
        timeval timeout{seconds, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        char buf[256];
        const ssize_t n = recv(m_fd, buf, sizeof(buf), 0);
        return n >= 0 ? std::string(buf, static_cast<std::size_t>(n)) : "<nothing>";
    }

private:
    static sockaddr_in Address(std::uint16_t port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
    }
    int m_fd;
};

class TrafficTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kNetnsFailure.empty()) << kNetnsFailure;
        ASSERT_EQ(std::system("ip link set lo up"), 0);
        m_receiver.emplace();
        m_sender.emplace();
        m_query->SetFirst(500);
        ASSERT_EQ(m_locator->Register(firewall::INfqueueQuery::IID, m_query.Get()), 0);
        ASSERT_EQ(m_locator->Register(fw::IDynamicRules::IID, m_rules.Get()), 0);
        m_interceptor = Create<ni::NfQueueInterceptor>(
            m_locator.Get(), m_tracer.Get(), qor::RefPtr<fw::IDynamicRules>(m_rules.Get()));
        ASSERT_TRUE(m_receiver->Bind(kPort));
        fw::Filter filter(2);
        filter[1].direction = fw::kOutbound;
        ASSERT_EQ(m_interceptor->Start(filter, m_callback.Get(), "traffic"), 0);
        ASSERT_TRUE(Eventually([&] { return m_rules->Added() == 1; }));
    }
    void TearDown() override {
        if (m_interceptor) {
            EXPECT_EQ(m_interceptor->Stop(), 0);
        }
        m_locator->Clear();
    }

    ImplPtr<nti::test::RecordingTracer> m_tracer = Create<nti::test::RecordingTracer>();
    ImplPtr<nti::host::ServiceLocator> m_locator = Create<nti::host::ServiceLocator>();
    ImplPtr<nti::test::FakeNfqueueQuery> m_query = Create<nti::test::FakeNfqueueQuery>();
    ImplPtr<IptablesRules> m_rules = Create<IptablesRules>();
    ImplPtr<FakePacketCallback> m_callback = Create<FakePacketCallback>();
    ImplPtr<ni::NfQueueInterceptor> m_interceptor;
    std::optional<Udp> m_receiver;
    std::optional<Udp> m_sender;
};

TEST_F(TrafficTest, AllowedPacketPassesBothQueues) {
    ASSERT_TRUE(m_sender->Send("hello"));
    EXPECT_EQ(m_receiver->Receive(), "hello");
    ASSERT_TRUE(m_callback->WaitForPackets(2, std::chrono::seconds(10)));
    const auto packets = m_callback->Packets();
    const auto lo = if_nametoindex("lo");
    // OUTPUT comes first, on the output queue.
    EXPECT_EQ(packets[0].packet.queue, 2u);
    EXPECT_EQ(packets[0].packet.outdev, lo);
    EXPECT_EQ(packets[0].packet.indev, 0u);
    EXPECT_EQ(packets[1].packet.queue, 1u);
    EXPECT_EQ(packets[1].packet.indev, lo);
    for (const auto& seen : packets) {
        EXPECT_EQ(seen.presetVerdict, ni::Verdict::ALLOW);
        EXPECT_FALSE(seen.packet.payloadChanged);
        ASSERT_EQ(seen.payload.size(), 20u + 8u + 5u);
        EXPECT_EQ(seen.payload[0], 0x45);
        EXPECT_EQ(seen.payload[9], 17);
        EXPECT_EQ(std::string(seen.payload.begin() + 28, seen.payload.end()), "hello");
    }
}

TEST_F(TrafficTest, FailedCallbackThatDropsStillDrops) {
    m_callback->Answer(ni::Verdict::DROP, qor::errors::kUnspecified);
    ASSERT_TRUE(m_sender->Send("drop me"));
    ASSERT_TRUE(m_callback->WaitForPackets(1, std::chrono::seconds(10)));
    EXPECT_EQ(m_receiver->Receive(1), "<nothing>");
    EXPECT_EQ(m_callback->Packets().size(), 1u);
    const std::string id = std::to_string(m_callback->Packets()[0].packet.id);
    bool traced = false;
    for (const auto& line : m_tracer->Lines()) {
        traced |=
            line.level == 500 &&
            nti::test::WithoutLine(line.text) ==
                "NfQueueInterceptor: NewPacketReceived: "
                "network_traffic_interceptor/src/nfqueue_threads:#(m_eventCallback->"
                "OnPacketReceived(packet, verdict)),(QOR_SUCCEEDED(_result)) failed: result = "
                "0x8000004b (Unspecified error) Cannot process packet " +
                    id;
    }
    EXPECT_TRUE(traced);
}

TEST_F(TrafficTest, LaterVerdictGivenAfterwards) {
    m_callback->Answer(ni::Verdict::LATER);
    ASSERT_TRUE(m_sender->Send("later"));
    ASSERT_TRUE(m_callback->WaitForPackets(1, std::chrono::seconds(10)));
    ni::Packet packet = m_callback->Packets()[0].packet;
    packet.payloadBegin = packet.payloadEnd = nullptr;
    m_callback->Answer(ni::Verdict::ALLOW);
    EXPECT_EQ(m_interceptor->SetVerdict(packet, 0), 0);
    EXPECT_EQ(m_receiver->Receive(), "later");
    EXPECT_EQ(m_callback->Packets().size(), 2u);
}

TEST_F(TrafficTest, RepeatRunsThePacketThroughTheHookAgainAndAChangedPayloadIsDelivered) {
    int repeats = 1;
    m_callback->SetHook([&](ni::Packet& packet, ni::Verdict& verdict) {
        if (packet.queue != 2) {
            return;
        }
        if (repeats > 0) {
            --repeats;
            verdict = ni::Verdict::REPEAT;
            return;
        }
        // Upper-case the datagram and drop the UDP checksum, which IPv4 allows.
        for (std::uint8_t* p = packet.payloadBegin + 28; p < packet.payloadEnd; ++p) {
            *p = static_cast<std::uint8_t>(std::toupper(*p));
        }
        packet.payloadBegin[26] = packet.payloadBegin[27] = 0;
        packet.payloadChanged = true;
    });
    ASSERT_TRUE(m_sender->Send("again"));
    EXPECT_EQ(m_receiver->Receive(), "AGAIN");
    ASSERT_TRUE(m_callback->WaitForPackets(3, std::chrono::seconds(10)));
    const auto packets = m_callback->Packets();
    EXPECT_EQ(packets[0].packet.queue, 2u);
    EXPECT_EQ(packets[1].packet.queue, 2u);
    EXPECT_EQ(packets[2].packet.queue, 1u);
}

}  // namespace
