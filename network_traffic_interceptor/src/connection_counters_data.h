// Records the statistics service stores under the key "Collectors".
#pragma once

#include <cstdint>
#include <vector>

#include "network_traffic_interceptor/statistics.h"

namespace dwi::network_interceptor::connection_counters_data {

inline constexpr std::uint32_t kCollectorDataTypeId = 0x5bbcb90b;
inline constexpr std::uint32_t kCollectorsTypeId = 0x55afdee1;

struct CollectorData {
    std::uint32_t collector = 0;
    std::uint32_t period = 0;
    std::uint8_t periodAlignment = 0;  // 0 EpochStartDate, 1 CollectorRegistration
    std::vector<system_interceptors::net::statistics::IntervalCounters> readyCounters;
    friend bool operator==(const CollectorData&, const CollectorData&) = default;
};

struct Collectors {
    std::vector<CollectorData> collectors;
    friend bool operator==(const Collectors&, const Collectors&) = default;
};

}  // namespace dwi::network_interceptor::connection_counters_data
