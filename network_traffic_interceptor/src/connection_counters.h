// ConnectionCounters: the connection statistics service.
#pragma once

#include "network_traffic_interceptor/connection_counters.h"
#include "network_traffic_interceptor/statistics.h"
#include "qor/object.h"
#include "qor/rtl/providers.h"

namespace dwi::network_interceptor {

class ConnectionCounters
    : public qor::object::Ifaces<system_interceptors::net::statistics::IConnectionCounters,
                                 dwi::IConnectionCountersHolder>,
      private qor::TracerProvider,
      private qor::ServiceLocatorProvider {
public:
    ConnectionCounters(qor::IServiceLocator* locator, qor::ITracer* tracer);

    qor::result_t RegisterCollector(std::uint32_t id,
                                    system_interceptors::net::statistics::PeriodAlignment alignment,
                                    std::uint32_t period) noexcept override;
    qor::result_t ReadCounters(std::uint32_t id,
                               std::vector<system_interceptors::net::statistics::IntervalCounters>&
                                   counters) noexcept override;
    qor::result_t UnregisterCollector(std::uint32_t id) noexcept override;
};

}  // namespace dwi::network_interceptor
