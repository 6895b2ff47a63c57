// Command-line values and output of `nti stats`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network_traffic_interceptor/connection_counters.h"
#include "network_traffic_interceptor/statistics.h"

namespace nti::host {

// ParsePeriod: "<n>" seconds, "<n>s" seconds or "<n>ms" milliseconds, as
// milliseconds; nullopt for zero, junk or more than a day.
std::optional<std::uint32_t> ParsePeriod(std::string_view text);
// ParseAlignment: "epoch" or "registration".
std::optional<system_interceptors::net::statistics::PeriodAlignment> ParseAlignment(
    std::string_view text);

// SortedByBytes orders the counters by bytes sent plus received, largest
// first; ties by local then remote endpoint text, so output is stable.
std::vector<system_interceptors::net::statistics::ConnectionCounter> SortedByBytes(
    const std::vector<system_interceptors::net::statistics::ConnectionCounter>& counters);

// IntervalHeader describes where an interval came from.
struct IntervalHeader {
    std::uint32_t collector = 0;
    bool restored = false;  // saved by an earlier run
};

// FormatTable renders one interval: a title line, a column header and one
// row per connection (sorted by bytes), each line ending in '\n'.
std::string FormatTable(const IntervalHeader& header,
                        const system_interceptors::net::statistics::IntervalCounters& interval);

}  // namespace nti::host
