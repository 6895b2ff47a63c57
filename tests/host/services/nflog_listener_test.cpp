#include "host/services/nflog_listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <net/if.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "tests/fakes/recording_tracer.h"
#include "tests/support/netns.h"
#include "tests/support/traffic.h"

namespace nti::host {
namespace {

using nti::test::Endpoint;
using nti::test::NetNs;

TEST(SequenceTrackerTest, CountsGapsAcrossWrapAndIgnoresOldNumbers) {
    struct Case {
        const char* name;
        std::vector<std::uint32_t> seqs;
        std::vector<std::uint32_t> lost;
    };
    const Case cases[] = {
        {"consecutive from any start", {7, 8, 9}, {0, 0, 0}},
        {"one gap", {0, 1, 5, 6}, {0, 0, 3, 0}},
        {"wrap without loss", {0xFFFFFFFEu, 0xFFFFFFFFu, 0, 1}, {0, 0, 0, 0}},
        {"gap across wrap", {0xFFFFFFFEu, 2}, {0, 3}},
        {"repeat and reorder lose nothing", {10, 10, 9, 11}, {0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        SequenceTracker tracker;
        std::vector<std::uint32_t> lost;
        for (const auto seq : c.seqs) {
            lost.push_back(tracker.Observe(seq));
        }
        EXPECT_EQ(lost, c.lost) << c.name;
    }
}

// LoggedPacket is what a test wants to know of one OnData call.
struct LoggedPacket {
    std::uint16_t group = 0;
    std::optional<std::uint8_t> hook;
    std::uint32_t inDevice = 0;
    std::uint32_t outDevice = 0;
    std::size_t capturedLength = 0;
    std::uint16_t ipTotalLength = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
    std::optional<std::uint16_t> hwType;
    std::vector<std::uint8_t> hwHeader;
    std::string prefix;
    bool hasSeq = false;
};

class RecordingCallback : public qor::object::Ifaces<dwi::firewall::INflogDataCallback> {
public:
    void OnData(const nlmsghdr* message, const nlattr* const* attributes) noexcept override {
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&] { return !m_blocked; });
        }
        LoggedPacket p;
        const auto* header = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message));
        p.group = ntohs(header->res_id);
        if (const nlattr* a = attributes[NFULA_PACKET_HDR]) {
            p.hook = static_cast<const nfulnl_msg_packet_hdr*>(mnl_attr_get_payload(a))->hook;
        }
        if (const nlattr* a = attributes[NFULA_IFINDEX_INDEV]) {
            p.inDevice = ntohl(mnl_attr_get_u32(a));
        }
        if (const nlattr* a = attributes[NFULA_IFINDEX_OUTDEV]) {
            p.outDevice = ntohl(mnl_attr_get_u32(a));
        }
        if (const nlattr* a = attributes[NFULA_PAYLOAD]) {
            const auto* bytes = static_cast<const std::uint8_t*>(mnl_attr_get_payload(a));
            p.capturedLength = mnl_attr_get_payload_len(a);
            if (p.capturedLength >= 28 && (bytes[0] >> 4) == 4) {
                p.ipTotalLength = static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]);
                const std::size_t ihl = (bytes[0] & 0x0F) * 4u;
                p.sourcePort = static_cast<std::uint16_t>(bytes[ihl] << 8 | bytes[ihl + 1]);
                p.destinationPort =
                    static_cast<std::uint16_t>(bytes[ihl + 2] << 8 | bytes[ihl + 3]);
            }
        }
        if (const nlattr* a = attributes[NFULA_HWTYPE]) {
            p.hwType = ntohs(mnl_attr_get_u16(a));
        }
        if (const nlattr* a = attributes[NFULA_HWHEADER]) {
            const auto* bytes = static_cast<const std::uint8_t*>(mnl_attr_get_payload(a));
            p.hwHeader.assign(bytes, bytes + mnl_attr_get_payload_len(a));
        }
        if (const nlattr* a = attributes[NFULA_PREFIX]) {
            p.prefix = mnl_attr_get_str(a);
        }
        p.hasSeq = attributes[NFULA_SEQ] != nullptr;
        std::lock_guard lock(m_mutex);
        m_packets.push_back(std::move(p));
        m_changed.notify_all();
    }

    // WaitFor waits (bounded) until `count` packets arrived.
    bool WaitFor(std::size_t count) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return m_packets.size() >= count; });
    }
    std::vector<LoggedPacket> Packets() {
        std::lock_guard lock(m_mutex);
        return m_packets;
    }
    void Block(bool blocked) {
        std::lock_guard lock(m_mutex);
        m_blocked = blocked;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_blocked = false;
    std::vector<LoggedPacket> m_packets;
};

constexpr std::uint16_t kGroup = 7;
const Endpoint kLocal{"198.18.0.1", 40000};
const Endpoint kPeer{"198.18.0.2", 5555};
const std::vector<std::uint8_t> kLocalMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const std::vector<std::uint8_t> kPeerMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};

// Two namespaces on a veth pair; the local one logs UDP to and from port
// 5555 to group 7 with prefixes "out" and "in".
class NflogListenerTest : public ::testing::Test {
protected:
    void SetUp() override {
        nti::test::Veth({&m_local, "nti0", "02:00:00:00:00:01", {"198.18.0.1/24"}},
                        {&m_peer, "nti1", "02:00:00:00:00:02", {"198.18.0.2/24"}});
        m_local.Must(
            "iptables -A OUTPUT -p udp --dport 5555 -j NFLOG --nflog-group 7 "
            "--nflog-prefix out");
        m_local.Must(
            "iptables -A INPUT -p udp --sport 5555 -j NFLOG --nflog-group 7 "
            "--nflog-prefix in");
        m_localIndex = std::stoul(m_local.Must("cat /sys/class/net/nti0/ifindex"));
        m_tracer = qor::object::Create<nti::test::RecordingTracer>();
        m_callback = qor::object::Create<RecordingCallback>();
    }

    qor::RefPtr<NflogListener> MakeListener(const NflogOptions& options = {}) {
        return qor::object::Create<NflogListener>(m_tracer.Get(), m_callback.Get(), options);
    }
    qor::result_t StartIn(NflogListener& listener, std::vector<std::uint16_t> groups = {kGroup}) {
        nti::test::ScopedNetNs inside(m_local);
        return listener.Start(groups);
    }

    NetNs m_local{"nflog-a"};
    NetNs m_peer{"nflog-b"};
    std::uint32_t m_localIndex = 0;
    qor::RefPtr<nti::test::RecordingTracer> m_tracer;
    qor::RefPtr<RecordingCallback> m_callback;
};

TEST_F(NflogListenerTest, DeliversEachLoggedPacketWithItsAttributes) {
    auto listener = MakeListener();
    ASSERT_EQ(StartIn(*listener), 0);

    auto local = nti::test::BoundSocket(m_local, SOCK_DGRAM, kLocal);
    auto peer = nti::test::BoundSocket(m_peer, SOCK_DGRAM, kPeer);
    nti::test::SendDatagrams(local, kPeer, 5, 100);
    ASSERT_EQ(nti::test::ReceiveDatagrams(peer, 5), 5);
    nti::test::SendDatagrams(peer, kLocal, 3, 1000);
    ASSERT_EQ(nti::test::ReceiveDatagrams(local, 3), 3);
    ASSERT_TRUE(m_callback->WaitFor(8));
    EXPECT_EQ(listener->Stop(), 0);

    const auto packets = m_callback->Packets();
    ASSERT_EQ(packets.size(), 8u);
    int out = 0, in = 0;
    for (const auto& p : packets) {
        EXPECT_EQ(p.group, kGroup);
        EXPECT_TRUE(p.hasSeq);
        ASSERT_TRUE(p.hook.has_value());
        if (*p.hook == 3) {  // NF_INET_LOCAL_OUT
            ++out;
            EXPECT_EQ(p.prefix, "out");
            EXPECT_EQ(p.inDevice, 0u);
            EXPECT_EQ(p.outDevice, m_localIndex);
            EXPECT_EQ(p.ipTotalLength, 128);  // 20 + 8 + 100
            EXPECT_EQ(p.capturedLength, 128u);
            EXPECT_EQ(p.sourcePort, kLocal.port);
            EXPECT_EQ(p.destinationPort, kPeer.port);
            EXPECT_FALSE(p.hwType.has_value());
        } else {
            ++in;
            EXPECT_EQ(*p.hook, 1);  // NF_INET_LOCAL_IN
            EXPECT_EQ(p.prefix, "in");
            EXPECT_EQ(p.inDevice, m_localIndex);
            EXPECT_EQ(p.outDevice, 0u);
            EXPECT_EQ(p.ipTotalLength, 1028);
            EXPECT_EQ(p.capturedLength, 256u);  // the copy range, not the packet
            EXPECT_EQ(p.sourcePort, kPeer.port);
            EXPECT_EQ(p.destinationPort, kLocal.port);
            EXPECT_EQ(p.hwType, 1);  // ARPHRD_ETHER
            std::vector<std::uint8_t> expected = kLocalMac;
            expected.insert(expected.end(), kPeerMac.begin(), kPeerMac.end());
            expected.insert(expected.end(), {0x08, 0x00});
            EXPECT_EQ(p.hwHeader, expected);
        }
    }
    EXPECT_EQ(out, 5);
    EXPECT_EQ(in, 3);
    EXPECT_EQ(listener->ReceivedMessages(), 8u);
    EXPECT_EQ(listener->LostMessages(), 0u);
    EXPECT_FALSE(m_tracer->Contains("(sequence gap)"));
}

TEST_F(NflogListenerTest, NothingIsDeliveredAfterStopAndStartStopCodes) {
    auto listener = MakeListener();
    EXPECT_EQ(listener->Stop(), qor::errors::kFalse);
    EXPECT_EQ(StartIn(*listener, {}), qor::errors::kInvalidArgument);
    ASSERT_EQ(StartIn(*listener), 0);
    EXPECT_EQ(StartIn(*listener), qor::errors::kInvalidState);

    auto local = nti::test::BoundSocket(m_local, SOCK_DGRAM, kLocal);
    nti::test::SendDatagrams(local, kPeer, 2, 10);
    ASSERT_TRUE(m_callback->WaitFor(2));
    EXPECT_EQ(listener->Stop(), 0);
    nti::test::SendDatagrams(local, kPeer, 3, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // > the 50 ms flush
    EXPECT_EQ(m_callback->Packets().size(), 2u);

    // Restartable: the group was unbound.
    ASSERT_EQ(StartIn(*listener), 0);
    nti::test::SendDatagrams(local, kPeer, 1, 10);
    ASSERT_TRUE(m_callback->WaitFor(3));
    EXPECT_EQ(listener->Stop(), 0);
}

TEST_F(NflogListenerTest, SecondListenerOfABoundGroupFailsUntilTheFirstStops) {
    auto first = MakeListener();
    auto second = MakeListener();
    ASSERT_EQ(StartIn(*first), 0);
    EXPECT_EQ(StartIn(*second), qor::ErrnoToResult(EPERM));
    EXPECT_TRUE(m_tracer->Contains("Cannot bind NFLOG group 7"));
    EXPECT_EQ(first->Stop(), 0);
    EXPECT_EQ(StartIn(*second), 0);
    EXPECT_EQ(second->Stop(), 0);
}

TEST_F(NflogListenerTest, LostMessagesAreCountedFromSequenceGapsAndTraced) {
    NflogOptions options;
    options.receiveBuffer = 4096;  // the kernel's floor: overflows at once
    options.queueThreshold = 1;
    auto listener = MakeListener(options);
    ASSERT_EQ(StartIn(*listener), 0);

    auto local = nti::test::BoundSocket(m_local, SOCK_DGRAM, kLocal);
    m_callback->Block(true);
    nti::test::SendDatagrams(local, kPeer, 1, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the thread is now held
    constexpr int kBurst = 400;
    nti::test::SendDatagrams(local, kPeer, kBurst, 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    m_callback->Block(false);
    // Losses show at the next message that gets through.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::size_t before = m_callback->Packets().size();
    nti::test::SendDatagrams(local, kPeer, 1, 10);
    ASSERT_TRUE(m_callback->WaitFor(before + 1));
    EXPECT_EQ(listener->Stop(), 0);

    const std::uint64_t received = listener->ReceivedMessages();
    EXPECT_GT(listener->LostMessages(), 0u);
    EXPECT_EQ(received + listener->LostMessages(), 1u + kBurst + 1u);
    EXPECT_EQ(received, m_callback->Packets().size());
    EXPECT_TRUE(m_tracer->Contains("of group 7 (sequence gap)"));
    EXPECT_GE(listener->Overruns(), 1u);
    EXPECT_TRUE(m_tracer->Contains("receive buffer overrun, log messages lost"));
}

}  // namespace
}  // namespace nti::host
