// The connection statistics service interface.
#pragma once

#include <cstdint>
#include <vector>

#include "qor/object.h"

namespace system_interceptors::net::statistics {

// Period alignment of a collector.
enum class PeriodAlignment : std::uint8_t {
    EpochStartDate = 0,
    CollectorRegistration = 1,
};

struct IntervalCounters;

// IConnectionCounters: statistics collectors, each harvested on its own timer.
struct IConnectionCounters : qor::IObject {
    static constexpr qor::iid_t IID = 0x5E1D0C3A;

    // RegisterCollector starts (or keeps, returning 1) collector `id`.
    [[nodiscard]] virtual qor::result_t RegisterCollector(std::uint32_t id,
                                                          PeriodAlignment periodAlignment,
                                                          std::uint32_t period) noexcept = 0;
    // ReadCounters takes the collector's closed intervals (swapped with
    // `counters`). 0x8000004C for an unknown id.
    [[nodiscard]] virtual qor::result_t ReadCounters(
        std::uint32_t id, std::vector<IntervalCounters>& counters) noexcept = 0;
    // UnregisterCollector drops collector `id`; 1 when it was not registered.
    [[nodiscard]] virtual qor::result_t UnregisterCollector(std::uint32_t id) noexcept = 0;

protected:
    ~IConnectionCounters() = default;
};

}  // namespace system_interceptors::net::statistics

namespace dwi {
// IConnectionCountersHolder is the statistics object's second identity.
struct IConnectionCountersHolder : qor::IObject {
    static constexpr qor::iid_t IID = 0x5E1D0C3B;

protected:
    ~IConnectionCountersHolder() = default;
};
}  // namespace dwi
