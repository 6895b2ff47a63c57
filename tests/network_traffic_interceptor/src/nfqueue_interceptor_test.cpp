// NfQueueInterceptor lifecycle, channel configuration, verdicts and packets
// through it, against the kernel's NFQUEUE in a network namespace of the
// test's own.
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"
// Before the kernel headers below: it brings the C library's own first.
#include "network_traffic_interceptor/src/nfqueue_messages.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dwi_common/mnl_socket.h"
#include "host/services/iptables_rules.h"
#include "host/services/service_locator.h"
#include "tests/fakes/fake_dynamic_rules.h"
#include "tests/fakes/fake_nfqueue_query.h"
#include "tests/fakes/fake_packet_event_callback.h"
#include "tests/fakes/private_netns.h"
#include "tests/support/nfqueue_message.h"
#include "tests/support/recording_tracer.h"
#include "tests/support/watched_interceptor.h"

namespace {

namespace ni = dwi::network_interceptor;
namespace fw = dwi::firewall;
using nti::test::AsBytes;
using nti::test::Bytes;
using nti::test::Eventually;
using nti::test::WatchedInterceptor;
using nti::test::WithoutLine;
using qor::object::Create;
using qor::object::ImplPtr;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Not;

constexpr std::uint16_t kFirstQueue = 100;

// Before main: no socket of the test may come from the machine's namespace.
const std::string kNetnsFailure = nti::test::EnterPrivateNetns();
constexpr const char* kPrefix = "NfQueueInterceptor: ";

// The configuration of one channel, in the order it is sent.
std::vector<Bytes> ChannelConfiguration(std::uint16_t queue) {
    alignas(nlmsghdr) char b[ni::kConfigBufferSize];
    return {AsBytes(ni::BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_UNBIND, AF_INET)),
            AsBytes(ni::BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_BIND, AF_INET)),
            AsBytes(ni::BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_UNBIND, AF_INET6)),
            AsBytes(ni::BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_BIND, AF_INET6)),
            AsBytes(ni::BuildCfgRequest(b, NFQNL_CFG_CMD_BIND, queue)),
            AsBytes(ni::BuildCfgParams(b, NFQNL_COPY_PACKET, 0xFFFF, queue)),
            AsBytes(ni::BuildCfgFlagsGSO(b, queue)),
            AsBytes(ni::BuildCfgQueueMaxLen(b, queue))};
}

Bytes Verdict(std::uint16_t queue, std::uint32_t id, std::uint32_t verdict,
              const ni::Packet* packet = nullptr) {
    std::vector<char> b(ni::kVerdictBufferSize);
    return AsBytes(ni::BuildVerdictMessage(b.data(), b.size(), queue, id,
                                           ni::NetfilterVerdict(verdict), packet));
}

// Source of the check record of `expression`: channel set-up, threads or lifecycle.
std::string FileOf(const std::string& expression) {
    for (const char* channel : {"Request(", "InitNetLinkSocket(m_", "SendMessage(", "ret >= 0"}) {
        if (expression.rfind(channel, 0) == 0) {
            return "network_traffic_interceptor/src/nfqueue_channel";
        }
    }
    if (expression == "AddFirewallRules()" || expression == "ret != -1") {
        return "network_traffic_interceptor/src/nfqueue_threads";
    }
    return "network_traffic_interceptor/src/nfqueue_interceptor";
}

std::string CheckRecord(const std::string& expression, const std::string& result,
                        const std::string& message) {
    return FileOf(expression) + ":#(" + expression +
           "),(QOR_SUCCEEDED(_result)) failed: result = " + result + " " + message;
}

std::string BoolRecord(const std::string& condition, const std::string& message) {
    return FileOf(condition) + ":#(" + condition + "),(bool) failed: result = false " + message;
}

constexpr const char* kUnspecified = "0x8000004b (Unspecified error)";

// InputChannelFailed is `records`, then those of the input channel's failed set-up.
std::vector<std::string> InputChannelFailed(std::vector<std::string> records) {
    records.push_back(CheckRecord("InitNetLinkSocket(m_input.queueNumber, &m_input.socket)",
                                  kUnspecified, "Cannot initialize input socket"));
    records.push_back(
        CheckRecord("InitNetLinkSocket()", kUnspecified, "Cannot initialize netlink m_socket"));
    return records;
}

using Socket = dwi::tools::MnlSocket;

// ClaimQueue binds `queue` to a socket of the test, so the interceptor
// cannot.
Socket ClaimQueue(std::uint16_t queue) {
    Socket s(mnl_socket_open(NETLINK_NETFILTER));
    if (!s || mnl_socket_bind(s.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        return nullptr;
    }
    alignas(nlmsghdr) char b[ni::kConfigBufferSize];
    const nlmsghdr* nlh = ni::BuildCfgRequest(b, NFQNL_CFG_CMD_BIND, queue);
    char answer[1024];
    if (mnl_socket_sendto(s.get(), nlh, nlh->nlmsg_len) < 0 ||
        mnl_socket_recvfrom(s.get(), answer, sizeof(answer)) <= 0) {
        return nullptr;
    }
    return s;
}

class NfQueueInterceptorTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kNetnsFailure.empty()) << kNetnsFailure;
        m_query->SetFirst(kFirstQueue);
        ASSERT_EQ(m_locator->Register(firewall::INfqueueQuery::IID, m_query.Get()), 0);
        m_interceptor = Create<WatchedInterceptor>(m_locator.Get(), m_tracer.Get(),
                                                   qor::RefPtr<fw::IDynamicRules>(m_rules.Get()));
    }
    void TearDown() override {
        if (m_interceptor) {
            m_interceptor->SetGate(true);
            // Tests that stopped it already get an error here.
            static_cast<void>(m_interceptor->Stop());
        }
        m_interceptor.Reset();
        m_locator->Clear();
    }

    qor::result_t Start(const fw::Filter& filter = {{}}) {
        return m_interceptor->Start(filter, m_callback.Get(), "svc");
    }

    // Lines of this interceptor, without the prefix, line numbers normalized.
    std::vector<std::string> Lines(std::uint32_t maxLevel = 1000) const {
        std::vector<std::string> lines;
        for (const auto& line : m_tracer->Lines()) {
            if (line.level <= maxLevel && line.text.rfind(kPrefix, 0) == 0) {
                lines.push_back(WithoutLine(line.text.substr(std::string(kPrefix).size())));
            }
        }
        return lines;
    }

    bool RulesCalls(std::size_t n) const {
        return Eventually([&] { return m_rules->Calls().size() >= n; });
    }

    ImplPtr<nti::test::RecordingTracer> m_tracer = Create<nti::test::RecordingTracer>();
    ImplPtr<nti::host::ServiceLocator> m_locator = Create<nti::host::ServiceLocator>();
    ImplPtr<nti::test::FakeNfqueueQuery> m_query = Create<nti::test::FakeNfqueueQuery>();
    ImplPtr<nti::test::FakeDynamicRules> m_rules = Create<nti::test::FakeDynamicRules>();
    ImplPtr<nti::test::FakePacketCallback> m_callback = Create<nti::test::FakePacketCallback>();
    ImplPtr<WatchedInterceptor> m_interceptor;
};

// --- Lifecycle --------------------------------------------------------------

TEST_F(NfQueueInterceptorTest, StartConfiguresBothChannelsAndStopEndsEverything) {
    const int descriptors = nti::test::OpenDescriptors();
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(m_query->LastCount(), 2u);
    ASSERT_TRUE(RulesCalls(1));
    EXPECT_TRUE(Eventually([] {
        return nti::test::CountThreads("zoltNfQPoll") == 1 &&
               nti::test::CountThreads("zoltNfQReply") == 1;
    }));

    std::vector<Bytes> expected = ChannelConfiguration(kFirstQueue);
    const std::vector<Bytes> output = ChannelConfiguration(kFirstQueue + 1);
    expected.insert(expected.end(), output.begin(), output.end());
    EXPECT_THAT(m_interceptor->Messages(NFQNL_MSG_CONFIG), ElementsAreArray(expected));

    ASSERT_EQ(m_interceptor->Stop(), 0);
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQPoll") == 0; }));
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQReply") == 0; }));
    EXPECT_EQ(nti::test::OpenDescriptors(), descriptors);

    const auto calls = m_rules->Calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_TRUE(calls[0].add);
    EXPECT_EQ(calls[0].tag, "svc");
    EXPECT_FALSE(calls[1].add);
    for (const auto& call : calls) {
        EXPECT_EQ(std::get<fw::kQueueRuleIndex>(call.rules.at(0)).queueNumber, kFirstQueue);
    }
    EXPECT_TRUE(Lines(500).empty()) << ::testing::PrintToString(Lines(500));
}

TEST_F(NfQueueInterceptorTest, SelectorsChooseTheQueueAndTheOutputQueueWrapsToZero) {
    m_query->SetFirst(65535);
    fw::Filter filter;
    for (std::uint32_t selector : {0u, 1u, 2u, 3u}) {
        fw::QueueRule rule;
        rule.direction = selector;
        rule.queueNumber = 7;  // overwritten
        rule.protocol = 17;
        rule.remotePorts = {53, 53};
        rule.interfaceName = "veth" + std::to_string(selector);
        filter.push_back(rule);
    }
    ASSERT_EQ(Start(filter), 0);
    ASSERT_TRUE(RulesCalls(1));
    const fw::Rules rules = m_rules->Calls()[0].rules;
    ASSERT_EQ(rules.size(), 4u);
    for (std::size_t i = 0; i < rules.size(); ++i) {
        filter[i].queueNumber = i % 2 == 0 ? 65535 : 0;
        EXPECT_EQ(rules[i], fw::Rule(filter[i])) << "selector " << i;
    }
    const auto config = m_interceptor->Messages(NFQNL_MSG_CONFIG);
    ASSERT_EQ(config.size(), 16u);
    EXPECT_EQ(config[4], ChannelConfiguration(65535)[4]);
    EXPECT_EQ(config[12], ChannelConfiguration(0)[4]);
}

TEST_F(NfQueueInterceptorTest, StartTwiceIsInvalidStateAndRestartTakesNewQueues) {
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(Start(), static_cast<qor::result_t>(0x8000006a));
    EXPECT_THAT(Lines(), Contains("Start: interceptor is started already"));
    EXPECT_EQ(m_query->Calls(), 1);
    ASSERT_EQ(m_interceptor->Stop(), 0);
    m_query->SetFirst(200);
    ASSERT_EQ(Start(), 0);
    ASSERT_TRUE(RulesCalls(3));
    EXPECT_EQ(std::get<fw::kQueueRuleIndex>(m_rules->Calls()[2].rules.at(0)).queueNumber, 200);
    ASSERT_EQ(m_interceptor->Stop(), 0);
    EXPECT_EQ(m_rules->Calls().size(), 4u);
}

// --- Start failures ------------------------------------------------------------

TEST_F(NfQueueInterceptorTest, StopNeverStartedAndStartWithoutAQueue) {
    EXPECT_EQ(m_interceptor->Stop(), static_cast<qor::result_t>(0x8000006a));
    EXPECT_THAT(Lines(), ElementsAre("NfQueueInterceptor() ", "Stop() ",
                                     "Stop: interceptor is stopped already"));
    m_tracer->Clear();
    ASSERT_EQ(m_locator->Unregister(firewall::INfqueueQuery::IID), 0);
    EXPECT_EQ(Start(), static_cast<qor::result_t>(0x80000001));
    EXPECT_THAT(Lines(300),
                ElementsAre(CheckRecord("qor::GetInterface(GetServiceLocator(), nfqueue.Ref())",
                                        "0x80000001 (Interface not supported)",
                                        "Cannot get firewall::INfqueueQuery interface")));
    // No thread was started, yet only Stop leads back to the stopped state.
    EXPECT_EQ(Start(), static_cast<qor::result_t>(0x8000006a));
    EXPECT_EQ(m_interceptor->Stop(), 0);
    EXPECT_EQ(m_interceptor->Stop(), static_cast<qor::result_t>(0x8000006a));
    EXPECT_TRUE(m_rules->Calls().empty());

    m_tracer->Clear();
    ASSERT_EQ(m_locator->Register(firewall::INfqueueQuery::IID, m_query.Get()), 0);
    m_query->Fail(qor::errors::kNotFound);
    EXPECT_EQ(Start(), qor::errors::kNotFound);
    EXPECT_THAT(Lines(300), ElementsAre(CheckRecord("nfqueue->GetAvailableQueue(count, queueNum)",
                                                    "0x8000004c (Not found)",
                                                    "Cannot get available NFQUEUE number")));
    EXPECT_EQ(m_interceptor->Messages(NFQNL_MSG_CONFIG).size(), 0u);
}

TEST_F(NfQueueInterceptorTest, KernelRefusesTheInputOrTheOutputQueue) {
    const int descriptors = nti::test::OpenDescriptors();
    {
        const Socket claim = ClaimQueue(kFirstQueue);
        ASSERT_TRUE(claim);
        EXPECT_EQ(Start(), static_cast<qor::result_t>(0x8000004b));
        EXPECT_EQ(Lines(300),
                  InputChannelFailed(
                      {BoolRecord("ret >= 0",
                                  "Error received from netlink socket: Operation not permitted"),
                       CheckRecord("Request( sock, BuildCfgRequest(buffer, NFQNL_CFG_CMD_BIND, "
                                   "queueNumber))",
                                   kUnspecified, "Cannot configure netlink m_socket")}));
        // The refused socket is closed at once.
        EXPECT_EQ(nti::test::OpenDescriptors(), descriptors + 1);
        EXPECT_EQ(m_interceptor->Stop(), 0);
    }
    m_tracer->Clear();
    m_query->SetFirst(kFirstQueue);
    const Socket claim = ClaimQueue(kFirstQueue + 1);
    ASSERT_TRUE(claim);
    EXPECT_EQ(Start(), static_cast<qor::result_t>(0x8000004b));
    EXPECT_THAT(Lines(300),
                Contains(CheckRecord("InitNetLinkSocket(m_output.queueNumber, &m_output.socket)",
                                     kUnspecified, "Cannot initialize output socket")));
    // The input channel stays open until Stop.
    EXPECT_EQ(nti::test::OpenDescriptors(), descriptors + 2);
    EXPECT_EQ(m_interceptor->Stop(), 0);
    EXPECT_EQ(nti::test::OpenDescriptors(), descriptors + 1);
}

struct StepCase {
    std::size_t position;  // of the failing message within the input channel
    const char* expression;
    bool fatal;
};

void PrintTo(const StepCase& c, std::ostream* os) {
    *os << c.position;
}

class NfQueueChannelStepTest : public NfQueueInterceptorTest,
                               public ::testing::WithParamInterface<StepCase> {};

TEST_P(NfQueueChannelStepTest, FailedSend) {
    const StepCase step = GetParam();
    m_interceptor->FailSend(step.position, EPERM);
    const std::string sendFailure =
        "SendMessage: Cannot send to netlink socket: Operation not permitted";
    const std::string requestFailure =
        CheckRecord("SendMessage(socket, nlh)", kUnspecified, "Cannot send netlink request");
    if (step.fatal) {
        EXPECT_EQ(Start(), static_cast<qor::result_t>(0x8000004b));
        EXPECT_EQ(Lines(300),
                  InputChannelFailed({sendFailure, requestFailure,
                                      CheckRecord(step.expression, kUnspecified,
                                                  "Cannot configure netlink m_socket")}));
        // Nothing is sent after a fatal step.
        EXPECT_EQ(m_interceptor->AllSent().size(), step.position);
    } else {
        EXPECT_EQ(Start(), 0);
        std::vector<std::string> warnings;
        for (const auto& line : Lines(500)) {
            if (line != sendFailure && line != requestFailure) {
                warnings.push_back(line);
            }
        }
        const std::string message = step.position == 7
                                        ? "Kernel doesn't support GSO handling capabilities!"
                                        : "Failed to increase NFQUEUE max length";
        EXPECT_THAT(warnings, ElementsAre("InitNetLinkSocket: " +
                                          CheckRecord(step.expression, kUnspecified, message)));
        EXPECT_EQ(m_interceptor->Messages(NFQNL_MSG_CONFIG).size(), 16u);
        EXPECT_EQ(m_interceptor->Stop(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, NfQueueChannelStepTest,
    ::testing::Values(
        StepCase{1, "Request( sock, BuildCfgPfRequest(buffer, NFQNL_CFG_CMD_PF_UNBIND, 2))", true},
        StepCase{6,
                 "Request( sock, BuildCfgParams(buffer, NFQNL_COPY_PACKET, 0xFFFF, queueNumber))",
                 true},
        StepCase{7, "Request(sock, BuildCfgFlagsGSO(buffer, queueNumber))", false},
        StepCase{8, "Request(sock, BuildCfgQueueMaxLen(buffer, queueNumber))", false}),
    [](const auto& test) { return "Message" + std::to_string(test.param.position); });

TEST_F(NfQueueInterceptorTest, RuleFailureEndsThePollThreadOnly) {
    m_rules->FailAdd(qor::errors::kAccessDenied);
    ASSERT_EQ(Start(), 0);
    // The thread removes the rules on its way out, failed or not.
    ASSERT_TRUE(RulesCalls(2));
    EXPECT_FALSE(m_rules->Calls()[1].add);
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQPoll") == 0; }));
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQReply") == 1; }));
    EXPECT_THAT(
        Lines(300),
        ElementsAre(CheckRecord("m_firewall->AddRules(rules, m_tag)", "0x80000045 (Access denied)",
                                "Cannot add firewall queue rules"),
                    CheckRecord("SetFirewallRules(insert)", "0x80000045 (Access denied)",
                                "Cannot set firewall rules"),
                    CheckRecord("AddFirewallRules()", "0x80000045 (Access denied)",
                                "Cannot add rules to firewall")));
    // Stop skips the poll thread's notifier, which is gone.
    EXPECT_EQ(m_interceptor->Stop(), 0);
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQReply") == 0; }));
}

TEST_F(NfQueueInterceptorTest, DestructionWithoutStopEndsTheThreads) {
    auto plain = Create<ni::NfQueueInterceptor>(m_locator.Get(), m_tracer.Get(),
                                                qor::RefPtr<fw::IDynamicRules>(m_rules.Get()));
    // An empty filter still starts both threads.
    ASSERT_EQ(plain->Start({}, nullptr, "empty"), 0);
    ASSERT_TRUE(RulesCalls(1));
    EXPECT_TRUE(m_rules->Calls()[0].rules.empty());
    EXPECT_EQ(m_rules->Calls()[0].tag, "empty");
    EXPECT_TRUE(Eventually([] {
        return nti::test::CountThreads("zoltNfQPoll") == 1 &&
               nti::test::CountThreads("zoltNfQReply") == 1;
    }));
    plain.Reset();
    EXPECT_EQ(m_rules->Calls().size(), 2u);
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQPoll") == 0; }));
    EXPECT_TRUE(Eventually([] { return nti::test::CountThreads("zoltNfQReply") == 0; }));
}

// --- Verdicts ----------------------------------------------------------------

ni::Packet QueuedPacket(std::uint32_t queue, std::uint32_t id) {
    ni::Packet packet;
    packet.queue = queue;
    packet.id = id;
    return packet;
}

TEST_F(NfQueueInterceptorTest, VerdictForAnUnknownQueueOrAfterStopIsRefused) {
    ASSERT_EQ(Start(), 0);
    for (std::uint32_t queue : {0u, 3u}) {
        EXPECT_EQ(m_interceptor->SetVerdict(QueuedPacket(queue, 1), 0),
                  static_cast<qor::result_t>(0x8000004b));
    }
    EXPECT_TRUE(m_interceptor->Messages(NFQNL_MSG_VERDICT).empty());
    ASSERT_EQ(m_interceptor->Stop(), 0);
    EXPECT_EQ(m_interceptor->SetVerdict(QueuedPacket(1, 1), 0), qor::errors::kInvalidState);
    EXPECT_THAT(Lines(300), ElementsAre("SetVerdict: Cannot set verdict: unknown queue for packet",
                                        "SetVerdict: Cannot set verdict: unknown queue for packet",
                                        "SetVerdict: Cannot set verdict: interceptor is stopped"));
}

TEST_F(NfQueueInterceptorTest, LaterSendsNothingAndAFailedQueuedSendLosesOnlyThatVerdict) {
    m_interceptor->ForwardVerdicts(false);
    ASSERT_EQ(Start(), 0);
    m_interceptor->FailSend(17, EPERM);
    ASSERT_EQ(m_interceptor->SetVerdict(QueuedPacket(1, 1), 0), 0);
    ASSERT_TRUE(Eventually([&] { return !Lines(300).empty(); }));
    EXPECT_THAT(Lines(300),
                ElementsAre("ReplyThread: Cannot send packet verdict: Operation not permitted"));
    EXPECT_EQ(m_interceptor->SetVerdict(QueuedPacket(1, 5), 3), 1);
    EXPECT_THAT(Lines(), Contains("SetVerdict() LATER"));
    EXPECT_EQ(m_interceptor->SetVerdict(QueuedPacket(2, 6), 1), 0);
    ASSERT_TRUE(Eventually([&] { return m_interceptor->Messages(NFQNL_MSG_VERDICT).size() == 2; }));
    EXPECT_THAT(m_interceptor->Messages(NFQNL_MSG_VERDICT),
                ElementsAre(Verdict(kFirstQueue, 1, 0), Verdict(kFirstQueue + 1, 6, 1)));
}

TEST_F(NfQueueInterceptorTest, VerdictsQueuedBeforeOneWakeUpGoInOrder) {
    m_interceptor->ForwardVerdicts(false);
    m_interceptor->SetGate(false);
    ASSERT_EQ(Start(), 0);
    // The reply thread holds the first verdict at the gate while ten more queue up.
    ASSERT_EQ(m_interceptor->SetVerdict(QueuedPacket(1, 1), 0), 0);
    ASSERT_TRUE(m_interceptor->WaitVerdictsAtGate(1));
    std::vector<Bytes> expected{Verdict(kFirstQueue, 1, 0)};
    for (std::uint32_t id = 2; id <= 11; ++id) {
        const std::uint32_t queue = id % 2 + 1;
        const std::uint32_t verdict = id % 3;
        ASSERT_EQ(m_interceptor->SetVerdict(QueuedPacket(queue, id), verdict), 0);
        expected.push_back(
            Verdict(static_cast<std::uint16_t>(kFirstQueue + queue - 1), id, verdict));
    }
    EXPECT_EQ(m_interceptor->Messages(NFQNL_MSG_VERDICT).size(), 1u);
    m_interceptor->SetGate(true);
    ASSERT_TRUE(
        Eventually([&] { return m_interceptor->Messages(NFQNL_MSG_VERDICT).size() >= 11; }));
    EXPECT_THAT(m_interceptor->Messages(NFQNL_MSG_VERDICT), ElementsAreArray(expected));
    // All of them left on the reply thread.
    const auto sent = m_interceptor->AllSent();
    for (std::size_t i = 16; i < sent.size(); ++i) {
        EXPECT_FALSE(pthread_equal(sent[i].thread, pthread_self())) << i;
    }
}

TEST_F(NfQueueInterceptorTest, StopDropsQueuedVerdicts) {
    m_interceptor->ForwardVerdicts(false);
    m_interceptor->SetGate(false);
    ASSERT_EQ(Start(), 0);
    ASSERT_EQ(m_interceptor->SetVerdict(QueuedPacket(1, 1), 0), 0);
    ASSERT_TRUE(m_interceptor->WaitVerdictsAtGate(1));
    for (std::uint32_t id = 2; id <= 5; ++id) {
        ASSERT_EQ(m_interceptor->SetVerdict(QueuedPacket(2, id), 1), 0);
    }
    qor::result_t stopped = -1;
    std::thread stopper([&] { stopped = m_interceptor->Stop(); });
    // The poll thread's notifier is gone and both of the reply thread's hold a
    // wake-up: the stop request is there before the gate opens.
    const bool stopPending = Eventually([] {
        const auto counts = nti::test::EventFdCounts();
        return counts.size() == 2 && counts[0] != 0 && counts[1] != 0;
    });
    m_interceptor->SetGate(true);
    stopper.join();
    ASSERT_TRUE(stopPending);
    EXPECT_EQ(stopped, 0);
    EXPECT_THAT(m_interceptor->Messages(NFQNL_MSG_VERDICT),
                ElementsAre(Verdict(kFirstQueue, 1, 0)));
}

TEST_F(NfQueueInterceptorTest, ChangedPayloadIsSentAtOnceByTheCallerAndItsFailureReturned) {
    m_interceptor->ForwardVerdicts(false);
    ASSERT_EQ(Start(), 0);
    std::uint8_t data[] = {1, 2, 3, 4, 5};
    ni::Packet packet = QueuedPacket(2, 77);
    packet.payloadChanged = true;
    packet.payloadBegin = data;
    packet.payloadEnd = data + sizeof(data);
    ASSERT_EQ(m_interceptor->SetVerdict(packet, 1), 0);
    packet.mark = 0xCAFE;
    ASSERT_EQ(m_interceptor->SetVerdict(packet, 2), 0);

    const auto sent = m_interceptor->AllSent();
    ASSERT_EQ(sent.size(), 18u);
    packet.mark = 0;
    EXPECT_EQ(sent[16].bytes, Verdict(kFirstQueue + 1, 77, 1, &packet));
    packet.mark = 0xCAFE;
    EXPECT_EQ(sent[17].bytes, Verdict(kFirstQueue + 1, 77, 2, &packet));
    EXPECT_TRUE(pthread_equal(sent[16].thread, pthread_self()));
    EXPECT_TRUE(pthread_equal(sent[17].thread, pthread_self()));
    m_interceptor->FailSend(19, ENOBUFS);
    EXPECT_EQ(m_interceptor->SetVerdict(packet, 0), static_cast<qor::result_t>(0x8000004b));
    EXPECT_THAT(Lines(300), ElementsAre(BoolRecord(
                                "ret != -1", "Cannot send verdict No buffer space available")));
}

// --- Traffic: loopback UDP to kPort, queued by iptables rules ------------------

constexpr std::uint16_t kPort = 9999;

// Udp is a datagram socket for 127.0.0.1:kPort.
class Udp {
public:
    Udp() : m_fd(socket(AF_INET, SOCK_DGRAM, 0)) {}
    ~Udp() { close(m_fd); }
    Udp(const Udp&) = delete;
    Udp& operator=(const Udp&) = delete;

    bool Bind() {
        const sockaddr_in a = Address();
        return bind(m_fd, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) == 0;
    }
    bool Send(const std::string& text) {
        const sockaddr_in a = Address();
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
    static sockaddr_in Address() {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(kPort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
    }
    int m_fd;
};

// TrafficTest queues UDP to kPort on loopback, in and out, through the host's
// iptables rules.
class TrafficTest : public NfQueueInterceptorTest {
protected:
    void SetUp() override {
        NfQueueInterceptorTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_EQ(std::system("ip link set lo up"), 0);
        ASSERT_EQ(m_iptables->Initialize(), 0);
        m_interceptor = Create<WatchedInterceptor>(
            m_locator.Get(), m_tracer.Get(), qor::RefPtr<fw::IDynamicRules>(m_iptables.Get()));
        ASSERT_TRUE(m_receiver.Bind());
        fw::Filter filter(2);
        for (const std::uint32_t direction : {fw::kInbound, fw::kOutbound}) {
            fw::QueueRule& rule = filter[direction];
            rule.direction = direction;
            rule.family = 4;
            rule.protocol = 17;
            rule.interfaceName = "lo";
            (direction == fw::kOutbound ? rule.remotePorts : rule.localPorts) = {kPort, kPort};
        }
        ASSERT_EQ(Start(filter), 0);
        ASSERT_TRUE(Eventually([&] { return m_iptables->InstalledCount() == 2; }));
    }

    ImplPtr<nti::host::IptablesRules> m_iptables = Create<nti::host::IptablesRules>(
        nti::host::FirewallOptions{}, qor::RefPtr<qor::ITracer>(m_tracer.Get()));
    Udp m_receiver;
    Udp m_sender;
};

TEST_F(TrafficTest, AllowedPacketPassesBothQueues) {
    ASSERT_TRUE(m_sender.Send("hello"));
    EXPECT_EQ(m_receiver.Receive(), "hello");
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
    ASSERT_TRUE(m_sender.Send("drop me"));
    ASSERT_TRUE(m_callback->WaitForPackets(1, std::chrono::seconds(10)));
    EXPECT_EQ(m_receiver.Receive(1), "<nothing>");
    EXPECT_EQ(m_callback->Packets().size(), 1u);
    EXPECT_TRUE(m_tracer->Has(
        500,
        "NfQueueInterceptor: NewPacketReceived: network_traffic_interceptor/src/"
        "nfqueue_threads:#(m_eventCallback->OnPacketReceived(packet, verdict)),"
        "(QOR_SUCCEEDED(_result)) failed: result = 0x8000004b (Unspecified error) Cannot "
        "process packet " +
            std::to_string(m_callback->Packets()[0].packet.id)));
}

TEST_F(TrafficTest, LaterVerdictGivenAfterwards) {
    m_callback->Answer(ni::Verdict::LATER);
    ASSERT_TRUE(m_sender.Send("later"));
    ASSERT_TRUE(m_callback->WaitForPackets(1, std::chrono::seconds(10)));
    ni::Packet packet = m_callback->Packets()[0].packet;
    packet.payloadBegin = packet.payloadEnd = nullptr;
    m_callback->Answer(ni::Verdict::ALLOW);
    EXPECT_EQ(m_interceptor->SetVerdict(packet, 0), 0);
    EXPECT_EQ(m_receiver.Receive(), "later");
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
    ASSERT_TRUE(m_sender.Send("again"));
    EXPECT_EQ(m_receiver.Receive(), "AGAIN");
    ASSERT_TRUE(m_callback->WaitForPackets(3, std::chrono::seconds(10)));
    const auto packets = m_callback->Packets();
    EXPECT_EQ(packets[0].packet.queue, 2u);
    EXPECT_EQ(packets[1].packet.queue, 2u);
    EXPECT_EQ(packets[2].packet.queue, 1u);
}

}  // namespace
