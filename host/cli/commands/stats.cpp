// nti stats: per-connection traffic statistics from the module's
// ConnectionCounters, printed interval by interval.
#include <net/if.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "host/cli/commands/commands.h"
#include "host/cli/commands/intercept_options.h"
#include "host/cli/commands/option_checks.h"
#include "host/cli/commands/stats_counters.h"
#include "host/cli/commands/stats_format.h"
#include "host/cli/commands/stats_history.h"
#include "host/cli/exit_signals.h"
#include "host/cli/net_admin.h"
#include "host/cli/service/service_config.h"
#include "host/services/duration.h"
#include "host/services/json_records.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/result.h"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::IConnectionCounters;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::PeriodAlignment;

struct StatsOptions {
    std::uint32_t id = 1;
    std::string period = "5";
    std::string alignment = "epoch";
    std::uint64_t intervals = 0;  // 0: until a signal
    bool json = false;
    bool wide = false;
    std::string protocol;
    std::string interfaceName;
    std::string address;
    bool unregister = false;
    bool noRead = false;
    std::string ip6tables = "auto";
    std::string bypassMark;
    bool history = false;
    HistoryOptions historyOptions;
};

// The validated form of StatsOptions.
struct StatsSettings {
    std::uint32_t periodMs = 0;
    std::optional<std::uint8_t> protocol;
    std::optional<dwi::firewall::IpNetwork> address;
    PeriodAlignment alignment = PeriodAlignment::EpochStartDate;
    CommonOptions common;
};

std::optional<std::uint32_t> ParseMark(const std::string& text) {
    try {
        std::size_t used = 0;
        const unsigned long value = std::stoul(text, &used, 0);
        if (used != text.size() || value == 0 || value > 0xFFFFFFFFul) {
            return std::nullopt;
        }
        return static_cast<std::uint32_t>(value);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// Validate turns the options into settings, or writes why not and returns
// nullopt.
std::optional<StatsSettings> Validate(const CommonOptions& common, const StatsOptions& o) {
    StatsSettings s;
    s.common = common;
    const auto period = ParseDuration(o.period);
    const auto alignment = ParseAlignment(o.alignment);
    if (!period || period->count() < 1 || *period > std::chrono::hours(24)) {
        std::fprintf(stderr,
                     "nti stats: --period %s: expected a time from 1ms to 24h, such as 500ms, "
                     "5s, 1m or 5 (seconds)\n",
                     o.period.c_str());
        return std::nullopt;
    }
    if (!alignment) {
        std::fprintf(stderr, "nti stats: --alignment %s: expected epoch or registration\n",
                     o.alignment.c_str());
        return std::nullopt;
    }
    if (o.noRead && (o.intervals != 0 || o.unregister)) {
        std::fprintf(stderr,
                     "nti stats: --no-read runs until a signal and keeps what it counts: "
                     "no --intervals or --unregister with it\n");
        return std::nullopt;
    }
    if (o.ip6tables == "yes" || o.ip6tables == "no") {
        s.common.ip6tables = o.ip6tables == "yes";
    } else if (o.ip6tables != "auto") {
        std::fprintf(stderr, "nti stats: --ip6tables %s: expected auto, yes or no\n",
                     o.ip6tables.c_str());
        return std::nullopt;
    }
    if (!o.bypassMark.empty()) {
        const auto mark = ParseMark(o.bypassMark);
        if (!mark) {
            std::fprintf(stderr,
                         "nti stats: --nflog-bypass-mark %s: expected a non-zero 32-bit number\n",
                         o.bypassMark.c_str());
            return std::nullopt;
        }
        s.common.nflogBypassMark = *mark;
    }
    s.periodMs = static_cast<std::uint32_t>(period->count());
    s.alignment = *alignment;
    if (!o.protocol.empty()) {
        s.protocol = ParseProtocol(o.protocol);
    }
    if (!o.address.empty()) {
        s.address = ParseNetwork(o.address);
    }
    return s;
}

// Printer writes the selected connections of each interval in the chosen
// form and counts the fresh intervals.
class Printer {
public:
    Printer(std::uint32_t id, const StatsSettings& settings, const StatsOptions& options)
        : m_id(id), m_settings(settings), m_options(options) {}

    void Print(const std::vector<IntervalCounters>& intervals, bool restored) {
        StatsFilter filter{m_settings.protocol, m_settings.address, std::nullopt};
        if (!m_options.interfaceName.empty()) {
            // Read each time: addresses come and go. An interface that is
            // not there (yet) has no connections.
            filter.interface =
                LookupInterface(m_options.interfaceName).value_or(InterfaceIdentity{});
        }
        for (const auto& whole : intervals) {
            const IntervalCounters interval{whole.begin, whole.end,
                                            SortedByBytes(Filtered(whole.counters, filter))};
            const std::string text =
                m_options.json
                    ? JsonLine(IntervalJson(m_id, interval, restored))
                    : FormatTable(IntervalHeader{m_id, restored}, interval, m_options.wide) + "\n";
            std::fwrite(text.data(), 1, text.size(), stdout);
            if (!restored) {
                ++m_fresh;
            }
        }
        std::fflush(stdout);
    }
    std::uint64_t Fresh() const { return m_fresh; }

private:
    std::uint32_t m_id;
    const StatsSettings& m_settings;
    const StatsOptions& m_options;
    std::uint64_t m_fresh = 0;
};

struct SignalFd {
    int fd;
    ~SignalFd() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

int Run(const StatsSettings& s, const StatsOptions& o) {
    if (!HasNetAdmin()) {
        std::fprintf(stderr, "nti stats: needs root or CAP_NET_ADMIN\n");
        return kExitUsage;
    }
    // Signals arrive through a descriptor; the host threads started below
    // inherit the mask.
    const SignalFd signalFd{OpenExitSignalFd()};
    if (signalFd.fd < 0) {
        std::perror("nti stats: signalfd");
        return kExitFailure;
    }

    HostContext host;
    if (const qor::result_t r = host.Open(s.common); !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti stats: cannot load module: %s\n", host.Error().c_str());
        return kExitFailure;
    }
    if (const qor::result_t r = host.StartFirewall(FirewallSettings{.queues = false});
        !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti stats: %s: %s\n", host.Error().c_str(),
                     qor::FormatResult(r).c_str());
        return kExitFailure;
    }

    int exitCode = kExitOk;
    {
        const qor::RefPtr<IConnectionCounters> counters = CreateCounters(host, "nti stats");
        if (!counters) {
            return kExitFailure;
        }
        Printer printer(o.id, s, o);
        // What an earlier run saved comes first (unknown id: nothing saved).
        std::vector<IntervalCounters> intervals;
        if (!o.noRead && QOR_SUCCEEDED(counters->ReadCounters(o.id, intervals))) {
            printer.Print(intervals, true);
        }
        qor::result_t r = counters->RegisterCollector(o.id, s.alignment, s.periodMs);
        if (!QOR_SUCCEEDED(r)) {
            std::fprintf(stderr, "nti stats: cannot register collector %u: %s\n", o.id,
                         qor::FormatResult(r).c_str());
            return kExitFailure;
        }
        // Intervals close on the host timer; look for them often enough to
        // print each soon after it closed.
        const int pollMs = static_cast<int>(std::clamp<std::uint32_t>(s.periodMs / 4, 10, 250));
        while (o.intervals == 0 || printer.Fresh() < o.intervals) {
            pollfd pfd{signalFd.fd, POLLIN, 0};
            if (poll(&pfd, 1, pollMs) > 0) {
                signalfd_siginfo info{};
                [[maybe_unused]] const ssize_t n = read(signalFd.fd, &info, sizeof(info));
                break;
            }
            if (CountingStopped(host)) {
                std::fprintf(stderr, "nti stats: %s\n", kCountingStopped);
                exitCode = kExitFailure;
                break;
            }
            if (o.noRead) {
                continue;
            }
            intervals.clear();
            r = counters->ReadCounters(o.id, intervals);
            if (!QOR_SUCCEEDED(r)) {
                std::fprintf(stderr, "nti stats: cannot read collector %u: %s\n", o.id,
                             qor::FormatResult(r).c_str());
                exitCode = kExitFailure;
                break;
            }
            printer.Print(intervals, false);
            // SIGPIPE is ignored: a reader that went away ends the run here,
            // so the collector is still unregistered and its interval saved.
            // The failed flush inside Print already dropped what it held:
            // the error flag is what remains of it.
            if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
                break;
            }
        }
        if (o.unregister) {
            // The run ends either way: nothing is left to undo when this fails.
            static_cast<void>(counters->UnregisterCollector(o.id));
        } else {
            // Releasing the service saves what was not read yet.
            HarvestBeforeSaving(*counters, o.id);
        }
    }
    // A module that cannot unload yet goes with the process.
    static_cast<void>(host.Shutdown());
    return exitCode;
}

}  // namespace

CommandRunner AddStatsCommand(CLI::App& app) {
    auto options = std::make_shared<StatsOptions>();
    CLI::App* sub = app.add_subcommand(
        "stats",
        "Count packets and bytes per connection through the module's statistics service and "
        "print each closed interval: a table with one row per connection, largest first, or "
        "JSON interval records (--json).\n"
        "\n"
        "Changes on this machine while it runs: NFLOG firewall rules (see --firewall) that "
        "copy packet headers to nti (packets pass as before). It ends at --intervals, SIGINT, "
        "SIGTERM, SIGHUP, SIGQUIT, a closed standard output or a failed NFLOG listener (exit "
        "1), and then removes its rules. Intervals closed but not printed, and the traffic "
        "counted since the last one, are saved in the state directory (--state-dir) and "
        "printed first by the next run with the same --id; --unregister drops them instead. "
        "Needs root or CAP_NET_ADMIN.");
    StatsOptions& o = *options;
    sub->add_option("--id", o.id, "Collector id")->capture_default_str()->type_name("N");
    sub->add_option("--period", o.period,
                    "Interval length, 1ms to 24h: 500ms, 5s, 1m; a bare number is seconds")
        ->capture_default_str()
        ->type_name("TIME");
    sub->add_option("--alignment", o.alignment,
                    "epoch: no cut at registration, so the first interval may hold traffic "
                    "counted for other collectors before; registration: it holds only traffic "
                    "after the collector was registered. Intervals end one period apart "
                    "from the start")
        ->capture_default_str()
        ->type_name("WHEN");
    sub->add_option("--intervals", o.intervals,
                    "Stop after printing this many new intervals (default: at a signal)")
        ->type_name("N");
    sub->add_option("--proto", o.protocol,
                    "Only connections of this protocol: tcp, udp, icmp, icmpv6 or a number")
        ->type_name("PROTO")
        ->check(Accepts("a protocol", ParseProtocol));
    sub->add_option("--interface", o.interfaceName,
                    "Only connections whose local address or MAC address is this interface's")
        ->type_name("NAME")
        ->check(Accepts("an interface name (1 to 15 characters)", [](const std::string& name) {
            return !name.empty() && name.size() < IF_NAMESIZE ? std::optional<bool>(true)
                                                              : std::nullopt;
        }));
    sub->add_option("--addr", o.address,
                    "Only connections with this address or network (CIDR) at either end")
        ->type_name("ADDR")
        ->check(Accepts("an address or CIDR network", ParseNetwork));
    sub->add_flag("--json", o.json, "One JSON interval record per line (see docs/json.md)");
    sub->add_flag("--wide", o.wide, "Add the local and remote MAC addresses to the table");
    sub->add_flag("--no-read", o.noRead,
                  "Count without printing until an ending signal: every interval is saved for the "
                  "next run");
    sub->add_flag("--unregister", o.unregister,
                  "Unregister the collector at the end: unread intervals are dropped, not saved");
    sub->add_option("--ip6tables", o.ip6tables, "auto, yes or no: also log IPv6 through ip6tables")
        ->capture_default_str()
        ->type_name("WHEN");
    sub->add_option("--nflog-bypass-mark", o.bypassMark,
                    "Packets with this firewall mark are not counted (default 0x4e544900)")
        ->type_name("MARK");
    sub->add_flag("--history", o.history,
                  "Print the intervals kept by nti stats-service's SQLite history instead of "
                  "counting (with --since, --db, --json, and --addr as one address)");
    o.historyOptions.config = kDefaultServiceConfig;
    sub->add_option("--since", o.historyOptions.since,
                    "History from this UTC time (2026-11-22T10:00:00Z) or this long ago (7d)")
        ->capture_default_str();
    sub->add_option("--db", o.historyOptions.database,
                    "History database (default: the [sqlite] path of --config)");
    sub->add_option("--config", o.historyOptions.config, "The service's configuration file")
        ->capture_default_str();
    return [options](const CommonOptions& common) {
        if (options->history) {
            options->historyOptions.json = options->json;
            options->historyOptions.address = options->address;
            return RunHistory(options->historyOptions);
        }
        const auto settings = Validate(common, *options);
        if (!settings) {
            return kExitUsage;
        }
        return Run(*settings, *options);
    };
}

}  // namespace nti::host
