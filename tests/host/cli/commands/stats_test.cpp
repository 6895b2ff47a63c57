// `nti stats` end to end: real NFLOG rules, real traffic and the kernel's own
// conntrack accounting as the reference, all inside namespaces made here.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/fixture/program.h"
#include "host/fixture/traffic.h"
#include "tests/support/netns.h"

namespace nti::test {
namespace {

using namespace std::chrono_literals;
namespace pt = boost::property_tree;

struct Endpoint {
    std::string address;
    std::uint16_t port = 0;  // 0: any (a TCP client's)
    int Family() const { return address.find(':') == std::string::npos ? AF_INET : AF_INET6; }
};

// UdpExchange sends `forth` datagrams of `forthSize` bytes from `a` to `b`,
// then `back` of `backSize` in return; throws unless every one arrived.
void UdpExchange(const NetNs& nsA, const Endpoint& a, const NetNs& nsB, const Endpoint& b,
                 int forth, std::size_t forthSize, int back, std::size_t backSize) {
    host::UdpSocket socketA(nsA.Name(), a.Family(), a.address, a.port);
    host::UdpSocket socketB(nsB.Name(), b.Family(), b.address, b.port);
    const auto send = [](host::UdpSocket& from, host::UdpSocket& to, const Endpoint& at, int count,
                         std::size_t size) {
        for (int i = 0; i < count; ++i) {
            from.SendTo(at.address, at.port, std::string(size, 'x'));
        }
        std::string payload;
        for (int i = 0; i < count; ++i) {
            if (!to.Receive(payload, 2s)) {
                throw std::runtime_error("udp datagram lost to " + at.address);
            }
        }
    };
    send(socketA, socketB, b, forth, forthSize);
    send(socketB, socketA, a, back, backSize);
}

// TcpEcho has `messages` of `size` bytes echoed by `server` from `client`.
void TcpEcho(const NetNs& clientNs, const NetNs& serverNs, const Endpoint& server, int messages,
             std::size_t size) {
    host::demo::EchoServer echo(host::demo::EchoServer::Proto::Tcp, server.Family(), server.port);
    {
        ScopedNetNs inside(serverNs);
        ASSERT_TRUE(echo.Start()) << echo.Error();
    }
    ScopedNetNs inside(clientNs);
    ASSERT_EQ(
        host::demo::TcpExchange(server.Family(), server.address, server.port, messages, size, 2000),
        messages);
}

// Env is the variable ctest sets for the test.
std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : throw std::runtime_error(std::string(name) + " is not set");
}

// StateDir is a fresh directory removed at the end.
class StateDir {
public:
    StateDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "nti-stats-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
        m_path = pattern;
    }
    ~StateDir() { std::filesystem::remove_all(m_path); }
    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

// NtiStats runs `nti stats` or `nti stats-service` inside a namespace; its
// trace goes to a file of the state directory.
class NtiStats : public host::Program {
public:
    NtiStats(const NetNs& ns, const StateDir& state, const char* command,
             const std::vector<std::string>& args)
        : Program(Argv(ns, state, command, args)), m_ns(ns), m_trace(state.Path() / "trace") {}

    // WaitForRules waits until the statistics rules are in place.
    bool WaitForRules() {
        for (int i = 0; i < 100 && Wait(0ms) == -1; ++i) {
            std::string rules;
            m_ns.Exec("iptables-save; ip6tables-save; nft list ruleset", &rules);
            if (rules.find("zolt_stats_in") != std::string::npos &&
                rules.find("zolt_stats_out") != std::string::npos) {
                return true;
            }
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }
    // Stop sends SIGTERM and waits; the exit status.
    int Stop() {
        Signal(SIGTERM);
        return Wait(20s);
    }
    std::string Stdout() {
        std::string text;
        for (const auto& line : OutputLines()) {
            text += line + "\n";
        }
        return text;
    }
    std::string Trace() const {
        std::ifstream in(m_trace);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    static std::vector<std::string> Argv(const NetNs& ns, const StateDir& state,
                                         const char* command,
                                         const std::vector<std::string>& args) {
        std::vector<std::string> argv{"ip",           "netns",    "exec",           ns.Name(),
                                      Env("NTI_BIN"), "--module", Env("NTI_MODULE")};
        argv.insert(argv.end(),
                    {"--state-dir", state.Path().string(), "--trace-file",
                     (state.Path() / "trace").string(), "--trace-level", "800", command});
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    const NetNs& m_ns;
    std::filesystem::path m_trace;
};

// Flow is one direction-independent connection: endpoints as "ip:port".
struct Flow {
    std::string a;
    std::string b;
    int protocol;
    auto operator<=>(const Flow&) const = default;
};
struct Counts {
    std::uint64_t packetsAtoB = 0, bytesAtoB = 0, packetsBtoA = 0, bytesBtoA = 0;
    std::set<std::string> gateways{};  // "ip@mac" seen on the flow's records
    bool operator==(const Counts& o) const {
        return std::tie(packetsAtoB, bytesAtoB, packetsBtoA, bytesBtoA) ==
               std::tie(o.packetsAtoB, o.bytesAtoB, o.packetsBtoA, o.bytesBtoA);
    }
};

std::string Text(const pt::ptree& t, const char* key) {
    return t.get<std::string>(key, "null");
}
// Numbers and flags are read as text: the typed getters trip a false
// "maybe uninitialized" of GCC 12 in sanitizer builds.
std::uint64_t Number(const pt::ptree& t, const char* key) {
    return std::stoull(Text(t, key));
}

// Intervals parses the JSON lines of a run.
std::vector<pt::ptree> Intervals(const std::string& output) {
    std::vector<pt::ptree> intervals;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        pt::ptree tree;
        pt::read_json(in, tree);
        intervals.push_back(tree);
    }
    return intervals;
}

// Totals adds up every record of the intervals per flow; `a` of the flow is
// the endpoint of `sideA` (a prefix of "ip:port" text).
std::map<Flow, Counts> Totals(const std::vector<pt::ptree>& intervals, const std::string& sideA,
                              bool restored) {
    std::map<Flow, Counts> totals;
    for (const auto& interval : intervals) {
        if ((Text(interval, "restored") == "true") != restored) {
            continue;
        }
        for (const auto& [unused, c] : interval.get_child("connections")) {
            const std::string local = Text(c, "localIp") + ":" + Text(c, "localPort");
            const std::string remote = Text(c, "remoteIp") + ":" + Text(c, "remotePort");
            const bool localIsA = local.rfind(sideA, 0) == 0;
            const Flow flow{
                localIsA ? local : remote, localIsA ? remote : local,
                Text(c, "ipProtocol") == "null" ? -1 : static_cast<int>(Number(c, "ipProtocol"))};
            Counts& counts = totals[flow];
            const auto sent = std::make_pair(Number(c, "packetsSent"), Number(c, "bytesSent"));
            const auto received =
                std::make_pair(Number(c, "packetsReceived"), Number(c, "bytesReceived"));
            const auto& aToB = localIsA ? sent : received;
            const auto& bToA = localIsA ? received : sent;
            counts.packetsAtoB += aToB.first;
            counts.bytesAtoB += aToB.second;
            counts.packetsBtoA += bToA.first;
            counts.bytesBtoA += bToA.second;
            counts.gateways.insert(Text(c, "gatewayIp") + "@" + Text(c, "gatewayMac"));
        }
    }
    return totals;
}

// Conntrack reads the kernel's accounting of `flow` from conntrack inside
// `ns`: original direction is a -> b.
std::optional<Counts> Conntrack(const NetNs& ns, const Flow& flow) {
    const auto at = [](const std::string& key, const char* option) {
        const auto colon = key.rfind(':');
        return std::string(" -") + option + " " + key.substr(0, colon) + " --" + option + "port " +
               key.substr(colon + 1);
    };
    std::string line;
    ns.Exec(std::string("conntrack -L -o extended -p ") + (flow.protocol == 17 ? "udp" : "tcp") +
                at(flow.a, "s") + at(flow.b, "d") + " 2>/dev/null",
            &line);
    const auto there = line.find("packets="), back = line.find("packets=", there + 1);
    unsigned long long counts[4] = {};
    if (back == std::string::npos ||
        std::sscanf(line.c_str() + there, "packets=%llu bytes=%llu", &counts[0], &counts[1]) != 2 ||
        std::sscanf(line.c_str() + back, "packets=%llu bytes=%llu", &counts[2], &counts[3]) != 2) {
        return std::nullopt;
    }
    return Counts{counts[0], counts[1], counts[2], counts[3]};
}

// TrackConnections turns on conntrack with its byte accounting in `ns`: the
// kernel tracks a namespace's connections only once a rule needs it.
void TrackConnections(const NetNs& ns) {
    ns.Must("sysctl -qw net.netfilter.nf_conntrack_acct=1");
    ns.Must("iptables -A INPUT -m conntrack --ctstate INVALID -j ACCEPT");
    ns.Must("ip6tables -A INPUT -m conntrack --ctstate INVALID -j ACCEPT");
}

std::string Key(const Endpoint& e) {
    return e.address + ":" + std::to_string(e.port);
}

// client -- router -- server: the router runs nti stats and sees the flow on
// its forward path only.
TEST(StatsForwardTest, ForwardedTrafficCountedByTheForwardRule) {
    NetNs client{"stats-client"}, router{"stats-router"}, server{"stats-server"};
    StateDir state;
    Veth({&client, "nti0", "02:00:00:00:14:01", {"198.18.20.1/24"}},
         {&router, "nti1", "02:00:00:00:14:fe", {"198.18.20.254/24"}});
    Veth({&router, "nti2", "02:00:00:00:15:fe", {"198.18.21.254/24"}},
         {&server, "nti3", "02:00:00:00:15:01", {"198.18.21.1/24"}});
    client.Must("ip route add default via 198.18.20.254");
    server.Must("ip route add default via 198.18.21.254");
    router.Must("sysctl -qw net.ipv4.ip_forward=1");
    TrackConnections(router);
    const Endpoint from{"198.18.20.1", 41000}, to{"198.18.21.1", 6000};

    NtiStats nti(router, state, "stats", {"--ip6tables", "yes", "--period", "500ms", "--json"});
    ASSERT_TRUE(nti.WaitForRules()) << nti.Error() << nti.Trace();
    UdpExchange(client, from, server, to, 6, 150, 2, 400);
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(nti.Stop(), 0) << nti.Error();

    const Counts expected{6, 6 * 178, 2, 2 * 428};
    const auto totals = Totals(Intervals(nti.Stdout()), Key(from), false);
    const auto it = totals.find(Flow{Key(from), Key(to), 17});
    ASSERT_NE(it, totals.end()) << nti.Stdout();
    EXPECT_EQ(it->second, expected);

    // A run that ends before its interval does saves what it counted; the
    // next run prints it first.
    NtiStats unread(router, state, "stats", {"--id", "2", "--period", "1h"});
    ASSERT_TRUE(unread.WaitForRules()) << unread.Error();
    UdpExchange(client, from, server, to, 6, 150, 2, 400);
    std::this_thread::sleep_for(300ms);  // NFLOG flush
    EXPECT_EQ(unread.Stop(), 0) << unread.Error();
    NtiStats next(router, state, "stats",
                  {"--id", "2", "--intervals", "1", "--period", "100ms", "--json"});
    EXPECT_EQ(next.Wait(20s), 0) << next.Error();
    const auto saved = Totals(Intervals(next.Stdout()), Key(from), true);
    ASSERT_TRUE(saved.contains(Flow{Key(from), Key(to), 17})) << next.Stdout();
    EXPECT_EQ(saved.at(Flow{Key(from), Key(to), 17}), expected);
}

// NfdumpFlows reads nfdump's records of `dir` into flows "src:port" ->
// "dst:port" with their packets and bytes (a -> b filled only).
std::map<Flow, Counts> NfdumpFlows(const std::filesystem::path& dir, std::string& text) {
    Shell("nfdump -R " + dir.string() + " -q -N -o 'fmt:%sa %sp %da %dp %pr %ipkt %ibyt'", &text);
    std::map<Flow, Counts> flows;
    std::istringstream records(text);
    std::string sa, sp, da, dp;
    int protocol = 0;
    std::uint64_t packets = 0, bytes = 0;
    while (records >> sa >> sp >> da >> dp >> protocol >> packets >> bytes) {
        Counts& c = flows[Flow{sa + ":" + sp, da + ":" + dp, protocol}];
        c.packetsAtoB += packets;
        c.bytesAtoB += bytes;
    }
    return flows;
}

// The service counts as the kernel's conntrack does and hands one interval
// to its three sinks: the JSON lines file, the SQLite history (read back by
// nti stats --history) and nfcapd over IPFIX, whose records nfdump reads back.
// The interval is closed when the first run stops and handed on when the
// second starts.
TEST(StatsIntegrationTest, ServiceSinksAgreeWithTheJsonOutput) {
    // The host namespace runs nti stats; the peer talks to it over a veth. The
    // host's default routes go through gateways with known neighbour entries.
    NetNs host{"stats-host"}, peer{"stats-peer"};
    StateDir state;
    Veth({&host, "nti0", "02:00:00:00:0a:01", {"198.18.10.1/24", "fd00:198:18::1/64"}},
         {&peer, "nti1", "02:00:00:00:0a:02", {"198.18.10.2/24", "fd00:198:18::2/64"}});
    host.Must("ip neigh add 198.18.10.254 lladdr 02:00:00:00:0a:fe dev nti0 nud permanent");
    host.Must("ip -6 neigh add fd00:198:18::fe lladdr 02:00:00:00:0a:f6 dev nti0 nud permanent");
    host.Must("ip route add default via 198.18.10.254 dev nti0");
    host.Must("ip -6 route add default via fd00:198:18::fe dev nti0");
    TrackConnections(host);
    // nfcapd, the flow collector of the nfdump package, listens in the peer.
    const Endpoint collector{"198.18.10.2", 4739};
    const std::filesystem::path flows = state.Path() / "flows";
    std::filesystem::create_directories(flows);
    host::Program nfcapd({"ip", "netns", "exec", peer.Name(), "nfcapd", "-w", flows.string(), "-b",
                          collector.address, "-p", std::to_string(collector.port)});
    const std::filesystem::path json = state.Path() / "intervals.jsonl";
    const std::filesystem::path db = state.Path() / "history.sqlite";
    const std::filesystem::path config = state.Path() / "stats.conf";
    std::ofstream(config) << "[collector]\nperiod = 3600\nip6tables = yes\n[json]\npath = "
                          << json.string() << "\n[sqlite]\npath = " << db.string()
                          << "\nretention = 1d\n"
                          << "[ipfix:nfdump]\nhost = " << collector.address
                          << "\nport = " << collector.port << "\n";
    const Endpoint udp4{"198.18.10.1", 40100}, udp4Peer{"198.18.10.2", 5600};
    const Endpoint tcp4{"198.18.10.1"}, tcp4Peer{"198.18.10.2", 8100};
    const Endpoint udp6{"fd00:198:18::1", 40102}, udp6Peer{"fd00:198:18::2", 5601};
    {
        NtiStats first(host, state, "stats-service", {"--config", config.string()});
        ASSERT_TRUE(first.WaitForRules()) << first.Error() << first.Trace();
        UdpExchange(host, udp4, peer, udp4Peer, 5, 100, 3, 1000);
        UdpExchange(host, udp6, peer, udp6Peer, 4, 200, 2, 300);
        TcpEcho(host, peer, tcp4Peer, 3, 1000);
        std::this_thread::sleep_for(300ms);  // NFLOG flush
        EXPECT_EQ(first.Stop(), 0) << first.Error();
    }
    NtiStats second(host, state, "stats-service", {"--config", config.string()});
    for (int i = 0;
         i < 100 && (!std::filesystem::exists(json) || std::filesystem::file_size(json) == 0);
         ++i) {
        std::this_thread::sleep_for(50ms);
    }
    std::ofstream(config, std::ios::app) << "[json:more]\n";  // no path: the reload fails
    second.Signal(SIGHUP);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(second.Stop(), 0) << second.Error();
    EXPECT_NE(second.Trace().find("Reload: " + config.string() +
                                  ": [json:more] path = : expected a file, or - for standard "
                                  "output; keeping the old settings"),
              std::string::npos)
        << second.Trace();
    std::ifstream in(json);
    const auto intervals = Intervals(std::string(std::istreambuf_iterator<char>(in), {}));
    ASSERT_EQ(intervals.size(), 1u) << second.Trace();
    ASSERT_EQ(Text(intervals.front(), "restored"), "true");
    const auto totals = Totals(intervals, "198.18.10.1:", true);
    const auto totals6 = Totals(intervals, "fd00:198:18::1:", true);

    std::string history;
    ASSERT_EQ(
        Shell(Env("NTI_BIN") + " stats --history --json --since 1h --db " + db.string(), &history),
        0)
        << history;
    const auto fromHistory = Intervals(history);
    EXPECT_EQ(Totals(fromHistory, "198.18.10.1:", false), totals) << history;
    EXPECT_EQ(Totals(fromHistory, "fd00:198:18::1:", false), totals6) << history;
    std::string one;
    Shell(Env("NTI_BIN") + " stats --history --json --db " + db.string() + " --addr " +
              udp6Peer.address,
          &one);
    const auto byAddress = Totals(Intervals(one), "fd00:198:18::1:", false);
    EXPECT_TRUE(byAddress.contains(Flow{Key(udp6), Key(udp6Peer), 17})) << one;
    for (const auto& [flow, counts] : byAddress) {
        EXPECT_EQ(flow.b.rfind(udp6Peer.address + ":", 0), 0u) << flow.b;
    }

    nfcapd.Signal(SIGTERM);
    nfcapd.Wait(10s);  // writes the file as it ends
    std::string records;
    const auto nfdump = NfdumpFlows(flows, records);
    struct Case {
        Endpoint local, peer;
        int protocol;
        const std::map<Flow, Counts>& totals;
    };
    const Case cases[] = {
        {udp4, udp4Peer, 17, totals}, {tcp4, tcp4Peer, 6, totals}, {udp6, udp6Peer, 17, totals6}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Key(c.peer));
        // A TCP client's port is the kernel's choice.
        const auto it = std::find_if(c.totals.begin(), c.totals.end(), [&](const auto& f) {
            return f.first.b == Key(c.peer) && f.first.protocol == c.protocol &&
                   (c.local.port != 0 ? f.first.a == Key(c.local)
                                      : f.first.a.starts_with(c.local.address + ":"));
        });
        ASSERT_NE(it, c.totals.end()) << intervals.size();
        EXPECT_GT(it->second.packetsAtoB, 0u);
        const auto kernel = Conntrack(host, it->first);
        ASSERT_TRUE(kernel.has_value());
        EXPECT_EQ(it->second, *kernel);
        EXPECT_EQ(
            it->second.gateways,
            std::set<std::string>{&c.totals == &totals ? "198.18.10.254@02:00:00:00:0a:fe"
                                                       : "fd00:198:18::fe@02:00:00:00:0a:f6"});
        const auto out = nfdump.find(it->first);
        const auto back = nfdump.find(Flow{it->first.b, it->first.a, c.protocol});
        ASSERT_NE(out, nfdump.end()) << records;
        ASSERT_NE(back, nfdump.end()) << records;
        EXPECT_EQ((Counts{out->second.packetsAtoB, out->second.bytesAtoB, back->second.packetsAtoB,
                          back->second.bytesAtoB}),
                  it->second);
    }
}

}  // namespace
}  // namespace nti::test
