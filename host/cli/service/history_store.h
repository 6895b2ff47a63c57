// SQLite history of closed intervals: one row per connection and interval.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/service/interval_sink.h"

namespace nti::host {

// OpenHistorySink opens (and creates) the database at `path`. Rows whose
// interval ended more than `retentionSeconds` ago are deleted after each
// write (0 keeps everything). Null with `error` set on failure.
[[nodiscard]] std::unique_ptr<IIntervalSink> OpenHistorySink(const std::string& name,
                                                             const std::string& path,
                                                             std::uint64_t retentionSeconds,
                                                             std::string& error);

// HistoryQuery selects intervals that ended at or after `sinceTicks` (100-ns
// ticks since 1601), of connections with `address` at either end.
struct HistoryQuery {
    std::uint64_t sinceTicks = 0;
    std::optional<system_interceptors::net::statistics::ip_t> address;
    std::optional<std::uint32_t> collector;
};

// HistoryInterval is one interval read back, with its connections in the
// order they were stored.
struct HistoryInterval {
    std::uint32_t collector = 0;
    system_interceptors::net::statistics::IntervalCounters interval;
};

// QueryHistory reads the matching rows, grouped into intervals in time
// order. Returns an empty string or the error.
[[nodiscard]] std::string QueryHistory(const std::string& path, const HistoryQuery& query,
                                       std::vector<HistoryInterval>& out);

// ParseSince: an ISO-8601 UTC time (2026-11-22, 2026-11-22T10:00:00Z) or a
// duration back from `nowTicks` (90m, 2h, 7d), as 100-ns ticks since 1601.
[[nodiscard]] std::optional<std::uint64_t> ParseSince(const std::string& text,
                                                      std::uint64_t nowTicks);

// NowTicks: the real-time clock in 100-ns ticks since 1601-01-01 UTC.
[[nodiscard]] std::uint64_t NowTicks();

}  // namespace nti::host
