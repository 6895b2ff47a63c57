// nti intercept: queue the traffic a filter selects, print and answer it.
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>

#include "host/cli/commands/commands.h"
#include "host/cli/commands/intercept_options.h"
#include "host/cli/commands/option_checks.h"
#include "host/cli/exit_signals.h"
#include "host/cli/net_admin.h"
#include "host/services/duration.h"
#include "host/services/json_records.h"
#include "host/services/packet_summary.h"
#include "host/services/rule_text.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/result.h"

namespace nti::host {
namespace {

using dwi::network_interceptor::INetworkInterceptor;
using dwi::network_interceptor::IPacketEventCallback;
using dwi::network_interceptor::Packet;
using dwi::network_interceptor::Verdict;
using dwi::network_interceptor::VerdictName;

constexpr std::chrono::seconds kRulesTimeout{10};

struct InterceptOptions {
    std::vector<std::string> directions;
    std::string protocol;
    std::string localPort;
    std::string remotePort;
    std::string localAddress;
    std::string remoteAddress;
    std::string family = "any";
    std::string interfaceName;
    bool json = false;
    bool quiet = false;
    std::string verdict = "allow";
    std::optional<std::uint32_t> mark;
    std::string rewrite;
    std::uint64_t count = 0;
    std::string duration;
    std::string queueRange = "1000-1999";
    bool failClosed = false;
    std::string tag = "nti_intercept";
};

// InterfaceNames caches index-to-name lookups; used from the poll thread only.
class InterfaceNames {
public:
    const std::string& Name(std::uint32_t index) {
        auto it = m_names.find(index);
        if (it == m_names.end()) {
            char name[IF_NAMESIZE] = {};
            std::string text = index == 0                               ? ""
                               : if_indextoname(index, name) != nullptr ? name
                                                                        : std::to_string(index);
            it = m_names.emplace(index, std::move(text)).first;
        }
        return it->second;
    }

private:
    std::map<std::uint32_t, std::string> m_names;
};

// Delayed holds LATER packets and answers each when its time has come, from
// a thread of its own, through the facade.
class Delayed {
public:
    Delayed(INetworkInterceptor* facade, IPacketEventCallback* event, Verdict final)
        : m_facade(facade), m_event(event), m_final(final), m_thread([this] { Run(); }) {}
    ~Delayed() { Flush(); }

    // Add copies what the verdict needs (the payload only when it goes
    // back); false once flushed, when the caller answers at once.
    bool Add(const Packet& packet, std::chrono::steady_clock::time_point due) {
        Entry e{due, packet, {}};
        if (packet.payloadChanged) {
            e.payload.assign(packet.payloadBegin, packet.payloadEnd);
        }
        e.packet.payloadBegin = nullptr;
        e.packet.payloadEnd = nullptr;
        {
            std::lock_guard lock(m_mutex);
            if (m_flush) {
                return false;
            }
            m_entries.push_back(std::move(e));
        }
        m_wake.notify_one();
        return true;
    }

    // Flush answers everything still held at once and ends the thread.
    void Flush() {
        {
            std::lock_guard lock(m_mutex);
            m_flush = true;
        }
        m_wake.notify_one();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    std::uint64_t Failed() const { return m_failed; }

private:
    struct Entry {
        std::chrono::steady_clock::time_point due;
        Packet packet;
        std::vector<std::uint8_t> payload;
    };

    void Run() {
        std::unique_lock lock(m_mutex);
        for (;;) {
            if (m_entries.empty()) {
                if (m_flush) {
                    return;
                }
                m_wake.wait(lock);
                continue;
            }
            // Every packet waits the same time: the front is always due first.
            if (!m_flush && std::chrono::steady_clock::now() < m_entries.front().due) {
                m_wake.wait_until(lock, m_entries.front().due);
                continue;
            }
            Entry e = std::move(m_entries.front());
            m_entries.pop_front();
            lock.unlock();
            if (!e.payload.empty()) {
                e.packet.payloadBegin = e.payload.data();
                e.packet.payloadEnd = e.payload.data() + e.payload.size();
            }
            if (!QOR_SUCCEEDED(
                    m_facade->SetVerdict(m_event, e.packet, static_cast<std::uint32_t>(m_final)))) {
                ++m_failed;
            }
            lock.lock();
        }
    }

    INetworkInterceptor* m_facade;
    IPacketEventCallback* m_event;
    Verdict m_final;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Entry> m_entries;
    bool m_flush = false;
    std::atomic<std::uint64_t> m_failed{0};
    std::thread m_thread;
};

// Consumer prints and answers each packet on the poll thread.
class Consumer : public qor::object::Ifaces<IPacketEventCallback> {
public:
    struct Settings {
        VerdictChoice verdict;
        std::optional<std::uint32_t> mark;
        std::string rewrite;  // written over the start of UDP payloads
        bool json = false;
        bool quiet = false;
        std::uint64_t count = 0;
        int countReachedFd = -1;
    };

    explicit Consumer(Settings settings) : m_settings(std::move(settings)) {}

    // SetQueues and SetDelayed complete the consumer once the interception
    // runs; no packet arrives before the firewall rules are in.
    void SetQueues(std::uint16_t first) { m_firstQueue = first; }
    void SetDelayed(Delayed* delayed) { m_delayed.store(delayed); }

    [[nodiscard]] qor::result_t OnPacketReceived(Packet& packet,
                                                 Verdict& verdict) noexcept override {
        const std::uint32_t queue = packet.queue <= 2 ? packet.queue : 0;
        ++m_perQueue[queue];
        const bool rewritten = !m_settings.rewrite.empty() && RewriteUdp(packet);
        if (m_settings.mark) {
            // The mark goes back only with the payload.
            packet.payloadChanged = true;
            packet.mark = *m_settings.mark;
        }
        if (packet.payloadChanged) {
            FillChecksums(packet.payloadBegin,
                          static_cast<std::size_t>(packet.payloadEnd - packet.payloadBegin));
        }
        if (rewritten) {
            ++m_rewritten;
        }
        verdict =
            m_settings.verdict.mixed
                ? MixedVerdict(packet.payloadBegin,
                               static_cast<std::size_t>(packet.payloadEnd - packet.payloadBegin))
                : m_settings.verdict.verdict;
        Delayed* delayed = m_delayed.load();
        if (verdict == Verdict::LATER &&
            (delayed == nullptr ||
             !delayed->Add(packet, std::chrono::steady_clock::now() +
                                       std::chrono::milliseconds(m_settings.verdict.laterMs)))) {
            verdict = Verdict::ALLOW;  // stopping: nobody would answer later
        }
        ++m_verdicts[static_cast<std::size_t>(verdict)];
        if (!m_settings.quiet) {
            Print(packet, queue, verdict);
        }
        const std::uint64_t seen = ++m_seen;
        if (m_settings.count != 0 && seen == m_settings.count) {
            WakeWaiter();
        }
        return qor::errors::kOk;
    }

    std::uint64_t Seen() const { return m_seen; }
    bool OutputClosed() const { return m_outputClosed; }
    std::uint64_t PerQueue(std::uint32_t queue) const { return m_perQueue[queue]; }
    std::uint64_t Verdicts(Verdict v) const { return m_verdicts[static_cast<std::size_t>(v)]; }

    std::uint64_t Rewritten() const { return m_rewritten; }

private:
    // RewriteUdp writes the rewrite text over the start of a UDP payload,
    // never past its end.
    bool RewriteUdp(Packet& packet) {
        const auto size = static_cast<std::size_t>(packet.payloadEnd - packet.payloadBegin);
        const PacketSummary s = Summarize(packet.payloadBegin, size);
        if (s.protocol != 17 || !s.sourcePort || s.fragment) {
            return false;
        }
        const std::size_t start = s.transportOffset + 8;
        const std::size_t n = std::min(m_settings.rewrite.size(), size - std::min(size, start));
        if (n == 0) {
            return false;
        }
        std::copy_n(m_settings.rewrite.begin(), n, packet.payloadBegin + start);
        packet.payloadChanged = true;
        return true;
    }

    void Print(const Packet& packet, std::uint32_t queue, Verdict verdict) {
        const std::size_t length =
            static_cast<std::size_t>(packet.payloadEnd - packet.payloadBegin);
        const PacketSummary s = Summarize(packet.payloadBegin, length);
        const char* queueName = queue == 1 ? "in" : queue == 2 ? "out" : "unknown";
        const int queueNumber = queue == 0 ? -1 : m_firstQueue + static_cast<int>(queue) - 1;
        const std::string& in = m_names.Name(packet.indev);
        const std::string& out = m_names.Name(packet.outdev);
        const auto now = std::chrono::system_clock::now();
        std::string line;
        if (m_settings.json) {
            line = JsonLine(PacketJson(packet, verdict, {now, queueNumber, in, out}));
        } else {
            const std::string time = TimeToIso8601(now);
            char head[160];
            std::snprintf(head, sizeof(head), "%s %s/%d id=%u ", time.c_str(), queueName,
                          queueNumber, packet.id);
            line = head;
            line += "in=" + (in.empty() ? "-" : in) + " out=" + (out.empty() ? "-" : out);
            char mark[24];
            std::snprintf(mark, sizeof(mark), " mark=0x%x ", packet.mark);
            line += mark;
            const auto endpoint = [&](const std::string& a, const std::optional<std::uint16_t>& p) {
                if (!p) {
                    return a;
                }
                return (s.version == 6 ? "[" + a + "]" : a) + ":" + std::to_string(*p);
            };
            line += endpoint(s.source, s.sourcePort) + " > " +
                    endpoint(s.destination, s.destinationPort);
            line += " " + (s.protocol ? ProtocolName(*s.protocol) : std::string("?"));
            line += " len=" + std::to_string(length) + " " +
                    VerdictName(static_cast<std::uint32_t>(verdict)) + "\n";
        }
        std::fwrite(line.data(), 1, line.size(), stdout);
        // SIGPIPE is ignored: a reader that went away (EPIPE) ends the run
        // through the same cleanup as a signal.
        if (std::fflush(stdout) != 0 && !m_outputClosed.exchange(true)) {
            WakeWaiter();
        }
    }

    void WakeWaiter() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = ::write(m_settings.countReachedFd, &one, sizeof(one));
    }

    Settings m_settings;
    std::atomic<int> m_firstQueue{0};
    std::atomic<Delayed*> m_delayed{nullptr};
    InterfaceNames m_names;
    std::atomic<std::uint64_t> m_seen{0};
    std::atomic<bool> m_outputClosed{false};
    std::atomic<std::uint64_t> m_rewritten{0};
    std::array<std::atomic<std::uint64_t>, 3> m_perQueue{};
    std::array<std::atomic<std::uint64_t>, 4> m_verdicts{};
};

// Fd closes a descriptor at the end of its scope.
struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

// WaitForEnd sleeps until a signal, the packet count, the duration, or the
// end of the interception on its own: its thread removes the rules when it
// fails, and a run without rules only pretends to intercept.
const char* WaitForEnd(int signalFd, int countFd, double durationSeconds,
                       const RulesService& rules) {
    constexpr int kRulesCheckMs = 500;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                      std::chrono::duration<double>(durationSeconds));
    for (;;) {
        int timeout = -1;
        if (durationSeconds > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return "duration";
            }
            timeout = static_cast<int>(std::min<long long>(left.count() + 1, 1 << 30));
        }
        if (rules.InstalledCount() == 0) {
            return "interception end";
        }
        timeout = timeout < 0 ? kRulesCheckMs : std::min(timeout, kRulesCheckMs);
        pollfd fds[2] = {{signalFd, POLLIN, 0}, {countFd, POLLIN, 0}};
        const int n = ::poll(fds, 2, timeout);
        if (n < 0 && errno != EINTR) {
            return "poll error";
        }
        if (n > 0 && (fds[0].revents & POLLIN) != 0) {
            signalfd_siginfo info{};
            [[maybe_unused]] const ssize_t r = ::read(signalFd, &info, sizeof(info));
            return ExitSignalName(info.ssi_signo);
        }
        if (n > 0 && (fds[1].revents & POLLIN) != 0) {
            return "count";
        }
    }
}

void PrintSummary(const Consumer& consumer, const std::vector<QueueStats>& kernel,
                  std::uint16_t firstQueue, const char* reason, bool json) {
    const auto stats = [&](std::uint16_t queue) {
        for (const QueueStats& s : kernel) {
            if (s.queue == queue) {
                return s;
            }
        }
        return QueueStats{queue};
    };
    const QueueStats in = stats(firstQueue);
    const QueueStats out = stats(static_cast<std::uint16_t>(firstQueue + 1));
    if (json) {
        JsonRecord kernelQueues = JsonRecord::array();
        for (const QueueStats& q : {in, out}) {
            kernelQueues.push_back({{"queue", q.queue},
                                    {"queueDropped", q.queueDropped},
                                    {"userDropped", q.userDropped},
                                    {"waiting", q.waiting}});
        }
        const JsonRecord summary = {{"summary",
                                     {{"reason", reason},
                                      {"packets", consumer.Seen()},
                                      {"queueIn", consumer.PerQueue(1)},
                                      {"queueOut", consumer.PerQueue(2)},
                                      {"allow", consumer.Verdicts(Verdict::ALLOW)},
                                      {"drop", consumer.Verdicts(Verdict::DROP)},
                                      {"repeat", consumer.Verdicts(Verdict::REPEAT)},
                                      {"later", consumer.Verdicts(Verdict::LATER)},
                                      {"rewritten", consumer.Rewritten()},
                                      {"kernel", std::move(kernelQueues)}}}};
        std::fputs(JsonLine(summary).c_str(), stdout);
    } else {
        std::printf("stopped by %s\n", reason);
        std::printf("packets: %llu (queue in %u: %llu, queue out %u: %llu)\n",
                    static_cast<unsigned long long>(consumer.Seen()), in.queue,
                    static_cast<unsigned long long>(consumer.PerQueue(1)), out.queue,
                    static_cast<unsigned long long>(consumer.PerQueue(2)));
        std::printf("verdicts: allow %llu, drop %llu, repeat %llu, later %llu; rewritten %llu\n",
                    static_cast<unsigned long long>(consumer.Verdicts(Verdict::ALLOW)),
                    static_cast<unsigned long long>(consumer.Verdicts(Verdict::DROP)),
                    static_cast<unsigned long long>(consumer.Verdicts(Verdict::REPEAT)),
                    static_cast<unsigned long long>(consumer.Verdicts(Verdict::LATER)),
                    static_cast<unsigned long long>(consumer.Rewritten()));
        for (const QueueStats& s : {in, out}) {
            std::printf("kernel queue %u: queue dropped %u, user dropped %u, waiting %u\n", s.queue,
                        s.queueDropped, s.userDropped, s.waiting);
        }
    }
    std::fflush(stdout);
}

int Run(const CommonOptions& common, const InterceptOptions& o) {
    // Options were validated one by one; now as a whole.
    FilterOptions f;
    for (const std::string& d : o.directions) {
        f.directions.push_back(*ParseDirection(d));
    }
    f.family = *ParseFamily(o.family);
    f.protocol = o.protocol.empty() ? 0 : *ParseProtocol(o.protocol);
    if (!o.localPort.empty()) {
        f.localPorts = *ParsePortRange(o.localPort);
    }
    if (!o.remotePort.empty()) {
        f.remotePorts = *ParsePortRange(o.remotePort);
    }
    if (!o.localAddress.empty()) {
        f.localAddress = *ParseNetwork(o.localAddress);
    }
    if (!o.remoteAddress.empty()) {
        f.remoteAddress = *ParseNetwork(o.remoteAddress);
    }
    f.interfaceName = o.interfaceName;
    std::string error;
    const std::optional<dwi::firewall::Filter> filter = BuildFilter(f, error);
    if (!filter) {
        std::fprintf(stderr, "nti intercept: %s\n", error.c_str());
        return kExitUsage;
    }
    const auto [queueFirst, queueLast] = *ParseQueueRange(o.queueRange);
    const double durationSeconds =
        o.duration.empty() ? 0.0 : static_cast<double>(ParseDuration(o.duration)->count()) / 1000;
    if (!HasNetAdmin()) {
        std::fprintf(stderr, "nti intercept: needs root or CAP_NET_ADMIN\n");
        return kExitUsage;
    }

    // Signals arrive through a descriptor; every thread started from here on
    // inherits the mask.
    Fd signalFd{OpenExitSignalFd()};
    Fd countFd{::eventfd(0, EFD_CLOEXEC)};
    if (signalFd.fd < 0 || countFd.fd < 0) {
        std::perror("nti intercept: signalfd/eventfd");
        return kExitFailure;
    }

    HostContext host;
    if (const qor::result_t r = host.Open(common); !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti intercept: cannot load module: %s\n", host.Error().c_str());
        return kExitFailure;
    }
    FirewallSettings firewall{queueFirst, queueLast, o.failClosed};
    if (const qor::result_t r = host.StartFirewall(firewall); !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti intercept: %s: %s\n", host.Error().c_str(),
                     qor::FormatResult(r).c_str());
        return kExitFailure;
    }
    qor::RefPtr<qor::IObject> object;
    qor::RefPtr<INetworkInterceptor> facade;
    qor::result_t r =
        host.CreateObject(dwi::network_interceptor::kNetworkInterceptorClassId, object.Ref());
    if (QOR_SUCCEEDED(r)) {
        r = qor::QueryInterfaceAs(object.Get(), facade);
    }
    if (!QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti intercept: cannot create NetworkInterceptor: %s\n",
                     qor::FormatResult(r).c_str());
        return kExitFailure;
    }

    Consumer::Settings settings;
    settings.verdict = *ParseVerdict(o.verdict);
    settings.mark = o.mark;
    settings.rewrite = o.rewrite;
    settings.json = o.json;
    settings.quiet = o.quiet;
    settings.count = o.count;
    settings.countReachedFd = countFd.fd;
    auto consumer = qor::object::Create<Consumer>(settings);
    IPacketEventCallback* event = consumer.Get();
    std::optional<Delayed> delayed;
    if (settings.verdict.verdict == Verdict::LATER) {
        delayed.emplace(facade.Get(), event, Verdict::ALLOW);
        consumer->SetDelayed(&*delayed);
    }

    r = facade->StartInterception(event, *filter, o.tag.c_str());
    if (!QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti intercept: cannot start interception: %s\n",
                     qor::FormatResult(r).c_str());
        return kExitFailure;
    }
    const std::vector<std::uint16_t> taken = host.Queues()->Taken();
    const std::uint16_t firstQueue = taken.empty() ? 0 : taken.front();
    consumer->SetQueues(firstQueue);

    int exitCode = kExitOk;
    const char* reason = "rules not installed";
    if (host.Firewall()->WaitForTag(o.tag, kRulesTimeout)) {
        std::fprintf(stderr, "nti intercept: intercepting on queues %u-%u with tag %s\n",
                     firstQueue, firstQueue + 1u, o.tag.c_str());
        reason = WaitForEnd(signalFd.fd, countFd.fd, durationSeconds, *host.Firewall());
        if (consumer->OutputClosed()) {
            reason = "closed output";
        } else if (reason == std::string_view("interception end")) {
            std::fprintf(stderr, "nti intercept: the interception ended by itself\n");
            exitCode = kExitFailure;
        }
    } else {
        std::fprintf(stderr, "nti intercept: the firewall rules were not installed\n");
        exitCode = kExitFailure;
    }

    // The kernel's counters go with the queues: read them first.
    const std::vector<QueueStats> kernel = ReadQueueStats(kNfqueueProcPath);
    if (delayed) {
        delayed->Flush();
    }
    r = facade->StopInterception(event);
    if (!QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti intercept: cannot stop interception: %s\n",
                     qor::FormatResult(r).c_str());
        exitCode = kExitFailure;
    }
    host.Queues()->ReleaseQueues(firstQueue, 2);
    if (host.Firewall()->InstalledCount() != 0) {
        std::fprintf(stderr, "nti intercept: firewall rules were left; removing them\n");
        exitCode = kExitFailure;
    }
    PrintSummary(*consumer, kernel, firstQueue, reason, o.json);
    if (delayed && delayed->Failed() != 0) {
        std::fprintf(stderr, "nti intercept: %llu delayed verdicts failed\n",
                     static_cast<unsigned long long>(delayed->Failed()));
    }
    consumer->SetDelayed(nullptr);
    delayed.reset();
    facade = nullptr;
    object = nullptr;
    return exitCode;
}

}  // namespace

CommandRunner AddInterceptCommand(CLI::App& app) {
    auto options = std::make_shared<InterceptOptions>();
    CLI::App* sub = app.add_subcommand(
        "intercept",
        "Queue the packets the filter selects (by default all inbound packets) to nti through "
        "NFQUEUE, print each one and answer it with the chosen verdict; a summary ends the "
        "run.\n"
        "\n"
        "Changes on this machine while it runs: firewall rules (see --firewall) that send the "
        "selected packets to two NFQUEUE queues; "
        "those packets wait for nti's verdict (they pass unseen while nobody reads the queues, "
        "or are dropped then with --fail-closed). It ends at --count, --duration, SIGINT, "
        "SIGTERM, SIGHUP, SIGQUIT or a closed standard output, and then removes its rules and "
        "releases the queues. Needs root or CAP_NET_ADMIN.");
    InterceptOptions& o = *options;
    sub->add_option("--direction", o.directions,
                    "in, out, fwd-in or fwd-out; repeat it for several (default in)")
        ->type_name("DIR")
        ->check(Accepts("a direction", ParseDirection));
    sub->add_option("--proto", o.protocol,
                    "tcp, udp, icmp, icmpv6 (also ipv6-icmp) or a protocol number 1 to 255")
        ->type_name("PROTO")
        ->check(Accepts("a protocol", ParseProtocol));
    sub->add_option("--local-port", o.localPort, "Local port N or range N-M, 1 to 65535 (tcp/udp)")
        ->type_name("PORTS")
        ->check(Accepts("a port or port range", ParsePortRange));
    sub->add_option("--remote-port", o.remotePort,
                    "Remote port N or range N-M, 1 to 65535 (tcp/udp)")
        ->type_name("PORTS")
        ->check(Accepts("a port or port range", ParsePortRange));
    sub->add_option("--local-addr", o.localAddress, "Local address or network (CIDR)")
        ->type_name("ADDR")
        ->check(Accepts("an address or CIDR network", ParseNetwork));
    sub->add_option("--remote-addr", o.remoteAddress, "Remote address or network (CIDR)")
        ->type_name("ADDR")
        ->check(Accepts("an address or CIDR network", ParseNetwork));
    sub->add_option("--family", o.family, "4, 6 or any")
        ->capture_default_str()
        ->type_name("FAMILY")
        ->check(Accepts("a family", ParseFamily));
    sub->add_option("--interface", o.interfaceName, "Interface name (up to 15 characters)")
        ->type_name("NAME");
    sub->add_flag("--json", o.json, "One JSON packet record per line (see docs/json.md)");
    sub->add_flag("--quiet", o.quiet, "No line per packet, only the summary");
    sub->add_option("--verdict", o.verdict,
                    "allow, drop, repeat, later:<ms> (allowed that many milliseconds later, 0 "
                    "to 3600000), or mix:<ms>: a third each of allow, drop and later:<ms>, chosen "
                    "by a hash of the UDP/TCP payload, so that the same datagram always gets the "
                    "same answer (to test a path)")
        ->capture_default_str()
        ->type_name("VERDICT")
        ->check(Accepts("a verdict", ParseVerdict));
    sub->add_option("--mark", o.mark, "Give every packet this mark with its verdict")
        ->type_name("MARK");
    sub->add_option("--rewrite-udp-payload", o.rewrite,
                    "Write this text over the start of every UDP payload (checksums refilled)")
        ->type_name("TEXT");
    sub->add_option("--count", o.count, "Stop after this many packets (1 or more)")
        ->type_name("N")
        ->check(CLI::PositiveNumber.description(""));
    sub->add_option("--duration", o.duration,
                    "Stop after this time: 500ms, 30s, 5m, 1h; a bare number is seconds")
        ->type_name("TIME")
        ->check(Accepts("a duration (500ms, 30s, 5m, 1h)", [](const std::string& t) {
            const auto d = ParseDuration(t);
            return d && d->count() > 0 ? d : std::nullopt;
        }));
    sub->add_option("--queue-range", o.queueRange,
                    "Queue numbers to take two consecutive ones from, A-B (0 to 65535)")
        ->capture_default_str()
        ->type_name("A-B")
        ->check(Accepts("a queue range A-B", ParseQueueRange));
    sub->add_flag("--fail-closed", o.failClosed,
                  "Drop the selected packets while nobody reads the queues");
    sub->add_option("--tag", o.tag, "Tag of the firewall rules (letters, digits, _.-@)")
        ->capture_default_str()
        ->type_name("TAG")
        ->check(Accepts("a tag (letters, digits, _.-@)", [](const std::string& t) {
            return ValidTag(t) ? std::optional<bool>(true) : std::nullopt;
        }));
    return [options](const CommonOptions& common) { return Run(common, *options); };
}

}  // namespace nti::host
