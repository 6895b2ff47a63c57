// nti stats --history: query the service's SQLite history.
#include "host/cli/commands/stats_history.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "host/cli/commands/commands.h"
#include "host/cli/commands/stats_format.h"
#include "host/cli/service/history_store.h"
#include "host/cli/service/service_config.h"
#include "host/services/json_records.h"

namespace nti::host {

int RunHistory(const HistoryOptions& o) {
    HistoryQuery query;
    const auto since = ParseSince(o.since, NowTicks());
    if (!since) {
        std::fprintf(stderr,
                     "nti stats: --since %s: expected 2026-11-22, 2026-11-22T10:00:00Z or a "
                     "duration back from now (90m, 2h, 7d)\n",
                     o.since.c_str());
        return kExitUsage;
    }
    query.sinceTicks = *since;
    if (!o.address.empty()) {
        system_interceptors::net::statistics::ip_t ip;
        if (inet_pton(AF_INET, o.address.c_str(), ip.v4.bytes.data()) == 1) {
            ip.family = 4;
        } else if (inet_pton(AF_INET6, o.address.c_str(), ip.v6.bytes.data()) == 1) {
            ip.family = 6;
        } else {
            std::fprintf(stderr, "nti stats: --addr %s: expected an IPv4 or IPv6 address\n",
                         o.address.c_str());
            return kExitUsage;
        }
        query.address = ip;
    }
    std::string database = o.database;
    if (database.empty()) {
        std::string error;
        const auto config = LoadServiceConfig(o.config, error);
        if (!config) {
            std::fprintf(stderr, "nti stats: --history without --db: %s\n", error.c_str());
            return kExitUsage;
        }
        for (const SinkConfig& sink : config->sinks) {
            if (sink.kind == SinkConfig::Kind::Sqlite && database.empty()) {
                database = sink.path;
            }
        }
        if (database.empty()) {
            std::fprintf(stderr, "nti stats: --history: %s has no [sqlite] section; give --db\n",
                         o.config.c_str());
            return kExitUsage;
        }
    }
    std::vector<HistoryInterval> intervals;
    if (const std::string error = QueryHistory(database, query, intervals); !error.empty()) {
        std::fprintf(stderr, "nti stats: --history: %s\n", error.c_str());
        return kExitFailure;
    }
    for (const HistoryInterval& h : intervals) {
        const IntervalHeader header{h.collector, false};
        const std::string text = o.json ? JsonLine(IntervalJson(h.collector, h.interval))
                                        : FormatTable(header, h.interval) + "\n";
        std::fwrite(text.data(), 1, text.size(), stdout);
    }
    return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace nti::host
