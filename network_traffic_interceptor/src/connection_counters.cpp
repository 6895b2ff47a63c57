// The statistics service: collector registration and the harvest; interval
// records are built in interval_records.cpp, kept across restarts by
// connection_counters_storage.cpp.
#include "network_traffic_interceptor/src/connection_counters.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "dwi/nflog/nflog.h"
#include "dwi_common/blob_tools.h"
#include "dwi_common/ticks.h"
#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "qor/exception.h"
#include "qor/rtl/objclient.h"
#include "qor/runnable_adapter.h"

namespace dwi::network_interceptor {

using namespace system_interceptors::net::statistics;
using connection_counters_data::CollectorData;
using connection_counters_data::Collectors;
using qor::trace_level::kDebug;
using qor::trace_level::kError;
using qor::trace_level::kInfo;

namespace {

// The statistics rules log to this group; fixed by design.
constexpr std::uint16_t kNflogGroup = 10000;
constexpr std::size_t kMinReadyCapacity = 4;

using HarvestAdapter = qor::RunnableAdapter<ConnectionCounters, std::uint32_t>;

// AlignmentWord traces a period alignment as its name.
struct AlignmentWord {
    std::uint8_t value;
};

qor::trace::TraceRecord& operator<<(qor::trace::TraceRecord& r, AlignmentWord word) noexcept {
    switch (static_cast<PeriodAlignment>(word.value)) {
        case PeriodAlignment::EpochStartDate:
            return r << "EpochStartDate";
        case PeriodAlignment::CollectorRegistration:
            return r << "CollectorRegistration";
    }
    return r << word.value;
}

}  // namespace

std::uint64_t CurrentTime() {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        throw qor::SystemException("Cannot get system time", QOR_HERE, errno);
    }
    return dwi::ticks::FromUnix(now);
}

ConnectionCounters::ConnectionCounters(qor::IServiceLocator* locator, qor::ITracer* tracer,
                                       NetworkInventory networkInventory)
    : TracerProvider(qor::trace::CreatePrefixTracer(tracer, "ConnectionCounters")),
      ServiceLocatorProvider(locator),
      m_networkInventory(std::move(networkInventory)) {
    DWI_TRACE_ENTRY(GetTracer());
    qor::IServiceLocator* sl = GetServiceLocator();
    DWI_CHECK_THROW(GetTracer(), qor::GetInterface(sl, m_storage.Ref()),
                    "Cannot get app_core::component::IKeyValueStorage");
    DWI_CHECK_THROW(GetTracer(), qor::GetInterface(sl, m_harvestTimer.Ref()),
                    "Cannot get qor::ITimer interface");
    DWI_CHECK_THROW(GetTracer(), qor::GetInterface(sl, m_metaInfoProvider.Ref()),
                    "Cannot get qor::IMetaInfoProvider interface");

    DWI_CHECK_TRACE(GetTracer(), kError, LoadCountersFromStorage(),
                    "Cannot load counters from storage");

    if (!m_outCollectors.empty()) {
        std::unique_lock lock(m_mutex);
        try {
            DWI_CHECK_THROW(GetTracer(), CreateSourceCollector(), "Cannot create source collector");
            DWI_CHECK_THROW(GetTracer(), m_sourceCollector->Start(),
                            "Cannot start source collector");
            for (auto& it : m_outCollectors) {
                CollectorBucket& bucket = it.second;
                DWI_CHECK_THROW(GetTracer(), StartCollectionForCollector(bucket),
                                "Cannot start collection for collector " << it.first);
            }
        } catch (...) {
            // The timers already set hold plain pointers to this object.
            CancelAllHarvests(lock, __func__);
            throw;
        }
    }
    DWI_TRACE_EXIT(GetTracer()) << "m_outCollectors.size=" << m_outCollectors.size();
}

ConnectionCounters::~ConnectionCounters() {
    DWI_TRACE_ENTRY(GetTracer());
    std::unique_lock lock(m_mutex);
    CancelAllHarvests(lock, __func__);
    if (m_sourceCollector) {
        DWI_IGNORED_RESULT(GetTracer(), m_sourceCollector->Stop(), "Cannot stop source collector");
    }
    for (auto& it : m_outCollectors) {
        try {
            CutInterval(it.second);
        } catch (...) {
            qor::TraceCurrentException(GetTracer(), __func__);
        }
    }
    DWI_IGNORED_RESULT(GetTracer(), MoveCountersToStorage(), "Cannot save counters to storage");
}

void ConnectionCounters::CancelAllHarvests(std::unique_lock<std::mutex>& lock,
                                           std::string_view function) noexcept {
    try {
        std::vector<qor::RefPtr<qor::IRunnable>> harvests;
        harvests.reserve(m_outCollectors.size());
        for (const auto& it : m_outCollectors) {
            if (it.second.harvest) {
                harvests.push_back(it.second.harvest);
            }
        }
        // A running harvest needs m_mutex to finish.
        lock.unlock();
        for (const auto& harvest : harvests) {
            const qor::result_t result = m_harvestTimer->CancelAndWait(harvest.Get());
            if (!QOR_SUCCEEDED(result)) {
                QOR_TRACE(GetTracer(), kError)
                    << dwi::check::IgnoredHead{function,
                                               "m_harvestTimer->CancelAndWait(it.second.harvest)",
                                               result}
                    << " Cannot cancel timer";
            }
        }
        lock.lock();
    } catch (...) {
        qor::TraceCurrentException(GetTracer(), function);
        if (!lock.owns_lock()) {
            lock.lock();
        }
    }
}

qor::result_t ConnectionCounters::RegisterCollector(std::uint32_t id, PeriodAlignment alignment,
                                                    std::uint32_t period) noexcept {
    try {
        const auto alignmentValue = static_cast<std::uint8_t>(alignment);
        DWI_TRACE_ENTRY(GetTracer())
            << "id=" << id << ", periodAlignment=" << AlignmentWord{alignmentValue}
            << ", period=" << period;
        qor::RefPtr<qor::IRunnable> harvestRef;  // outlives the lock
        std::unique_lock lock(m_mutex);
        const bool wasEmpty = m_outCollectors.empty();
        if (wasEmpty && !m_sourceCollector) {
            DWI_CHECK_RETURN(GetTracer(), CreateSourceCollector(),
                             "Cannot create source collector");
        }

        if (const auto it = m_outCollectors.find(id); it != m_outCollectors.end()) {
            CollectorBucket& existing = it->second;
            if (existing.data.period == period && existing.data.periodAlignment == alignmentValue) {
                existing.registered = true;
                return qor::errors::kFalse;
            }
            harvestRef = existing.harvest;
            qor::IRunnable* harvest = harvestRef.Get();
            lock.unlock();
            DWI_CHECK_TRACE(GetTracer(), kError, m_harvestTimer->CancelAndWait(harvest),
                            "Cannot cancel timer for collector " << id);
            lock.lock();
            m_outCollectors.erase(id);
            DWI_TRACE_FN(GetTracer(), kDebug) << "unregister collector: " << id;
        }

        if (wasEmpty) {
            DWI_CHECK_RETURN(GetTracer(), m_sourceCollector->Start(),
                             "Cannot start source collector");
        }

        // The entry exists before its timer does, so a failed insertion cannot
        // leave a timer behind; nobody sees it before the lock is released.
        const auto [it, inserted] = m_outCollectors.try_emplace(id);
        if (!inserted) {
            // Registered by another caller while the lock was released.
            return qor::errors::kFalse;
        }
        CollectorBucket& bucket = it->second;
        bucket.data = CollectorData{id, period, alignmentValue, {}};
        bucket.registered = true;
        const qor::result_t started = StartCollectionForCollector(bucket);
        if (!QOR_SUCCEEDED(started)) {
            DWI_CHECK_RECORD(GetTracer(), kError, QOR_HERE, "StartCollectionForCollector(bucket)",
                             started)
                << "Cannot start collection for collector " << id;
            m_outCollectors.erase(it);
            return started;
        }
        DWI_TRACE_FN(GetTracer(), kDebug)
            << "register new collector: " << id
            << ", periodAlignment=" << AlignmentWord{alignmentValue} << ", period=" << period;

        if (alignment == PeriodAlignment::CollectorRegistration) {
            // The others take what was counted so far, so the new collector's
            // first interval holds only traffic after its registration.
            HarvestTimeUnsafe(id, true);
        }
        DWI_TRACE_EXIT(GetTracer());
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "RegisterCollector");
    }
}

qor::result_t ConnectionCounters::ReadCounters(std::uint32_t id,
                                               std::vector<IntervalCounters>& counters) noexcept {
    try {
        DWI_TRACE_ENTRY(GetTracer()) << "id=" << id;
        std::lock_guard lock(m_mutex);
        const auto it = m_outCollectors.find(id);
        if (it == m_outCollectors.end()) {
            return qor::errors::kNotFound;
        }
        it->second.data.readyCounters.swap(counters);
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "ReadCounters");
    }
}

qor::result_t ConnectionCounters::UnregisterCollector(std::uint32_t id) noexcept {
    try {
        DWI_TRACE_ENTRY(GetTracer()) << "id=" << id;
        qor::RefPtr<qor::IRunnable> harvestRef;  // outlives the lock
        std::unique_lock lock(m_mutex);
        const auto it = m_outCollectors.find(id);
        if (it == m_outCollectors.end()) {
            return qor::errors::kFalse;
        }
        harvestRef = it->second.harvest;
        qor::IRunnable* harvest = harvestRef.Get();
        lock.unlock();
        DWI_CHECK_TRACE(GetTracer(), kError, m_harvestTimer->CancelAndWait(harvest),
                        "Cannot cancel timer for collector " << id);
        lock.lock();
        m_outCollectors.erase(id);
        if (m_outCollectors.empty() && m_sourceCollector) {
            DWI_CHECK_RETURN(GetTracer(), m_sourceCollector->Stop(),
                             "Cannot stop source collector");
        }
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "UnregisterCollector");
    }
}

qor::result_t ConnectionCounters::CreateSourceCollector() noexcept {
    try {
        qor::IServiceLocator* sl = GetServiceLocator();
        qor::RefPtr<dwi::firewall::IIptablesInfoProvider> iptablesInfoProvider;
        DWI_CHECK_RETURN(GetTracer(), qor::GetInterface(sl, iptablesInfoProvider.Ref()),
                         "Cannot get IIptablesInfoProvider interface");
        std::uint32_t iptablesInfo = 0;
        DWI_CHECK_RETURN(GetTracer(), iptablesInfoProvider->GetIptablesInfo(&iptablesInfo),
                         "Cannot get iptables information");

        qor::RefPtr<dwi::firewall::IStartupDataProvider> startupDataProvider;
        DWI_CHECK_RETURN(GetTracer(), qor::GetInterface(sl, startupDataProvider.Ref()),
                         "Cannot get IStartupDataProvider interface");
        dwi::firewall::StartupData startupData;
        DWI_CHECK_RETURN(GetTracer(), startupDataProvider->GetStartupData(&startupData),
                         "Cannot get startup data");

        m_sourceCollector = qor::object::Create<NfLogConnectionCollector>(
            sl, GetTracer(), static_cast<std::uint8_t>(iptablesInfo & 0xFF), kNflogGroup,
            startupData.nflogBypassMark);
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "CreateSourceCollector");
    }
}

qor::result_t ConnectionCounters::StartCollectionForCollector(CollectorBucket& bucket) noexcept {
    try {
        const std::uint32_t id = bucket.data.collector;
        DWI_TRACE_ENTRY(GetTracer()) << "collector=" << id;
        bucket.harvest =
            qor::object::Create<HarvestAdapter>(this, &ConnectionCounters::HarvestTimeHandler, id);
        bucket.intervalStart = CurrentTime();
        const qor::result_t result =
            m_harvestTimer->SetRepeated(bucket.harvest.Get(), bucket.data.period);
        if (!QOR_SUCCEEDED(result)) {
            DWI_CHECK_RECORD(GetTracer(), kError, QOR_HERE,
                             "m_harvestTimer->SetRepeated(bucket.harvest, bucket.data.period)",
                             result)
                << "Cannot start timer for collector " << id;
            return result;
        }
        DWI_TRACE_EXIT(GetTracer());
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "StartCollectionForCollector");
    }
}

int ConnectionCounters::HarvestTimeHandler(std::uint32_t id) noexcept {
    try {
        DWI_TRACE_ENTRY(GetTracer());
        std::lock_guard lock(m_mutex);
        HarvestTimeUnsafe(id, false);
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "HarvestTimeHandler");
    }
}

void ConnectionCounters::HarvestTimeUnsafe(std::uint32_t collectorTrigger, bool cutMod) {
    DWI_TRACE_ENTRY(GetTracer()) << "collectorTrigger=" << collectorTrigger
                                 << ", cutMod=" << cutMod;
    if (!m_sourceCollector) {
        DWI_TRACE_EXIT(GetTracer()) << "No collector registered, leaving";
        return;
    }
    ConnectionMap snapshot;
    DWI_CHECK_TRACE(GetTracer(), kError, m_sourceCollector->TakeStats(snapshot),
                    "Cannot take statistics");
    UpdateGateways();

    for (auto& it : m_outCollectors) {
        const bool trigger = it.first == collectorTrigger;
        CollectorBucket& bucket = it.second;
        if (trigger && cutMod) {
            continue;
        }
        if (bucket.current.empty()) {
            bucket.current = snapshot;
        } else {
            for (const auto& [key, counters] : snapshot) {
                const auto [entry, inserted] = bucket.current.try_emplace(key, counters);
                if (!inserted) {
                    entry->second += counters;
                }
            }
        }
        if (trigger) {
            CutInterval(bucket);
        }
    }
    DWI_TRACE_EXIT(GetTracer());
}

void ConnectionCounters::CutInterval(CollectorBucket& bucket) {
    const std::uint64_t now = CurrentTime();
    IntervalCounters interval =
        BuildInterval(bucket.intervalStart, now, bucket.current, m_gateways);
    std::vector<IntervalCounters>& ready = bucket.data.readyCounters;
    if (ready.size() == ready.capacity()) {
        ready.reserve(std::max(kMinReadyCapacity, ready.size() * 2));
    }
    ready.push_back(std::move(interval));
    bucket.current.clear();
    bucket.intervalStart = now;
}

void ConnectionCounters::UpdateGateways() noexcept {
    try {
        std::vector<dwi::network::NetworkInterface> interfaces;
        const qor::result_t result = m_networkInventory
                                         ? m_networkInventory(interfaces)
                                         : static_cast<qor::result_t>(qor::errors::kNotImplemented);
        if (!QOR_SUCCEEDED(result)) {
            throw qor::CheckResultFailedException("Can not obtain network interfaces", QOR_HERE,
                                                  "m_networkInventory(interfaces)", result);
        }
        m_gateways = GatewaysOf(interfaces);
    } catch (...) {
        qor::TraceCurrentException(GetTracer(), "UpdateGateways");
    }
}
}  // namespace dwi::network_interceptor
