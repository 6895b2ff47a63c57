// ConnectionCounters: the connection statistics service.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "dwi_common/network_interfaces.h"
#include "network_traffic_interceptor/connection_counters.h"
#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/src/interval_records.h"
#include "network_traffic_interceptor/src/nflog_connection_collector.h"
#include "network_traffic_interceptor/statistics.h"
#include "qor/meta.h"
#include "qor/object.h"
#include "qor/rtl/providers.h"
#include "qor/storage.h"
#include "qor/timer.h"

namespace dwi::network_interceptor {

// NetworkInventory lists the local interfaces with their default gateways.
using NetworkInventory = std::function<qor::result_t(std::vector<dwi::network::NetworkInterface>&)>;

// CurrentTime returns 100-ns ticks since 1601-01-01 UTC; throws SystemException
// ("Cannot get system time") when the clock cannot be read.
std::uint64_t CurrentTime();

// ConnectionCounters harvests the NFLOG collector's per-connection counters
// into the intervals of registered collectors, each on its own timer, and
// keeps unread intervals across restarts under the storage key "Collectors".
class ConnectionCounters
    : public qor::object::Ifaces<system_interceptors::net::statistics::IConnectionCounters,
                                 dwi::IConnectionCountersHolder>,
      private qor::TracerProvider,
      private qor::ServiceLocatorProvider {
public:
    // Uses the system's network inventory for the gateways.
    ConnectionCounters(qor::IServiceLocator* locator, qor::ITracer* tracer)
        : ConnectionCounters(locator, tracer, &dwi::network::GetNetworkInterfaces) {}
    // Throws when a host service is missing or restored collectors cannot be
    // restarted; a failed load of the stored counters is only traced.
    ConnectionCounters(qor::IServiceLocator* locator, qor::ITracer* tracer,
                       NetworkInventory networkInventory);
    ~ConnectionCounters() override;

    ConnectionCounters(const ConnectionCounters&) = delete;
    ConnectionCounters& operator=(const ConnectionCounters&) = delete;

    [[nodiscard]] qor::result_t RegisterCollector(
        std::uint32_t id, system_interceptors::net::statistics::PeriodAlignment alignment,
        std::uint32_t period) noexcept override;
    [[nodiscard]] qor::result_t ReadCounters(
        std::uint32_t id, std::vector<system_interceptors::net::statistics::IntervalCounters>&
                              counters) noexcept override;
    [[nodiscard]] qor::result_t UnregisterCollector(std::uint32_t id) noexcept override;

private:
    struct CollectorBucket {
        connection_counters_data::CollectorData data;
        std::uint64_t intervalStart = 0;
        ConnectionMap current{1};
        qor::RefPtr<qor::IRunnable> harvest;
        bool registered = false;
    };

    [[nodiscard]] qor::result_t CreateSourceCollector() noexcept;
    [[nodiscard]] qor::result_t StartCollectionForCollector(CollectorBucket& bucket) noexcept;
    int HarvestTimeHandler(std::uint32_t id) noexcept;
    void HarvestTimeUnsafe(std::uint32_t collectorTrigger, bool cutMod);
    void UpdateGateways() noexcept;
    void CutInterval(CollectorBucket& bucket);
    // Persistence, in connection_counters_storage.cpp.
    [[nodiscard]] qor::result_t MoveCountersToStorage() noexcept;
    [[nodiscard]] qor::result_t LoadCountersFromStorage() noexcept;
    void CancelAllHarvests(std::unique_lock<std::mutex>& lock, std::string_view function) noexcept;

    NetworkInventory m_networkInventory;
    qor::RefPtr<qor::IMetaInfoProvider> m_metaInfoProvider;
    std::mutex m_mutex;
    qor::RefPtr<qor::ITimer> m_harvestTimer;
    qor::RefPtr<qor::object::ObjectImpl<NfLogConnectionCollector>> m_sourceCollector;
    std::unordered_map<std::uint32_t, CollectorBucket> m_outCollectors;
    GatewayMap m_gateways;
    qor::RefPtr<app_core::component::IKeyValueStorage> m_storage;
};

}  // namespace dwi::network_interceptor
