#include "network_traffic_interceptor/src/connection_counters.h"

#include "dwi_tracing/tracing.h"

namespace dwi::network_interceptor {

using namespace system_interceptors::net::statistics;

ConnectionCounters::ConnectionCounters(qor::IServiceLocator* locator, qor::ITracer* tracer)
    : TracerProvider(qor::trace::CreatePrefixTracer(tracer, "ConnectionCounters")),
      ServiceLocatorProvider(locator) {
    DWI_TRACE_ENTRY(GetTracer());
}

qor::result_t ConnectionCounters::RegisterCollector(std::uint32_t, PeriodAlignment,
                                                    std::uint32_t) noexcept {
    return qor::errors::kNotImplemented;
}

qor::result_t ConnectionCounters::ReadCounters(std::uint32_t,
                                               std::vector<IntervalCounters>&) noexcept {
    return qor::errors::kNotImplemented;
}

qor::result_t ConnectionCounters::UnregisterCollector(std::uint32_t) noexcept {
    return qor::errors::kNotImplemented;
}

}  // namespace dwi::network_interceptor
