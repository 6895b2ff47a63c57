#include "host/services/nflog_listener.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/fixture/traffic.h"
#include "tests/support/netns.h"
#include "tests/support/recording_tracer.h"

namespace nti::host {
namespace {

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

// RecordingCallback counts OnData calls; a blocked one holds the listener's thread.
class RecordingCallback : public qor::object::Ifaces<dwi::firewall::INflogDataCallback> {
public:
    void OnData(const nlmsghdr*, const nlattr* const*) noexcept override {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return !m_blocked; });
        ++m_packets;
        m_changed.notify_all();
    }

    // WaitFor waits (bounded) until `count` packets arrived.
    bool WaitFor(std::size_t count) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return m_packets >= count; });
    }
    std::size_t Packets() {
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
    std::size_t m_packets = 0;
};

constexpr std::uint16_t kGroup = 7;

// Two namespaces on a veth pair; the local one logs UDP to port 5555 to group 7.
class NflogListenerTest : public ::testing::Test {
protected:
    void SetUp() override {
        nti::test::Veth({&m_local, "nti0", "02:00:00:00:00:01", {"198.18.0.1/24"}},
                        {&m_peer, "nti1", "02:00:00:00:00:02", {"198.18.0.2/24"}});
        m_local.Must("iptables -A OUTPUT -p udp --dport 5555 -j NFLOG --nflog-group 7");
        m_socket = std::make_unique<host::UdpSocket>(m_local.Name(), AF_INET, "198.18.0.1", 40000);
        m_tracer = qor::object::Create<nti::test::RecordingTracer>();
        m_callback = qor::object::Create<RecordingCallback>();
    }

    // Send sends `count` datagrams of `size` bytes from the local end to the peer.
    void Send(int count, std::size_t size) {
        for (int i = 0; i < count; ++i) {
            EXPECT_TRUE(m_socket->SendTo("198.18.0.2", 5555, std::string(size, 'x')));
        }
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
    std::unique_ptr<host::UdpSocket> m_socket;
    qor::RefPtr<nti::test::RecordingTracer> m_tracer;
    qor::RefPtr<RecordingCallback> m_callback;
};

TEST_F(NflogListenerTest, NothingIsDeliveredAfterStopAndOneListenerPerGroup) {
    auto listener = MakeListener();
    ASSERT_EQ(StartIn(*listener), 0);
    EXPECT_EQ(StartIn(*listener), qor::errors::kInvalidState);

    Send(2, 10);
    ASSERT_TRUE(m_callback->WaitFor(2));
    EXPECT_EQ(listener->Stop(), 0);
    Send(3, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // > the 50 ms flush
    EXPECT_EQ(m_callback->Packets(), 2u);

    // Restartable: the group was unbound. A second listener of the bound
    // group fails until the first stops.
    ASSERT_EQ(StartIn(*listener), 0);
    Send(1, 10);
    ASSERT_TRUE(m_callback->WaitFor(3));
    auto second = MakeListener();
    EXPECT_EQ(StartIn(*second), qor::ErrnoToResult(EPERM));
    EXPECT_TRUE(m_tracer->Contains("Cannot bind NFLOG group 7"));
    EXPECT_EQ(listener->Stop(), 0);
    EXPECT_EQ(StartIn(*second), 0);
    EXPECT_EQ(second->Stop(), 0);
}

TEST_F(NflogListenerTest, LostMessagesAreCountedFromSequenceGapsAndTraced) {
    NflogOptions options;
    options.receiveBuffer = 4096;  // the kernel's floor: overflows at once
    options.queueThreshold = 1;
    auto listener = MakeListener(options);
    ASSERT_EQ(StartIn(*listener), 0);

    m_callback->Block(true);
    Send(1, 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the thread is now held
    constexpr int kBurst = 400;
    Send(kBurst, 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    m_callback->Block(false);
    // Losses show at the next message that gets through.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::size_t before = m_callback->Packets();
    Send(1, 10);
    ASSERT_TRUE(m_callback->WaitFor(before + 1));
    EXPECT_EQ(listener->Stop(), 0);

    const std::uint64_t received = listener->ReceivedMessages();
    EXPECT_GT(listener->LostMessages(), 0u);
    EXPECT_EQ(received + listener->LostMessages(), 1u + kBurst + 1u);
    EXPECT_EQ(received, m_callback->Packets());
    EXPECT_TRUE(m_tracer->Contains("of group 7 (sequence gap)"));
    EXPECT_GE(listener->Overruns(), 1u);
    EXPECT_TRUE(m_tracer->Contains("receive buffer overrun, log messages lost"));
}

}  // namespace
}  // namespace nti::host
