#include "host/cli/commands/stats_counters.h"

#include <cstdio>

#include "qor/result.h"

namespace nti::host {

using system_interceptors::net::statistics::IConnectionCounters;
using system_interceptors::net::statistics::PeriodAlignment;

qor::RefPtr<IConnectionCounters> CreateCounters(HostContext& host, const char* command) {
    qor::RefPtr<qor::IObject> object;
    qor::RefPtr<IConnectionCounters> counters;
    qor::result_t r =
        host.CreateObject(dwi::network_interceptor::kConnectionCountersClassId, object.Ref());
    if (QOR_SUCCEEDED(r)) {
        r = qor::QueryInterfaceAs(object.Get(), counters);
    }
    if (!QOR_SUCCEEDED(r)) {
        std::fprintf(stderr, "%s: cannot create ConnectionCounters: %s\n", command,
                     qor::FormatResult(r).c_str());
        return {};
    }
    return counters;
}

bool CountingStopped(const HostContext& host) {
    return host.NflogListeners() != nullptr && host.NflogListeners()->FailedListeners() != 0;
}

void HarvestBeforeSaving(IConnectionCounters& counters, std::uint32_t id) {
    // The helper collector lives a moment: its timer never fires.
    constexpr std::uint32_t kPeriodMs = 86'400'000;
    const std::uint32_t helperId = id ^ 0x80000000u;
    if (QOR_SUCCEEDED(counters.RegisterCollector(helperId, PeriodAlignment::CollectorRegistration,
                                                 kPeriodMs))) {
        static_cast<void>(counters.UnregisterCollector(helperId));
    }
}

}  // namespace nti::host
