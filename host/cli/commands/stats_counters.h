// What nti stats and nti stats-service share around the module's statistics
// service: making it, noticing that counting stopped, and its last harvest.
#pragma once

#include <cstdint>

#include "host/services/host_context.h"
#include "network_traffic_interceptor/connection_counters.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/object.h"

namespace nti::host {

// kCountingStopped is what both commands say when a listener of the module
// ended on an error: nothing more would be counted.
inline constexpr const char* kCountingStopped =
    "the NFLOG listener stopped on an error (see the trace): nothing more is counted";

// CreateCounters makes the module's ConnectionCounters. On failure it writes
// "`command`: cannot create ConnectionCounters: <result>" to stderr and
// returns null.
qor::RefPtr<system_interceptors::net::statistics::IConnectionCounters> CreateCounters(
    HostContext& host, const char* command);

// CountingStopped is true once a listener of the module ended on an error.
bool CountingStopped(const HostContext& host);

// HarvestBeforeSaving makes the service hand what it counted since its last
// harvest to every collector, `id`'s included, so that the interval saved
// when the service is released holds it: the service closes intervals
// without a harvest, but registering a collector aligned to its registration
// harvests first. Failures are not reported: the run ends either way.
void HarvestBeforeSaving(system_interceptors::net::statistics::IConnectionCounters& counters,
                         std::uint32_t id);

}  // namespace nti::host
