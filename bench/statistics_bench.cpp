// Costs of the connection statistics: one logged packet of a known
// connection, handing the counters over, a harvest, and memory per connection.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <chrono>
#include <memory>
#include <vector>

#include "bench/must_succeed.h"
#include "host/cli/service/history_store.h"
#include "host/cli/service/ipfix_sink.h"
#include "host/services/service_locator.h"
#include "host/services/tracer_sink.h"
#include "network_traffic_interceptor/src/connection_counters.h"
#include "network_traffic_interceptor/src/meta_registry.h"
#include "network_traffic_interceptor/src/nflog_connection_collector.h"
#include "tests/fakes/fake_dynamic_rules.h"
#include "tests/fakes/fake_iptables_info_provider.h"
#include "tests/fakes/fake_key_value_storage.h"
#include "tests/fakes/fake_nflog_listener_factory.h"
#include "tests/fakes/fake_startup_data_provider.h"
#include "tests/fakes/fake_timer.h"
#include "tests/support/nflog_message.h"

namespace {

using dwi::network_interceptor::ConnectionCounters;
using dwi::network_interceptor::ConnectionMap;
using dwi::network_interceptor::NfLogConnectionCollector;
using qor::object::Create;
using qor::object::ImplPtr;

// Host is the statistics service's host with fakes and a tracer that lets
// only failures through, as in production.
struct Host {
    Host() {
        locator->Add(qor::ITracer::IID, tracer.Get());
        locator->Add(dwi::firewall::IDynamicRules::IID, firewall.Get());
        locator->Add(dwi::firewall::INflogListenerFactory::IID, factory.Get());
        locator->Add(app_core::component::IKeyValueStorage::IID, storage.Get());
        locator->Add(qor::ITimer::IID, timer.Get());
        locator->Add(qor::IMetaInfoProvider::IID,
                     static_cast<qor::IMetaInfoProvider*>(registry.Get()));
        locator->Add(dwi::firewall::IIptablesInfoProvider::IID, iptables.Get());
        locator->Add(dwi::firewall::IStartupDataProvider::IID, startup.Get());
    }

    ImplPtr<nti::host::ServiceLocator> locator = Create<nti::host::ServiceLocator>();
    ImplPtr<nti::host::DiscardingTracer> tracer = Create<nti::host::DiscardingTracer>(300);
    ImplPtr<nti::test::FakeDynamicRules> firewall = Create<nti::test::FakeDynamicRules>();
    ImplPtr<nti::test::FakeNflogListenerFactory> factory =
        Create<nti::test::FakeNflogListenerFactory>();
    ImplPtr<nti::test::FakeKeyValueStorage> storage = Create<nti::test::FakeKeyValueStorage>();
    ImplPtr<nti::test::FakeTimer> timer = Create<nti::test::FakeTimer>();
    ImplPtr<dwi::network_interceptor::MetaInfoDescriptorsNamespace::TypeDescriptorStaticRegistry>
        registry = Create<
            dwi::network_interceptor::MetaInfoDescriptorsNamespace::TypeDescriptorStaticRegistry>();
    ImplPtr<nti::test::FakeIptablesInfoProvider> iptables =
        Create<nti::test::FakeIptablesInfoProvider>(1u);
    ImplPtr<nti::test::FakeStartupDataProvider> startup =
        Create<nti::test::FakeStartupDataProvider>();
};

// Connection `i`'s outgoing TCP packet: distinct by remote address and port.
std::unique_ptr<nti::test::NflogMessage> ConnectionMessage(std::uint32_t i) {
    const std::array<std::uint8_t, 4> remote{10, static_cast<std::uint8_t>(i >> 16),
                                             static_cast<std::uint8_t>(i >> 8),
                                             static_cast<std::uint8_t>(i)};
    return std::make_unique<nti::test::NflogMessage>(nti::test::NflogPacket{
        .hook = 3,
        .outDevice = 2,
        .hwType = 1,
        .hwHeader = nti::test::EthernetHeader({2, 0, 0, 0, 0, 0xfe}, {2, 0, 0, 0, 0, 1}, 0x0800),
        .payload = nti::test::Ipv4Packet(nti::test::kHostV4, remote, nti::test::kTcp,
                                         static_cast<std::uint16_t>(1024 + i % 60000), 443, 1400)});
}

std::vector<std::unique_ptr<nti::test::NflogMessage>> ConnectionMessages(std::uint32_t count) {
    std::vector<std::unique_ptr<nti::test::NflogMessage>> messages;
    messages.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        messages.push_back(ConnectionMessage(i));
    }
    return messages;
}

void Feed(nti::test::FakeNflogListener& listener,
          const std::vector<std::unique_ptr<nti::test::NflogMessage>>& messages) {
    for (const auto& message : messages) {
        listener.Deliver(message->Header(), message->Attributes());
    }
}

ImplPtr<NfLogConnectionCollector> MakeCollector(Host& host) {
    return Create<NfLogConnectionCollector>(host.locator.Get(), host.tracer.Get(), std::uint8_t{1},
                                            std::uint16_t{10000}, 0u);
}

void BM_OnDataKnownIpv4TcpConnection(benchmark::State& state) {
    Host host;
    const auto collector = MakeCollector(host);
    const auto message = ConnectionMessage(1);
    auto& listener = *host.factory->Listener();
    listener.Deliver(message->Header(), message->Attributes());
    for (auto _ : state) {
        listener.Deliver(message->Header(), message->Attributes());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OnDataKnownIpv4TcpConnection);

// TakeStats with an empty snapshot, as the harvest passes it: a swap, whatever
// the number of connections. Only the call is timed.
void BM_TakeStats(benchmark::State& state) {
    Host host;
    const auto collector = MakeCollector(host);
    const auto messages = ConnectionMessages(static_cast<std::uint32_t>(state.range(0)));
    auto& listener = *host.factory->Listener();
    for (auto _ : state) {
        Feed(listener, messages);
        ConnectionMap snapshot;
        const auto start = std::chrono::steady_clock::now();
        nti::bench::MustSucceed(collector->TakeStats(snapshot), "TakeStats");
        const auto stop = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
        benchmark::DoNotOptimize(snapshot.size());
    }
}
BENCHMARK(BM_TakeStats)->Arg(100)->Arg(10000)->Arg(100000)->Iterations(100)->UseManualTime();

// One harvest of 100,000 connections into four collectors; collector 1 cuts
// its interval, the others accumulate.
void BM_Harvest100kIntoFourCollectors(benchmark::State& state) {
    Host host;
    const auto service = Create<ConnectionCounters>(
        host.locator.Get(), host.tracer.Get(),
        dwi::network_interceptor::NetworkInventory(
            [](std::vector<dwi::network::NetworkInterface>&) { return qor::result_t{0}; }));
    for (std::uint32_t id = 1; id <= 4; ++id) {
        nti::bench::MustSucceed(
            service->RegisterCollector(
                id, system_interceptors::net::statistics::PeriodAlignment::EpochStartDate, 60000),
            "RegisterCollector");
    }
    qor::IRunnable* first = host.timer->Scheduled()[0].runnable.Get();
    const auto messages = ConnectionMessages(100000);
    auto& listener = *host.factory->Listener();
    std::vector<system_interceptors::net::statistics::IntervalCounters> intervals;
    for (auto _ : state) {
        state.PauseTiming();
        Feed(listener, messages);
        state.ResumeTiming();
        host.timer->Fire(first);
        state.PauseTiming();
        nti::bench::MustSucceed(service->ReadCounters(1, intervals), "ReadCounters");
        intervals.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * 100000);
}
BENCHMARK(BM_Harvest100kIntoFourCollectors)->Unit(benchmark::kMillisecond)->Iterations(10);

// One harvest of 100,000 connections by the service's single collector and
// the delivery of the closed interval into the sinks of `nti stats-service`
// chosen by the argument's bits: 1 JSON lines (to /dev/null), 2 SQLite
// history (a fresh file), 4 IPFIX over UDP (to a socket of a network
// namespace of this process's own). Feeding the packets is not timed.
void BM_Harvest100kIntoSinks(benchmark::State& state) {
    const auto mask = state.range(0);
    static const bool isolated = [] {
        // Loopback of a namespace of our own: nothing of the machine's is touched.
        if (unshare(CLONE_NEWNET) != 0) {
            return false;
        }
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq request{};
        std::strcpy(request.ifr_name, "lo");
        request.ifr_flags = IFF_UP;
        const bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
        close(fd);
        return up;
    }();
    if ((mask & 4) != 0 && !isolated) {
        state.SkipWithError("needs root for a network namespace of its own");
        return;
    }
    // The collector's receive socket; never read, datagrams beyond its buffer are dropped.
    const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(4739);
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)bind(receiver, reinterpret_cast<sockaddr*>(&at), sizeof(at));
    char dbPattern[] = "/tmp/nti-sinks-bench-XXXXXX";
    const int dbFd = mkstemp(dbPattern);
    close(dbFd);
    std::string error;
    std::vector<std::unique_ptr<nti::host::IIntervalSink>> sinks;
    if ((mask & 1) != 0) {
        sinks.push_back(nti::host::OpenJsonLinesSink("json", "/dev/null", error));
    }
    if ((mask & 2) != 0) {
        sinks.push_back(nti::host::OpenHistorySink("sqlite", dbPattern, 0, error));
    }
    if ((mask & 4) != 0) {
        sinks.push_back(nti::host::OpenIpfixSink("ipfix", {"127.0.0.1", 4739, 60, 1}, error));
    }
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
        return;
    }
    Host host;
    const auto service = Create<ConnectionCounters>(
        host.locator.Get(), host.tracer.Get(),
        dwi::network_interceptor::NetworkInventory(
            [](std::vector<dwi::network::NetworkInterface>&) { return qor::result_t{0}; }));
    nti::bench::MustSucceed(
        service->RegisterCollector(
            1, system_interceptors::net::statistics::PeriodAlignment::EpochStartDate, 60000),
        "RegisterCollector");
    qor::IRunnable* timer = host.timer->Scheduled()[0].runnable.Get();
    const auto messages = ConnectionMessages(100000);
    auto& listener = *host.factory->Listener();
    std::vector<system_interceptors::net::statistics::IntervalCounters> intervals;
    std::size_t connections = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Feed(listener, messages);
        intervals.clear();
        state.ResumeTiming();
        host.timer->Fire(timer);
        nti::bench::MustSucceed(service->ReadCounters(1, intervals), "ReadCounters");
        for (const auto& interval : intervals) {
            connections = interval.counters.size();
            for (const auto& sink : sinks) {
                if (const std::string failed = sink->Write(1, false, interval); !failed.empty()) {
                    state.SkipWithError(failed.c_str());
                }
            }
        }
    }
    state.counters["connections"] = static_cast<double>(connections);
    close(receiver);
    std::remove(dbPattern);
    std::remove((std::string(dbPattern) + "-wal").c_str());
    std::remove((std::string(dbPattern) + "-shm").c_str());
}
BENCHMARK(BM_Harvest100kIntoSinks)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(7)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

// Heap bytes per connection held by the collector's map (mallinfo2 delta).
void BM_MemoryPerConnection(benchmark::State& state) {
    Host host;
    const auto collector = MakeCollector(host);
    const auto count = static_cast<std::uint32_t>(state.range(0));
    const auto messages = ConnectionMessages(count);
    auto& listener = *host.factory->Listener();
    double perConnection = 0;
    for (auto _ : state) {
        ConnectionMap drained;
        nti::bench::MustSucceed(collector->TakeStats(drained), "TakeStats");
        drained = ConnectionMap();
        const std::size_t before = mallinfo2().uordblks;
        Feed(listener, messages);
        const std::size_t after = mallinfo2().uordblks;
        perConnection = static_cast<double>(after - before) / count;
    }
    state.counters["bytes_per_connection"] = perConnection;
}
BENCHMARK(BM_MemoryPerConnection)->Arg(100000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
