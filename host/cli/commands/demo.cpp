// nti demo: a live, self-checking demonstration in throwaway namespaces.
//
//   peer namespace  198.18.0.2 / fd00:198:18::2
//        | veth
//   dut namespace   198.18.0.1 / fd00:198:18::1   <- nti: interception + statistics
//
// The interception drops UDP to one port and allows the rest; the statistics
// service counts every connection. Traffic is generated both ways, then the
// demo checks that what should arrive arrived, what should not did not, and
// that the counters match what was sent.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <unistd.h>
#include <csignal>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "dwi_common/ip_protocol.h"
#include "host/cli/commands/commands.h"
#include "host/cli/commands/stats_format.h"
#include "host/cli/net_admin.h"
#include "host/fixture/netns.h"
#include "host/fixture/traffic.h"
#include "host/services/process.h"
#include "network_traffic_interceptor/connection_counters.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "network_traffic_interceptor/packet.h"
#include "network_traffic_interceptor/statistics.h"
#include "qor/object.h"

namespace nti::host {
namespace {

namespace ni = dwi::network_interceptor;
namespace st = system_interceptors::net::statistics;
using dwi::network::ProtocolName;
using namespace std::chrono_literals;

constexpr std::uint16_t kAllowedUdpPort = 7001;
constexpr std::uint16_t kTcpPort = 7003;
constexpr std::uint16_t kOutboundUdpPort = 7004;
constexpr std::size_t kUdpPayload = 64;
constexpr std::uint32_t kCollectorId = 1;
constexpr char kServiceName[] = "nti-demo";

std::atomic<bool> g_cancel{false};

extern "C" void OnDemoSignal(int) {
    g_cancel = true;
}

struct DemoOptions {
    int packets = 10;
    std::uint16_t droppedPort = 7002;
    bool quiet = false;
};

std::string FormatAddress(const ni::PacketEndpoint& e) {
    char text[INET6_ADDRSTRLEN] = {};
    if (e.version == 4) {
        const std::uint32_t v = htonl(static_cast<std::uint32_t>(e.address));
        inet_ntop(AF_INET, &v, text, sizeof(text));
    } else {
        std::uint8_t bytes[16];
        for (int i = 0; i < 16; ++i) {
            bytes[i] = static_cast<std::uint8_t>(e.address >> (8 * (15 - i)));
        }
        inet_ntop(AF_INET6, bytes, text, sizeof(text));
    }
    return text;
}

// DemoConsumer decides on every queued packet: UDP to the dropped port is
// dropped, the rest allowed. It prints what it sees as it happens.
class DemoConsumer : public qor::object::Ifaces<ni::IPacketEventCallback> {
public:
    DemoConsumer(std::uint16_t droppedPort, bool quiet)
        : m_droppedPort(droppedPort), m_quiet(quiet) {}

    [[nodiscard]] qor::result_t OnPacketReceived(ni::Packet& packet,
                                                 ni::Verdict& verdict) noexcept override {
        ni::ParsedPacket parsed;
        std::string line;
        try {
            if (parsed.Parse({packet.payloadBegin, packet.payloadEnd}, false) != 0) {
                return 0;
            }
        } catch (...) {
            return 0;  // truncated: allowed as preset
        }
        const bool drop = parsed.Protocol() == 17 && parsed.Destination().port == m_droppedPort;
        verdict = drop ? ni::Verdict::DROP : ni::Verdict::ALLOW;
        ++(drop ? m_dropped : m_allowed);
        if (!m_quiet) {
            char text[256];
            std::snprintf(text, sizeof(text), "  %-3s %-6s %s:%u -> %s:%u  %zu bytes  %s\n",
                          packet.queue == 1 ? "in" : "out", ProtocolName(parsed.Protocol()).c_str(),
                          FormatAddress(parsed.Source()).c_str(), parsed.Source().port,
                          FormatAddress(parsed.Destination()).c_str(), parsed.Destination().port,
                          static_cast<std::size_t>(packet.payloadEnd - packet.payloadBegin),
                          drop ? "DROP" : "ALLOW");
            std::lock_guard lock(m_printMutex);
            std::fputs(text, stdout);
        }
        return 0;
    }

    std::uint32_t Allowed() const { return m_allowed.load(); }
    std::uint32_t Dropped() const { return m_dropped.load(); }

private:
    std::uint16_t m_droppedPort;
    bool m_quiet;
    std::atomic<std::uint32_t> m_allowed{0};
    std::atomic<std::uint32_t> m_dropped{0};
    std::mutex m_printMutex;
};

// Check prints one self-check line and remembers failures.
struct Checks {
    int failed = 0;
    void operator()(bool ok, const std::string& what) {
        std::printf("  [%s] %s\n", ok ? " ok " : "FAIL", what.c_str());
        if (!ok) {
            ++failed;
        }
    }
};

// FlowTotals sums the counters of every record of one flow seen from the dut
// (records differ by MAC presence: NFLOG has no link layer on output).
struct FlowTotals {
    std::uint64_t packetsIn = 0, bytesIn = 0, packetsOut = 0, bytesOut = 0;
};

FlowTotals SumFlow(const std::vector<st::IntervalCounters>& intervals, std::uint8_t family,
                   std::uint8_t proto, std::uint16_t port) {
    FlowTotals t;
    for (const auto& interval : intervals) {
        for (const auto& c : interval.counters) {
            if (c.ipProtocol != proto || !c.localIp || c.localIp->family != family) {
                continue;
            }
            if (c.localPort != port && c.remotePort != port) {
                continue;
            }
            t.packetsIn += c.packetsReceived;
            t.bytesIn += c.bytesReceived;
            t.packetsOut += c.packetsSent;
            t.bytesOut += c.bytesSent;
        }
    }
    return t;
}

bool SetUpTopology(NetworkNamespace& peer, NetworkNamespace& dut, std::string& error) {
    const std::string pid = std::to_string(getpid());
    if (!peer.Create("nti-demo-peer-" + pid, error) || !dut.Create("nti-demo-dut-" + pid, error)) {
        return false;
    }
    if (!JoinByVeth(dut, "veth-dut", peer, "veth-peer", error)) {
        return false;
    }
    const std::vector<std::vector<std::string>> routes = {
        {"ip", "-n", dut.Name(), "route", "add", "default", "via", kSecondEnd4},
        {"ip", "-n", dut.Name(), "-6", "route", "add", "default", "via", kSecondEnd6},
    };
    for (const auto& step : routes) {
        std::string output;
        if (RunCommand(step, &output) != 0) {
            error = "setup step failed: " + step[3] + " ...: " + output;
            return false;
        }
    }
    return true;
}

int RunDemo(const CommonOptions& common, const DemoOptions& options) {
    if (!HasNetAdmin()) {
        std::fprintf(stderr, "nti demo: needs root or CAP_NET_ADMIN to make network namespaces\n");
        return kExitUsage;
    }
    // Checked first: a missing program would otherwise show only as a failed
    // step or check without a reason.
    static constexpr std::pair<const char*, const char*> kPrograms[] = {
        {"ip", "iproute2"}, {"ping", "iputils-ping"}, {"iptables-restore", "iptables"}};
    for (const auto& [program, package] : kPrograms) {
        if (!ProgramInPath(program)) {
            std::fprintf(stderr, "nti demo: needs %s (Debian package %s), not found in PATH\n",
                         program, package);
            return kExitFailure;
        }
    }
    struct sigaction action {};
    action.sa_handler = &OnDemoSignal;
    // Every ending signal takes the way out that removes the namespaces;
    // a closed output must not kill the demo half-way.
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(signo, &action, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);

    std::printf("== Setting up namespaces (peer <-veth-> dut)\n");
    NetworkNamespace peer;
    NetworkNamespace dut;
    std::string error;
    if (!SetUpTopology(peer, dut, error)) {
        std::fprintf(stderr, "nti demo: %s\n", error.c_str());
        return kExitFailure;
    }
    std::printf(
        "  %s: 198.18.0.2 fd00:198:18::2\n  %s: 198.18.0.1 fd00:198:18::1 (nti runs here)\n",
        peer.Name().c_str(), dut.Name().c_str());
    ScopedNetnsEnter inDut(dut.Name());
    if (!inDut.Ok()) {
        std::fprintf(stderr, "nti demo: %s\n", inDut.Error().c_str());
        return kExitFailure;
    }

    HostContext host;
    CommonOptions hostOptions = common;
    char stateDir[] = "/tmp/nti-demo-state-XXXXXX";
    if (mkdtemp(stateDir) == nullptr) {
        std::fprintf(stderr, "nti demo: cannot make a state directory\n");
        return kExitFailure;
    }
    hostOptions.stateDir = stateDir;
    if (!QOR_SUCCEEDED(host.Open(hostOptions)) ||
        !QOR_SUCCEEDED(host.StartFirewall(FirewallSettings{}))) {
        std::fprintf(stderr, "nti demo: cannot start the host: %s\n", host.Error().c_str());
        RunCommand({"rm", "-rf", stateDir});
        return kExitFailure;
    }

    Checks check;
    {
        std::printf("== Loading the module and starting statistics and interception\n");
        qor::RefPtr<qor::IObject> countersObject;
        qor::RefPtr<st::IConnectionCounters> counters;
        qor::result_t r = host.CreateObject(ni::kConnectionCountersClassId, countersObject.Ref());
        if (QOR_SUCCEEDED(r)) {
            r = qor::QueryInterfaceAs(countersObject.Get(), counters);
        }
        check(QOR_SUCCEEDED(r), "statistics service created: " + qor::FormatResult(r));
        if (counters) {
            r = counters->RegisterCollector(kCollectorId,
                                            st::PeriodAlignment::CollectorRegistration, 1000);
            check(QOR_SUCCEEDED(r), "collector registered (period 1 s): " + qor::FormatResult(r));
        }

        qor::RefPtr<qor::IObject> facadeObject;
        qor::RefPtr<ni::INetworkInterceptor> interceptor;
        r = host.CreateObject(ni::kNetworkInterceptorClassId, facadeObject.Ref());
        if (QOR_SUCCEEDED(r)) {
            r = qor::QueryInterfaceAs(facadeObject.Get(), interceptor);
        }
        auto consumer = qor::object::Create<DemoConsumer>(options.droppedPort, options.quiet);
        dwi::firewall::Filter filter(2);
        filter[0].direction = dwi::firewall::kInbound;
        filter[1].direction = dwi::firewall::kOutbound;
        filter[0].interfaceName = filter[1].interfaceName = "veth-dut";
        if (interceptor) {
            r = interceptor->StartInterception(consumer.Get(), filter, kServiceName);
        }
        check(QOR_SUCCEEDED(r), "interception started (drop UDP to port " +
                                    std::to_string(options.droppedPort) +
                                    "): " + qor::FormatResult(r));
        // The poll thread installs the rules; give it a moment.
        std::this_thread::sleep_for(500ms);

        demo::EchoServer servers[] = {
            {demo::EchoServer::Proto::Udp, AF_INET, kAllowedUdpPort},
            {demo::EchoServer::Proto::Udp, AF_INET6, kAllowedUdpPort},
            {demo::EchoServer::Proto::Udp, AF_INET, options.droppedPort},
            {demo::EchoServer::Proto::Udp, AF_INET6, options.droppedPort},
            {demo::EchoServer::Proto::Tcp, AF_INET, kTcpPort},
            {demo::EchoServer::Proto::Tcp, AF_INET6, kTcpPort},
        };
        for (auto& s : servers) {
            if (!s.Start()) {
                check(false, "echo server: " + s.Error());
            }
        }

        std::printf("== Traffic (what the interception sees and decides)\n");
        struct Results {
            int udp4 = 0, udp6 = 0, dropped4 = 0, dropped6 = 0, tcp4 = 0, tcp6 = 0;
            int ping4 = -1, ping6 = -1, outbound = 0;
            std::string peerError;
        } results;
        const int n = options.packets;
        std::thread peerSide([&] {
            ScopedNetnsEnter inPeer(peer.Name());
            if (!inPeer.Ok()) {
                results.peerError = inPeer.Error();
                return;
            }
            demo::EchoServer outboundEcho(demo::EchoServer::Proto::Udp, AF_INET, kOutboundUdpPort);
            outboundEcho.Start();
            results.ping4 = RunCommand({"ping", "-c", "3", "-i", "0.2", "-W", "1", "198.18.0.1"});
            results.ping6 =
                RunCommand({"ping", "-6", "-c", "3", "-i", "0.2", "-W", "1", "fd00:198:18::1"});
            results.udp4 = demo::UdpExchange(AF_INET, "198.18.0.1", kAllowedUdpPort, n, kUdpPayload,
                                             500, g_cancel);
            results.udp6 = demo::UdpExchange(AF_INET6, "fd00:198:18::1", kAllowedUdpPort, n,
                                             kUdpPayload, 500, g_cancel);
            results.dropped4 = demo::UdpExchange(AF_INET, "198.18.0.1", options.droppedPort, n,
                                                 kUdpPayload, 100, g_cancel);
            results.dropped6 = demo::UdpExchange(AF_INET6, "fd00:198:18::1", options.droppedPort, n,
                                                 kUdpPayload, 100, g_cancel);
            results.tcp4 = demo::TcpExchange(AF_INET, "198.18.0.1", kTcpPort, 5, 200, 1000);
            results.tcp6 = demo::TcpExchange(AF_INET6, "fd00:198:18::1", kTcpPort, 5, 200, 1000);
            // The dut's own outbound traffic, answered from here.
            std::thread outbound([&] {
                ScopedNetnsEnter back(dut.Name());
                results.outbound = demo::UdpExchange(AF_INET, "198.18.0.2", kOutboundUdpPort, n,
                                                     kUdpPayload, 500, g_cancel);
            });
            outbound.join();
        });
        peerSide.join();

        // Let at least one harvest run after the traffic.
        std::vector<st::IntervalCounters> intervals;
        const auto deadline = std::chrono::steady_clock::now() + 4s;
        FlowTotals udp4;
        while (counters && !g_cancel && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(500ms);
            std::vector<st::IntervalCounters> more;
            if (QOR_SUCCEEDED(counters->ReadCounters(kCollectorId, more))) {
                std::move(more.begin(), more.end(), std::back_inserter(intervals));
            }
            udp4 = SumFlow(intervals, 4, 17, kAllowedUdpPort);
            if (udp4.packetsIn >= static_cast<std::uint64_t>(n) &&
                udp4.packetsOut >= static_cast<std::uint64_t>(n)) {
                break;
            }
        }
        if (interceptor) {
            r = interceptor->StopInterception(consumer.Get());
            check(QOR_SUCCEEDED(r), "interception stopped, rules removed: " + qor::FormatResult(r));
        }

        std::printf("== Connection statistics harvested (%zu intervals)\n", intervals.size());
        for (const auto& interval : intervals) {
            std::fputs(FormatTable(IntervalHeader{kCollectorId, false}, interval).c_str(), stdout);
        }

        std::printf("== Self-check\n");
        if (!results.peerError.empty()) {
            check(false, "traffic generator: " + results.peerError);
        }
        const std::string of = " of " + std::to_string(n);
        check(results.ping4 == 0 && results.ping6 == 0, "ping over IPv4 and IPv6 answered");
        check(results.udp4 == n,
              "UDP/IPv4 to allowed port echoed: " + std::to_string(results.udp4) + of);
        check(results.udp6 == n,
              "UDP/IPv6 to allowed port echoed: " + std::to_string(results.udp6) + of);
        check(results.dropped4 == 0 && results.dropped6 == 0 && servers[2].Received() == 0 &&
                  servers[3].Received() == 0,
              "UDP to port " + std::to_string(options.droppedPort) +
                  " dropped: the server received " +
                  std::to_string(servers[2].Received() + servers[3].Received()));
        check(results.tcp4 == 5 && results.tcp6 == 5, "TCP exchanges over IPv4 and IPv6 complete");
        check(results.outbound == n,
              "outbound UDP from the dut echoed: " + std::to_string(results.outbound) + of);
        check(consumer->Dropped() >= static_cast<std::uint32_t>(2 * n),
              "interception decided DROP " + std::to_string(consumer->Dropped()) +
                  " times, ALLOW " + std::to_string(consumer->Allowed()) + " times");
        const std::uint64_t v4Bytes = static_cast<std::uint64_t>(n) * (20 + 8 + kUdpPayload);
        check(udp4.packetsIn == static_cast<std::uint64_t>(n) &&
                  udp4.packetsOut == static_cast<std::uint64_t>(n) && udp4.bytesIn == v4Bytes &&
                  udp4.bytesOut == v4Bytes,
              "UDP/IPv4 flow counted: " + std::to_string(udp4.packetsIn) + " packets / " +
                  std::to_string(udp4.bytesIn) + " bytes in, " + std::to_string(udp4.packetsOut) +
                  " / " + std::to_string(udp4.bytesOut) + " out (expected " + std::to_string(n) +
                  " / " + std::to_string(v4Bytes) + " each way)");
        const FlowTotals udp6 = SumFlow(intervals, 6, 17, kAllowedUdpPort);
        const std::uint64_t v6Bytes = static_cast<std::uint64_t>(n) * (40 + 8 + kUdpPayload);
        check(udp6.packetsIn == static_cast<std::uint64_t>(n) &&
                  udp6.packetsOut == static_cast<std::uint64_t>(n) && udp6.bytesIn == v6Bytes &&
                  udp6.bytesOut == v6Bytes,
              "UDP/IPv6 flow counted: " + std::to_string(udp6.packetsIn) + " packets / " +
                  std::to_string(udp6.bytesIn) + " bytes in, " + std::to_string(udp6.packetsOut) +
                  " / " + std::to_string(udp6.bytesOut) + " out");
        if (counters) {
            // The demo ends either way: nothing is left to undo when this fails.
            static_cast<void>(counters->UnregisterCollector(kCollectorId));
        }
    }
    // A module that cannot unload yet goes with the process.
    static_cast<void>(host.Shutdown());
    RunCommand({"rm", "-rf", stateDir});
    if (g_cancel) {
        std::printf("== Interrupted; everything made was removed\n");
        return kExitFailure;
    }
    std::printf("== %s; namespaces removed\n",
                check.failed == 0 ? "All checks passed" : "Some checks FAILED");
    return check.failed == 0 ? kExitOk : kExitFailure;
}

}  // namespace

CommandRunner AddDemoCommand(CLI::App& app) {
    auto options = std::make_shared<DemoOptions>();
    auto* sub = app.add_subcommand(
        "demo",
        "Run a live, self-checking demonstration in throwaway network namespaces: intercept "
        "and count real IPv4/IPv6 traffic, drop one UDP port, verify the result. Makes two "
        "network namespaces joined by a veth pair and deletes them at the end, also on Ctrl-C; "
        "the machine's own firewall and interfaces are not touched. Needs root or "
        "CAP_NET_ADMIN.");
    sub->add_option("--packets", options->packets, "Datagrams per UDP flow, 1 to 1000")
        ->capture_default_str()
        ->type_name("N")
        ->check(CLI::Range(1, 1000).description(""));
    sub->add_option("--dropped-port", options->droppedPort,
                    "UDP port the interception drops, 1024 to 65535")
        ->capture_default_str()
        ->type_name("PORT")
        ->check(CLI::Range(1024, 65535).description(""));
    sub->add_flag("--quiet", options->quiet, "Do not print every intercepted packet");
    return [options](const CommonOptions& common) { return RunDemo(common, *options); };
}

}  // namespace nti::host
