// Serialisation metadata of the statistics records.
#pragma once

#include <cstdint>

#include "qor/meta.h"

namespace dwi::network_interceptor {

// FindStatisticsType returns the static descriptor of one of the statistics
// record types (IntervalCounters, ConnectionCounter, ip_t, ipv6_t, ipv4_t,
// Collectors, CollectorData) by type id, or null for any other id.
const qor::meta::TypeDescriptor* FindStatisticsType(std::uint32_t typeId) noexcept;

}  // namespace dwi::network_interceptor
