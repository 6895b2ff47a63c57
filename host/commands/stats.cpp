// nti stats: per-connection traffic statistics from the module's
// ConnectionCounters, printed interval by interval.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "host/commands/commands.h"
#include "host/commands/stats_format.h"
#include "host/exit_signals.h"
#include "host/json_records.h"
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
    bool unregister = false;
    bool noRead = false;
    std::string ip6tables = "auto";
    std::string bypassMark;
};

// The validated form of StatsOptions.
struct StatsSettings {
    std::uint32_t periodMs = 0;
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
    const auto period = ParsePeriod(o.period);
    const auto alignment = ParseAlignment(o.alignment);
    if (!period) {
        std::fprintf(stderr,
                     "nti stats: --period %s: expected seconds (5, 5s) or milliseconds (500ms), "
                     "1 ms to 24 h\n",
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
    s.periodMs = *period;
    s.alignment = *alignment;
    return s;
}

// Printer writes intervals in the chosen form and counts the fresh ones.
class Printer {
public:
    Printer(std::uint32_t id, bool json) : m_id(id), m_json(json) {}

    void Print(const std::vector<IntervalCounters>& intervals, bool restored) {
        for (const auto& interval : intervals) {
            const std::string text =
                m_json ? JsonLine(IntervalJson(m_id, Sorted(interval), restored))
                       : FormatTable(IntervalHeader{m_id, restored}, interval) + "\n";
            std::fwrite(text.data(), 1, text.size(), stdout);
            if (!restored) {
                ++m_fresh;
            }
        }
        std::fflush(stdout);
    }
    std::uint64_t Fresh() const { return m_fresh; }

private:
    static IntervalCounters Sorted(const IntervalCounters& interval) {
        return IntervalCounters{interval.begin, interval.end, SortedByBytes(interval.counters)};
    }

    std::uint32_t m_id;
    bool m_json;
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
    if (const qor::result_t r = host.StartFirewall(FirewallSettings{}); !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti stats: %s: %s\n", host.Error().c_str(),
                     qor::FormatResult(r).c_str());
        return kExitFailure;
    }

    int exitCode = kExitOk;
    {
        qor::RefPtr<qor::IObject> object;
        qor::RefPtr<IConnectionCounters> counters;
        qor::result_t r =
            host.CreateObject(dwi::network_interceptor::kConnectionCountersClassId, object.Ref());
        if (QOR_SUCCEEDED(r)) {
            r = qor::QueryInterfaceAs(object.Get(), counters);
        }
        if (!QOR_SUCCEEDED(r)) {
            std::fprintf(stderr, "nti stats: cannot create ConnectionCounters: %s\n",
                         qor::FormatResult(r).c_str());
            return kExitFailure;
        }
        Printer printer(o.id, o.json);
        // What an earlier run saved comes first (unknown id: nothing saved).
        std::vector<IntervalCounters> intervals;
        if (!o.noRead && QOR_SUCCEEDED(counters->ReadCounters(o.id, intervals))) {
            printer.Print(intervals, true);
        }
        r = counters->RegisterCollector(o.id, s.alignment, s.periodMs);
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
            if (std::fflush(stdout) != 0) {
                break;
            }
        }
        if (o.unregister) {
            counters->UnregisterCollector(o.id);
        }
        // Releasing the service saves what was not read yet.
    }
    host.Shutdown();
    return exitCode;
}

}  // namespace

CommandRunner AddStatsCommand(CLI::App& app) {
    auto options = std::make_shared<StatsOptions>();
    CLI::App* sub = app.add_subcommand(
        "stats",
        "Count packets and bytes per connection through the module's statistics service and "
        "print each closed interval, largest connections first. Intervals closed but not "
        "printed when the run ends are saved in the state directory (--state-dir) and printed "
        "first by the "
        "next run. Installs NFLOG firewall rules: run it only inside a network namespace "
        "made for it.");
    StatsOptions& o = *options;
    sub->add_option("--id", o.id, "Collector id")->capture_default_str();
    sub->add_option("--period", o.period,
                    "Interval length: seconds (5 or 5s) or milliseconds (500ms)")
        ->capture_default_str();
    sub->add_option("--alignment", o.alignment,
                    "epoch, or registration: the first interval holds only traffic after the "
                    "collector was registered")
        ->capture_default_str();
    sub->add_option(
        "--intervals", o.intervals,
        "Stop after printing this many new intervals (default: at SIGINT/SIGTERM/SIGHUP/SIGQUIT)");
    sub->add_flag("--json", o.json, "One JSON object per interval and line");
    sub->add_flag("--no-read", o.noRead,
                  "Count without printing until an ending signal: every interval is saved for the "
                  "next run");
    sub->add_flag("--unregister", o.unregister,
                  "Unregister the collector at the end: unread intervals are dropped, not saved");
    sub->add_option("--ip6tables", o.ip6tables, "auto, yes or no: also log IPv6 through ip6tables")
        ->capture_default_str();
    sub->add_option("--nflog-bypass-mark", o.bypassMark,
                    "Packets with this firewall mark are not counted (default 0x4e544900)");
    return [options](const CommonOptions& common) {
        const auto settings = Validate(common, *options);
        if (!settings) {
            return kExitUsage;
        }
        return Run(*settings, *options);
    };
}

}  // namespace nti::host
