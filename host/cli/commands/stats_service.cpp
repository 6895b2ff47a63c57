// nti stats-service: the statistics collector as a long-running service
// that hands every closed interval to the configured sinks.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "dwi_tracing/tracing.h"
#include "host/cli/commands/commands.h"
#include "host/cli/commands/stats_counters.h"
#include "host/cli/exit_signals.h"
#include "host/cli/service/history_store.h"
#include "host/cli/service/ipfix_sink.h"
#include "host/cli/service/service_config.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/result.h"
#include "qor/trace/record.h"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::IConnectionCounters;
using system_interceptors::net::statistics::IntervalCounters;
using Sinks = std::vector<std::unique_ptr<IIntervalSink>>;

constexpr auto kError = qor::trace_level::kError;
constexpr auto kWarning = qor::trace_level::kWarning;
constexpr auto kInfo = qor::trace_level::kInfo;

// OpenSinks opens every sink of `config`, or none: `error` names the first
// that failed.
Sinks OpenSinks(const ServiceConfig& config, std::string& error) {
    Sinks sinks;
    for (const SinkConfig& s : config.sinks) {
        std::unique_ptr<IIntervalSink> sink;
        switch (s.kind) {
            case SinkConfig::Kind::Json:
                sink = OpenJsonLinesSink(s.name, s.path, error);
                break;
            case SinkConfig::Kind::Sqlite:
                sink = OpenHistorySink(s.name, s.path, s.retentionSeconds, error);
                break;
            case SinkConfig::Kind::Ipfix:
                sink = OpenIpfixSink(
                    s.name, {s.host, s.port, s.templateRefreshSeconds, s.observationDomain}, error);
                break;
        }
        if (!sink) {
            error.insert(0, "[" + s.name + "] ");
            return {};
        }
        sinks.push_back(std::move(sink));
    }
    return sinks;
}

class Service {
public:
    Service(std::string configPath, ServiceConfig config, Sinks sinks, qor::ITracer* tracer)
        : m_configPath(std::move(configPath)),
          m_config(std::move(config)),
          m_sinks(std::move(sinks)),
          m_tracer(qor::trace::CreatePrefixTracer(tracer, "StatsService")) {}

    void Deliver(const std::vector<IntervalCounters>& intervals, bool restored) {
        for (const IntervalCounters& interval : intervals) {
            QOR_TRACE(m_tracer.Get(), kInfo)
                << "Deliver: collector=" << m_config.collectorId
                << ", connections=" << interval.counters.size() << ", restored=" << restored;
            for (const auto& sink : m_sinks) {
                if (const std::string error = sink->Write(m_config.collectorId, restored, interval);
                    !error.empty()) {
                    QOR_TRACE(m_tracer.Get(), kError)
                        << "Deliver: [" << sink->Name() << "] " << error;
                }
            }
        }
    }

    // Reload replaces the sinks from the file; a file that does not read or
    // a sink that does not open leaves everything as it was.
    void Reload() {
        std::string error;
        auto config = LoadServiceConfig(m_configPath, error);
        Sinks sinks;
        if (config) {
            sinks = OpenSinks(*config, error);
        }
        if (!error.empty()) {
            QOR_TRACE(m_tracer.Get(), kError)
                << "Reload: " << error << "; keeping the old settings";
            return;
        }
        if (!config->SameCollector(m_config)) {
            QOR_TRACE(m_tracer.Get(), kWarning)
                << "Reload: [collector] changes take effect at the next start";
            ServiceConfig kept = m_config;
            kept.sinks = config->sinks;
            config = std::move(kept);
        }
        m_sinks = std::move(sinks);
        m_config = std::move(*config);
        QOR_TRACE(m_tracer.Get(), kWarning) << "Reload: " << m_sinks.size() << " sinks";
    }

    qor::ITracer* Tracer() { return m_tracer.Get(); }
    const ServiceConfig& Config() const { return m_config; }

private:
    std::string m_configPath;
    ServiceConfig m_config;
    Sinks m_sinks;
    qor::RefPtr<qor::ITracer> m_tracer;
};

struct SignalFd {
    int fd;
    ~SignalFd() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

int RunService(CommonOptions common, const std::string& configPath) {
    std::string error;
    auto config = LoadServiceConfig(configPath, error);
    if (!config) {
        std::fprintf(stderr, "nti stats-service: %s\n", error.c_str());
        return kExitUsage;
    }
    if (config->ip6tables) {
        common.ip6tables = config->ip6tables;
    }
    if (config->nflogBypassMark) {
        common.nflogBypassMark = *config->nflogBypassMark;
    }
    // SIGHUP comes through the same descriptor as the ending signals.
    const SignalFd signalFd{OpenExitSignalFd()};
    if (signalFd.fd < 0) {
        std::perror("nti stats-service: signalfd");
        return kExitFailure;
    }
    Sinks sinks = OpenSinks(*config, error);
    if (!error.empty()) {
        std::fprintf(stderr, "nti stats-service: %s: %s\n", configPath.c_str(), error.c_str());
        return kExitFailure;
    }
    HostContext host;
    if (const qor::result_t r = host.Open(common); !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti stats-service: cannot load module: %s\n", host.Error().c_str());
        return kExitFailure;
    }
    if (const qor::result_t r = host.StartFirewall(FirewallSettings{.queues = false});
        !QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "nti stats-service: %s: %s\n", host.Error().c_str(),
                     qor::FormatResult(r).c_str());
        return kExitFailure;
    }
    int exitCode = kExitOk;
    {
        Service service(configPath, std::move(*config), std::move(sinks), host.Tracer());
        const std::uint32_t id = service.Config().collectorId;
        const qor::RefPtr<IConnectionCounters> counters = CreateCounters(host, "nti stats-service");
        if (!counters) {
            return kExitFailure;
        }
        // Intervals the previous run closed but did not hand on.
        std::vector<IntervalCounters> intervals;
        if (QOR_SUCCEEDED(counters->ReadCounters(id, intervals))) {
            service.Deliver(intervals, true);
        }
        qor::result_t r =
            counters->RegisterCollector(id, service.Config().alignment, service.Config().periodMs);
        if (!QOR_SUCCEEDED(r)) {
            std::fprintf(stderr, "nti stats-service: cannot register collector %u: %s\n", id,
                         qor::FormatResult(r).c_str());
            return kExitFailure;
        }
        QOR_TRACE(service.Tracer(), kWarning) << "RunService: started, collector=" << id
                                              << ", period_ms=" << service.Config().periodMs;
        for (;;) {
            pollfd pfd{signalFd.fd, POLLIN, 0};
            if (poll(&pfd, 1, 250) > 0) {
                signalfd_siginfo info{};
                if (read(signalFd.fd, &info, sizeof(info)) == sizeof(info) &&
                    info.ssi_signo == SIGHUP) {
                    service.Reload();
                    continue;
                }
                QOR_TRACE(service.Tracer(), kWarning)
                    << "RunService: stopping on " << ExitSignalName(info.ssi_signo);
                break;
            }
            intervals.clear();
            r = counters->ReadCounters(id, intervals);
            if (!QOR_SUCCEEDED(r)) {
                QOR_TRACE(service.Tracer(), kError)
                    << "RunService: cannot read collector " << id << ": " << qor::FormatResult(r);
                exitCode = kExitFailure;
                break;
            }
            service.Deliver(intervals, false);
            if (CountingStopped(host)) {
                // Failing lets systemd restart the service with a new listener.
                QOR_TRACE(service.Tracer(), kError) << "RunService: " << kCountingStopped;
                exitCode = kExitFailure;
                break;
            }
        }
        // The collector stays registered: releasing the service closes its
        // open interval and saves it, and the next start hands it on.
        HarvestBeforeSaving(*counters, id);
    }
    // A module that cannot unload yet goes with the process.
    static_cast<void>(host.Shutdown());
    return exitCode;
}

}  // namespace

CommandRunner AddStatsServiceCommand(CLI::App& app) {
    auto configPath = std::make_shared<std::string>(kDefaultServiceConfig);
    CLI::App* sub = app.add_subcommand(
        "stats-service",
        "Run the statistics collector as a service: every closed interval goes to the sinks of "
        "the configuration file (JSON lines, an SQLite history, IPFIX collectors). SIGHUP "
        "rereads the file; SIGTERM stops, removing the rules and keeping the collector's "
        "unread traffic for the next start. Installs NFLOG firewall rules.");
    sub->add_option("--config", *configPath, "Configuration file")->capture_default_str();
    return [configPath](const CommonOptions& common) { return RunService(common, *configPath); };
}

}  // namespace nti::host
