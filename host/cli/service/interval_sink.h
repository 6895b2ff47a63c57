// Destinations of the intervals the statistics service closes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "network_traffic_interceptor/statistics.h"

namespace nti::host {

// IIntervalSink takes every closed interval of one collector. Write returns
// an empty string, or why the interval could not be delivered; a sink that
// failed once keeps taking the following intervals.
class IIntervalSink {
public:
    virtual ~IIntervalSink() = default;
    [[nodiscard]] virtual std::string Write(
        std::uint32_t collector, bool restored,
        const system_interceptors::net::statistics::IntervalCounters& interval) = 0;
    // Name says which sink this is in error messages.
    [[nodiscard]] virtual const std::string& Name() const = 0;
};

// OpenJsonLinesSink appends one JSON object per interval and line to `path`
// ("-": standard output), flushed after every interval. Returns null with
// `error` set when the file cannot be opened.
[[nodiscard]] std::unique_ptr<IIntervalSink> OpenJsonLinesSink(const std::string& name,
                                                               const std::string& path,
                                                               std::string& error);

}  // namespace nti::host
