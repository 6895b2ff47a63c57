#include "network_traffic_interceptor/src/connection_counters.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "dwi_common/blob_tools.h"
#include "host/services/binary_serializer.h"
#include "host/services/service_locator.h"
#include "network_traffic_interceptor/src/meta_registry.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "qor/exception.h"
#include "tests/fakes/fake_allocator.h"
#include "tests/fakes/fake_dynamic_rules.h"
#include "tests/fakes/fake_iptables_info_provider.h"
#include "tests/fakes/fake_key_value_storage.h"
#include "tests/fakes/fake_nflog_listener_factory.h"
#include "tests/fakes/fake_startup_data_provider.h"
#include "tests/fakes/fake_timer.h"
#include "tests/support/call_log.h"
#include "tests/support/nflog_message.h"
#include "tests/support/recording_tracer.h"

namespace dwi::network_interceptor {

namespace {

using connection_counters_data::CollectorData;
using connection_counters_data::Collectors;
using nti::test::NflogPacket;
using qor::object::Create;
using qor::object::ImplPtr;
using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;
using system_interceptors::net::statistics::PeriodAlignment;

constexpr auto kEpoch = PeriodAlignment::EpochStartDate;
constexpr auto kRegistration = PeriodAlignment::CollectorRegistration;
constexpr std::uint8_t kLocalIn = 1;
constexpr std::uint8_t kLocalOut = 3;

using nti::test::kHostV4;
using nti::test::kHostV6;
using nti::test::kPeerV4;
using nti::test::kPeerV6;

// Summary lists "collector/period/alignment:" and the counter count of each
// ready interval, for every saved collector, sorted.
std::vector<std::string> Summary(const Collectors& saved) {
    std::vector<std::string> lines;
    for (const CollectorData& data : saved.collectors) {
        std::string line = std::to_string(data.collector) + "/" + std::to_string(data.period) +
                           "/" + std::to_string(data.periodAlignment) + ":";
        for (const IntervalCounters& interval : data.readyCounters) {
            line += " " + std::to_string(interval.counters.size());
        }
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

ip_t V4(std::array<std::uint8_t, 4> bytes) {
    ip_t ip;
    ip.family = 4;
    ip.v4.bytes = bytes;
    return ip;
}

ip_t V6(std::array<std::uint8_t, 16> bytes) {
    ip_t ip;
    ip.family = 6;
    ip.v6.bytes = bytes;
    return ip;
}

// Outgoing TCP packet from local port `port` on interface `ifindex`.
NflogPacket Out(std::uint16_t port, std::uint16_t totalLength = 100, std::uint32_t ifindex = 2) {
    return {.hook = kLocalOut,
            .outDevice = ifindex,
            .payload =
                nti::test::Ipv4Packet(kHostV4, kPeerV4, nti::test::kTcp, port, 443, totalLength)};
}

NflogPacket In(std::uint16_t port, std::uint16_t totalLength = 100, std::uint32_t ifindex = 2) {
    return {.hook = kLocalIn,
            .inDevice = ifindex,
            .payload =
                nti::test::Ipv4Packet(kPeerV4, kHostV4, nti::test::kTcp, 443, port, totalLength)};
}

// Find returns the counter of local port `port` in `interval`, or null.
const ConnectionCounter* Find(const IntervalCounters& interval, std::uint16_t port) {
    for (const auto& counter : interval.counters) {
        if (counter.localPort == port) {
            return &counter;
        }
    }
    return nullptr;
}

// ServiceHarness: the statistics service's host services, all fakes except
// the locator and the metadata registry.
class ServiceHarness {
public:
    ServiceHarness() {
        m_locator->Add(m_tracer.Get());
        m_locator->Add(m_storage.Get());
        m_locator->Add(m_timer.Get());
        m_locator->Add(
            qor::IMetaInfoProvider::IID,
            static_cast<qor::IMetaInfoProvider*>(
                Create<MetaInfoDescriptorsNamespace::TypeDescriptorStaticRegistry>().Get()));
        m_locator->Add(Create<nti::test::FakeIptablesInfoProvider>(1u).Get());
        m_locator->Add(Create<nti::test::FakeStartupDataProvider>(
                           dwi::firewall::StartupData{.nflogBypassMark = 0x4000})
                           .Get());
        m_locator->Add(m_factory.Get());
        m_locator->Add(m_firewall.Get());
        m_locator->Add(m_serializer.Get());
        m_locator->Add(m_allocator.Get());
        m_storage->SetLog(&m_log);
        m_timer->SetLog(&m_log);
        m_factory->SetLog(&m_log);
    }

    ImplPtr<ConnectionCounters> Make() {
        return Create<ConnectionCounters>(
            m_locator.Get(), m_tracer.Get(),
            NetworkInventory([this](std::vector<dwi::network::NetworkInterface>& out) {
                if (m_inventoryResult < 0) {
                    return m_inventoryResult;
                }
                out = m_interfaces;
                return qor::result_t{0};
            }));
    }

    // MakeWithTwoCollectors registers collector 1 (EpochStartDate, 60000) and
    // 2 (CollectorRegistration, 30000) and harvests one connection for 1.
    ImplPtr<ConnectionCounters> MakeWithTwoCollectors() {
        auto service = Make();
        EXPECT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
        qor::IRunnable* first = m_timer->Latest();
        EXPECT_EQ(service->RegisterCollector(2, kRegistration, 30000), 0);
        Deliver(Out(1000));
        EXPECT_EQ(m_timer->Fire(first), 0);
        return service;
    }

    void Deliver(const NflogPacket& packet) {
        const nti::test::NflogMessage message(packet);
        m_factory->Listener()->Deliver(message.Header(), message.Attributes());
    }

    // Read takes collector `id`'s ready intervals, expecting success.
    std::vector<IntervalCounters> Read(ConnectionCounters& service, std::uint32_t id) {
        std::vector<IntervalCounters> intervals;
        EXPECT_EQ(service.ReadCounters(id, intervals), 0);
        return intervals;
    }

    // Saved reads the stored value back.
    Collectors Saved() {
        Collectors saved;
        const auto blob = m_storage->Value("Collectors");
        const qor::AnyRef any{&saved,
                              FindStatisticsType(connection_counters_data::kCollectorsTypeId)};
        EXPECT_EQ(blob ? dwi::tools::AnyFromBlob(m_locator.Get(), *blob, any) : -1, 0);
        return saved;
    }

    // HasCheckRecord matches a level-300 checked-call record of the service.
    bool HasCheckRecord(const std::string& expression, const std::string& tail) const {
        // Storage calls are checked by the persistence code.
        bool stored = false;
        for (const char* call : {"tools::Any", "m_storage->", "m_metaInfoProvider->"}) {
            stored |= expression.rfind(call, 0) == 0;
        }
        return m_tracer->HasCheckRecord(
            stored ? "network_traffic_interceptor/src/connection_counters_storage"
                   : "network_traffic_interceptor/src/connection_counters",
            expression, tail);
    }

    nti::test::CallLog m_log;
    ImplPtr<nti::host::ServiceLocator> m_locator = Create<nti::host::ServiceLocator>();
    ImplPtr<nti::test::RecordingTracer> m_tracer = Create<nti::test::RecordingTracer>();
    ImplPtr<nti::test::FakeKeyValueStorage> m_storage = Create<nti::test::FakeKeyValueStorage>();
    ImplPtr<nti::test::FakeTimer> m_timer = Create<nti::test::FakeTimer>();
    ImplPtr<nti::test::FakeNflogListenerFactory> m_factory =
        Create<nti::test::FakeNflogListenerFactory>();
    ImplPtr<nti::test::FakeDynamicRules> m_firewall = Create<nti::test::FakeDynamicRules>();
    ImplPtr<nti::host::BinarySerializer> m_serializer = Create<nti::host::BinarySerializer>();
    ImplPtr<nti::test::FakeAllocator> m_allocator = Create<nti::test::FakeAllocator>();
    std::vector<dwi::network::NetworkInterface> m_interfaces;
    qor::result_t m_inventoryResult = 0;
};

class ConnectionCountersTest : public ::testing::Test, public ServiceHarness {};

TEST_F(ConnectionCountersTest, FirstRegistrationCreatesAndStartsTheSource) {
    // Low byte 0: IPv4 only.
    m_locator->Add(Create<nti::test::FakeIptablesInfoProvider>(0x100u).Get());
    const auto service = Make();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);

    ASSERT_EQ(m_factory->Listeners().size(), 1u);
    EXPECT_EQ(m_factory->Listener()->Starts(), (std::vector<std::vector<std::uint16_t>>{{10000}}));
    const auto calls = m_firewall->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].tag, "zolt_stats");
    for (const auto& rule : calls[0].rules) {
        const auto& nflog = std::get<dwi::firewall::NflogRule>(rule);
        EXPECT_EQ(nflog.nflogGroup, 10000);
        EXPECT_EQ(nflog.bypassMark, 0x4000u);
        EXPECT_EQ(nflog.ipVersion, 4);
    }
    const auto scheduled = m_timer->Scheduled();
    ASSERT_EQ(scheduled.size(), 1u);
    EXPECT_EQ(scheduled[0].period, 60000u);
}

TEST_F(ConnectionCountersTest, HarvestClosesTheTriggersIntervalAndReadHandsItOverOnce) {
    const auto service = Make();
    const std::uint64_t registered = CurrentTime();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
    qor::IRunnable* harvest = m_timer->Latest();
    Deliver(Out(40000, 100));
    Deliver(In(40000, 1500));
    Deliver(In(40000, 40));
    ASSERT_EQ(m_timer->Fire(harvest), 0);

    const auto intervals = Read(*service, 1);
    ASSERT_EQ(intervals.size(), 1u);
    EXPECT_LE(registered, intervals[0].begin);
    EXPECT_LE(intervals[0].begin, intervals[0].end);
    EXPECT_LE(intervals[0].end, CurrentTime());
    ConnectionCounter expected;
    expected.localIp = V4(kHostV4);
    expected.remoteIp = V4(kPeerV4);
    expected.localPort = 40000;
    expected.remotePort = 443;
    expected.bytesSent = 100;
    expected.packetsSent = 1;
    expected.bytesReceived = 1540;
    expected.packetsReceived = 2;
    expected.ipProtocol = 6;
    EXPECT_EQ(intervals[0].counters, std::vector<ConnectionCounter>{expected});

    EXPECT_TRUE(Read(*service, 1).empty());
    // The next interval starts where the previous ended.
    Deliver(Out(40000));
    ASSERT_EQ(m_timer->Fire(harvest), 0);
    const auto next = Read(*service, 1);
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].begin, intervals[0].end);
}

// Every harvest reaches every collector, adding up, and closes only the
// trigger's interval; a registration-aligned collector starts with a harvest
// that it does not receive itself.
TEST_F(ConnectionCountersTest, EveryCollectorReceivesTheHarvestOnlyTheTriggerIsClosed) {
    const auto service = Make();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
    qor::IRunnable* first = m_timer->Latest();
    Deliver(Out(1000));
    ASSERT_EQ(service->RegisterCollector(2, kRegistration, 30000), 0);
    qor::IRunnable* second = m_timer->Latest();
    EXPECT_TRUE(Read(*service, 1).empty());  // received, not closed

    Deliver(Out(1000));
    Deliver(Out(2000));
    ASSERT_EQ(m_timer->Fire(second), 0);
    const auto fromSecond = Read(*service, 2);
    ASSERT_EQ(fromSecond.size(), 1u);
    ASSERT_EQ(fromSecond[0].counters.size(), 2u);
    EXPECT_EQ(Find(fromSecond[0], 1000)->packetsSent, 1u);
    EXPECT_EQ(Find(fromSecond[0], 2000)->packetsSent, 1u);
    EXPECT_TRUE(Read(*service, 1).empty());

    ASSERT_EQ(m_timer->Fire(first), 0);
    EXPECT_TRUE(Read(*service, 2).empty());
    const auto fromFirst = Read(*service, 1);
    ASSERT_EQ(fromFirst.size(), 1u);
    ASSERT_EQ(fromFirst[0].counters.size(), 2u);
    EXPECT_EQ(Find(fromFirst[0], 1000)->packetsSent, 2u);  // both harvests added up
    EXPECT_EQ(Find(fromFirst[0], 2000)->packetsSent, 1u);
}

TEST_F(ConnectionCountersTest, SameParametersKeepTheCollectorOthersRestartIt) {
    const auto service = Make();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
    qor::IRunnable* harvest = m_timer->Latest();
    Deliver(Out(1000));
    ASSERT_EQ(m_timer->Fire(harvest), 0);

    EXPECT_EQ(service->RegisterCollector(1, kEpoch, 60000), 1);
    EXPECT_EQ(m_timer->SetCount(), 1u);
    EXPECT_EQ(m_timer->CancelCount(), 0u);

    struct Change {
        PeriodAlignment alignment;
        std::uint32_t period;
    };
    for (const Change change : {Change{kEpoch, 30000}, Change{kRegistration, 30000}}) {
        SCOPED_TRACE(change.period);
        Deliver(Out(1000));
        ASSERT_EQ(m_timer->Fire(m_timer->Latest()), 0);
        const std::uint32_t cancels = m_timer->CancelCount();
        EXPECT_EQ(service->RegisterCollector(1, change.alignment, change.period), 0);
        EXPECT_EQ(m_timer->CancelCount(), cancels + 1);
        const auto scheduled = m_timer->Scheduled();
        ASSERT_EQ(scheduled.size(), 1u);
        EXPECT_EQ(scheduled[0].period, change.period);
        EXPECT_TRUE(Read(*service, 1).empty());  // the old intervals were dropped
    }
    EXPECT_EQ(m_factory->Listeners().size(), 1u);
    EXPECT_EQ(m_factory->Listener()->Stops(), 0);
}

// Each collector's harvest adapter holds the module; the last unregistration
// stops the source, whose failure is returned.
TEST_F(ConnectionCountersTest, LastUnregistrationStopsTheSourceAndRegistrationRestartsIt) {
    const auto service = Make();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
    const std::uint32_t before = qor::g_moduleObjectCount.load();
    ASSERT_EQ(service->RegisterCollector(2, kEpoch, 60000), 0);
    EXPECT_EQ(qor::g_moduleObjectCount.load(), before + 1);
    const auto listener = m_factory->Listener();

    EXPECT_EQ(service->UnregisterCollector(1), 0);
    EXPECT_EQ(qor::g_moduleObjectCount.load(), before);
    EXPECT_EQ(listener->Stops(), 0);
    EXPECT_EQ(service->UnregisterCollector(1), 1);
    std::vector<IntervalCounters> counters;
    EXPECT_EQ(service->ReadCounters(1, counters), qor::errors::kNotFound);

    EXPECT_EQ(service->UnregisterCollector(2), 0);
    EXPECT_EQ(listener->Stops(), 1);
    ASSERT_EQ(m_firewall->Calls().size(), 2u);
    EXPECT_FALSE(m_firewall->Calls()[1].add);
    EXPECT_EQ(m_firewall->Calls()[1].rules, m_firewall->Calls()[0].rules);
    EXPECT_TRUE(m_timer->Scheduled().empty());

    ASSERT_EQ(service->RegisterCollector(3, kEpoch, 60000), 0);
    EXPECT_EQ(m_factory->Listeners().size(), 1u);
    EXPECT_EQ(listener->Starts().size(), 2u);
    EXPECT_EQ(m_firewall->Calls().size(), 3u);
    listener->FailStop(qor::errors::kInvalidState);
    EXPECT_EQ(service->UnregisterCollector(3), qor::errors::kInvalidState);
    EXPECT_TRUE(HasCheckRecord("m_sourceCollector->Stop()", "0x8000006a"));
}

TEST_F(ConnectionCountersTest, IntervalsCarryTheGatewayOfTheConnectionsFamily) {
    const qor::mac48_address_t gatewayMac{{0x02, 0, 0, 0, 0, 0xfe}};
    dwi::network::NetworkInterface withGateways;
    withGateways.index = 2;
    withGateways.ipv4Gateway = dwi::network::Gateway{4, {192, 168, 1, 1}, gatewayMac.bytes};
    withGateways.ipv6Gateway =
        dwi::network::Gateway{6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {}};
    dwi::network::NetworkInterface withoutGateways;
    withoutGateways.index = 3;
    m_interfaces = {withGateways, withoutGateways};

    const auto service = Make();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
    qor::IRunnable* harvest = m_timer->Latest();
    Deliver(Out(1000, 100, 2));
    Deliver(Out(3000, 100, 3));
    Deliver({.hook = kLocalOut,
             .outDevice = 2,
             .payload = nti::test::Ipv6Packet(kHostV6, kPeerV6, nti::test::kUdp, 2000, 53, 60)});
    ASSERT_EQ(m_timer->Fire(harvest), 0);

    auto intervals = Read(*service, 1);
    ASSERT_EQ(intervals.size(), 1u);
    ASSERT_EQ(intervals[0].counters.size(), 3u);
    const ConnectionCounter* v4 = Find(intervals[0], 1000);
    EXPECT_EQ(v4->gatewayIp, V4({192, 168, 1, 1}));
    EXPECT_EQ(v4->gatewayMac, gatewayMac);
    const ConnectionCounter* v6 = Find(intervals[0], 2000);
    EXPECT_EQ(v6->localIp, V6(kHostV6));
    EXPECT_EQ(v6->gatewayIp, V6({0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(v6->gatewayMac, std::nullopt);
    const ConnectionCounter* none = Find(intervals[0], 3000);
    EXPECT_EQ(none->gatewayIp, std::nullopt);
    EXPECT_EQ(none->gatewayMac, std::nullopt);

    // A failed inventory is traced and leaves the known gateways in place.
    m_inventoryResult = qor::errors::kUnspecified;
    Deliver(Out(1000, 100, 2));
    ASSERT_EQ(m_timer->Fire(harvest), 0);
    intervals = Read(*service, 1);
    ASSERT_EQ(intervals.size(), 1u);
    EXPECT_EQ(Find(intervals[0], 1000)->gatewayIp, V4({192, 168, 1, 1}));
    EXPECT_TRUE(m_tracer->Contains("UpdateGateways: Can not obtain network interfaces"));
}

// The timer waits for a running harvest, which needs the service's mutex: the
// mutex must be free while CancelAndWait waits.
TEST_F(ConnectionCountersTest, CancelAndWaitRunsWithoutTheServiceLock) {
    int harvestsDuringCancel = 0;
    m_timer->OnCancel([&](qor::IRunnable* runnable) {
        auto running = std::async(std::launch::async, [&] { return m_timer->Fire(runnable); });
        if (running.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "CancelAndWait was called with the service lock held";
            std::abort();
        }
        if (running.get() == 0) {
            ++harvestsDuringCancel;
        }
    });
    auto service = Make();
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 0);
    ASSERT_EQ(service->RegisterCollector(1, kEpoch, 30000), 0);  // other parameters
    ASSERT_EQ(service->RegisterCollector(2, kEpoch, 60000), 0);
    ASSERT_EQ(service->UnregisterCollector(2), 0);
    ASSERT_EQ(service->RegisterCollector(3, kEpoch, 60000), 0);
    service.Reset();  // cancels 1 and 3
    EXPECT_EQ(harvestsDuringCancel, 4);
}

TEST_F(ConnectionCountersTest, TimerFailures) {
    const auto service = Make();
    m_timer->FailSet(qor::errors::kOutOfMemory);
    EXPECT_EQ(service->RegisterCollector(7, kEpoch, 60000), qor::errors::kOutOfMemory);
    EXPECT_TRUE(HasCheckRecord("StartCollectionForCollector(bucket)", "0x80000041"));
    std::vector<IntervalCounters> counters;
    EXPECT_EQ(service->ReadCounters(7, counters), qor::errors::kNotFound);

    m_timer->FailSet(0);
    ASSERT_EQ(service->RegisterCollector(8, kEpoch, 60000), 0);
    m_timer->FailCancel(qor::errors::kUnexpected);
    EXPECT_EQ(service->UnregisterCollector(8), 0);
    EXPECT_EQ(service->ReadCounters(8, counters), qor::errors::kNotFound);
}

TEST_F(ConnectionCountersTest, SourceFailuresFailTheRegistration) {
    struct Case {
        qor::iid_t missing;  // 0: the listener or the rules fail with `result`
        qor::result_t result;
        std::string expression;
        std::string message;
    };
    const Case cases[] = {
        {dwi::firewall::IIptablesInfoProvider::IID, qor::errors::kNoInterface,
         "qor::GetInterface(sl, iptablesInfoProvider.Ref())",
         "Cannot get IIptablesInfoProvider interface"},
        {0, qor::errors::kUnspecified, "CreateSourceCollector()", "Cannot"},
        {0, qor::errors::kAccessDenied, "m_sourceCollector->Start()", "Cannot"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expression);
        ServiceHarness h;
        if (c.missing != 0) {
            ASSERT_EQ(h.m_locator->Unregister(c.missing), 0);
        }
        h.m_factory->FailCreate(c.result == qor::errors::kUnspecified ? c.result : 0);
        h.m_firewall->FailAdd(c.result == qor::errors::kAccessDenied ? c.result : 0);
        const auto service = h.Make();
        EXPECT_EQ(service->RegisterCollector(1, kEpoch, 60000), c.result);
        EXPECT_TRUE(h.HasCheckRecord(c.expression, c.message));
        std::vector<IntervalCounters> counters;
        EXPECT_EQ(service->ReadCounters(1, counters), qor::errors::kNotFound);
        EXPECT_TRUE(h.m_timer->Scheduled().empty());
    }
}

TEST_F(ConnectionCountersTest, DestructionCancelsStopsCutsAndSaves) {
    auto service = MakeWithTwoCollectors();
    Deliver(Out(2000));  // never harvested: dropped
    m_log.Clear();
    m_tracer->Clear();
    service.Reset();

    EXPECT_EQ(m_log.Entries(), (std::vector<std::string>{"CancelAndWait", "CancelAndWait",
                                                         "Listener Stop", "DeleteValue Collectors",
                                                         "SetValue Collectors", "Listener Stop"}));
    EXPECT_TRUE(m_timer->Scheduled().empty());

    // Collector 1 keeps the harvest's interval and the final cut.
    EXPECT_EQ(Summary(Saved()), (std::vector<std::string>{"1/60000/0: 1 0", "2/30000/1: 1"}));
    EXPECT_EQ(m_allocator->Outstanding(), 0);
}

// Persistence across service lifetimes, through one storage.
class ConnectionCountersPersistenceTest : public ConnectionCountersTest {
protected:
    // SaveTwoCollectors leaves a stored value with collector 1 (two intervals)
    // and collector 2 (one interval).
    void SaveTwoCollectors() {
        MakeWithTwoCollectors().Reset();
        ASSERT_TRUE(m_storage->Value("Collectors").has_value());
        m_tracer->Clear();
        m_log.Clear();
    }
};

TEST_F(ConnectionCountersPersistenceTest, RestoredCollectorsRunAndCanBeRead) {
    SaveTwoCollectors();
    const Collectors saved = Saved();
    const std::uint64_t created = CurrentTime();
    const auto service = Make();

    ASSERT_EQ(m_factory->Listeners().size(), 2u);
    EXPECT_EQ(m_factory->Listener()->Starts().size(), 1u);
    auto scheduled = m_timer->Scheduled();
    ASSERT_EQ(scheduled.size(), 2u);
    EXPECT_EQ((std::set<std::uint32_t>{scheduled[0].period, scheduled[1].period}),
              (std::set<std::uint32_t>{30000, 60000}));

    for (const CollectorData& data : saved.collectors) {
        EXPECT_EQ(Read(*service, data.collector), data.readyCounters);
    }
    // The first interval after a restart begins when its timer started.
    Deliver(Out(1000));
    ASSERT_EQ(m_timer->Fire(scheduled[0].runnable.Get()), 0);
    ASSERT_EQ(m_timer->Fire(scheduled[1].runnable.Get()), 0);
    for (const std::uint32_t id : {1u, 2u}) {
        const auto intervals = Read(*service, id);
        ASSERT_EQ(intervals.size(), 1u);
        EXPECT_LE(created, intervals[0].begin);
        EXPECT_EQ(intervals[0].counters.size(), 1u);
    }
}

// Only collectors registered again are saved again; with none the value is
// deleted.
TEST_F(ConnectionCountersPersistenceTest, OnlyCollectorsRegisteredAgainAreSavedAgain) {
    SaveTwoCollectors();
    auto service = Make();
    EXPECT_EQ(service->RegisterCollector(1, kEpoch, 60000), 1);
    service.Reset();
    EXPECT_EQ(Summary(Saved()), (std::vector<std::string>{"1/60000/0: 1 0 0"}));

    m_log.Clear();
    Make().Reset();
    // Restored and never registered again: started, stopped, then deleted.
    EXPECT_EQ(m_log.Entries(),
              (std::vector<std::string>{"GetValue Collectors", "Listener Start",
                                        "SetRepeated 60000", "CancelAndWait", "Listener Stop",
                                        "DeleteValue Collectors", "Listener Stop"}));
    EXPECT_FALSE(m_storage->Value("Collectors").has_value());
}

TEST_F(ConnectionCountersPersistenceTest, DamagedOrUnreadableValueStartsEmpty) {
    const struct {
        const char* name;
        std::function<void(ServiceHarness&)> damage;
        std::string trace;
        std::string failure;  // the level-300 line, if any
    } cases[] = {
        {"damaged blob",
         [](ServiceHarness& h) {
             const std::uint8_t bytes[] = {1, 2, 3};
             h.m_storage->Put("Collectors", qor::ByteVector(bytes, sizeof(bytes)));
         },
         "tools::AnyFromBlob(sl, dataBlob, any)", ""},
        {"storage failure",
         [](ServiceHarness& h) { h.m_storage->FailGet(qor::errors::kMediaError); },
         "LoadCountersFromStorage()",
         "ConnectionCounters: LoadCountersFromStorage: Failed to load statistic from storage: "
         "0x80000059 (Media error)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ServiceHarness h;
        c.damage(h);
        const auto service = h.Make();
        EXPECT_TRUE(h.HasCheckRecord(c.trace, "Cannot"));
        EXPECT_EQ(h.m_factory->Listener(), nullptr);
        EXPECT_TRUE(c.failure.empty() || h.m_tracer->Has(300, c.failure));
    }
}

TEST_F(ConnectionCountersPersistenceTest, FailedSaveKeepsTheOldValue) {
    SaveTwoCollectors();
    const qor::ByteVector old = *m_storage->Value("Collectors");
    const struct {
        const char* name;
        std::function<void(ServiceHarness&)> breakIt;
        std::string expression;
        bool deleted;
    } cases[] = {
        {"serialisation", [](ServiceHarness& h) { h.m_allocator->FailAllocations(true); },
         "tools::AnyToBlob(sl, any, dataBlob)", false},
        {"delete", [](ServiceHarness& h) { h.m_storage->FailDelete(qor::errors::kAccessDenied); },
         "m_storage->DeleteValue(storageKey)", false},
        {"write", [](ServiceHarness& h) { h.m_storage->FailSet(qor::errors::kOutOfSpace); },
         "m_storage->SetValue(storageKey, dataBlob)", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_storage->Put("Collectors", old);
        auto service = Make();
        ASSERT_EQ(service->RegisterCollector(1, kEpoch, 60000), 1);
        c.breakIt(*this);
        m_tracer->Clear();
        service.Reset();
        EXPECT_TRUE(HasCheckRecord(c.expression, "Cannot"));
        EXPECT_TRUE(m_tracer->Contains(
            "ConnectionCounters: ~ConnectionCounters: '(MoveCountersToStorage())="));
        EXPECT_EQ(m_storage->Value("Collectors"),
                  c.deleted ? std::nullopt : std::optional<qor::ByteVector>(old));
        m_allocator->FailAllocations(false);
        m_storage->FailDelete(0);
        m_storage->FailSet(0);
    }
}

TEST_F(ConnectionCountersPersistenceTest, FailedRestartOfRestoredCollectorsFailsConstruction) {
    SaveTwoCollectors();
    m_timer->FailSetAfter(1);
    EXPECT_THROW(Make(), qor::CheckResultFailedException);
    EXPECT_TRUE(HasCheckRecord("StartCollectionForCollector(bucket)", "Cannot"));
    // The timer that did start is cancelled; the rules are removed again.
    EXPECT_TRUE(m_timer->Scheduled().empty());
    const auto calls = m_firewall->Calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_FALSE(calls.back().add);
}

}  // namespace
}  // namespace dwi::network_interceptor
