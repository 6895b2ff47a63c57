#include "network_traffic_interceptor/src/connection_counters.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "dwi/nflog/nflog.h"
#include "dwi_common/blob_tools.h"
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

constexpr const char* kStorageKey = "Collectors";
// The statistics rules log to this group; fixed by design.
constexpr std::uint16_t kNflogGroup = 10000;
// 100-ns ticks between 1601-01-01 and 1970-01-01.
constexpr std::uint64_t kEpochDifference = 116444736000000000ULL;
constexpr std::uint64_t kTicksPerSecond = 10000000ULL;
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

ip_t ToIp(const IpAddress& address) noexcept {
    ip_t ip;
    ip.family = address.version;
    if (address.version == 4) {
        std::memcpy(ip.v4.bytes.data(), address.bytes.data(), ip.v4.bytes.size());
    } else {
        std::memcpy(ip.v6.bytes.data(), address.bytes.data(), ip.v6.bytes.size());
    }
    return ip;
}

ip_t ToIp(const dwi::network::Gateway& gateway) noexcept {
    ip_t ip;
    ip.family = gateway.family;
    if (gateway.family == 4) {
        std::memcpy(ip.v4.bytes.data(), gateway.address.data(), ip.v4.bytes.size());
    } else {
        std::memcpy(ip.v6.bytes.data(), gateway.address.data(), ip.v6.bytes.size());
    }
    return ip;
}

std::optional<qor::mac48_address_t> ToMac(const std::optional<Mac48>& mac) noexcept {
    if (!mac) {
        return std::nullopt;
    }
    return qor::mac48_address_t{*mac};
}

std::optional<ip_t> ToOptionalIp(const std::optional<IpAddress>& address) noexcept {
    if (!address) {
        return std::nullopt;
    }
    return ToIp(*address);
}

std::uint8_t KeyFamily(const ConnectionKey& key) noexcept {
    if (key.localIp) {
        return key.localIp->version;
    }
    return key.remoteIp ? key.remoteIp->version : 0;
}

}  // namespace

std::uint64_t CurrentTime() {
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        throw qor::SystemException("Cannot get system time", QOR_HERE, errno);
    }
    return static_cast<std::uint64_t>(now.tv_sec) * kTicksPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec) / 100 + kEpochDifference;
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
            qor::CurrentExceptionToResult(GetTracer(), __func__);
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
        qor::CurrentExceptionToResult(GetTracer(), function);
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
    IntervalCounters interval;
    interval.begin = bucket.intervalStart;
    interval.end = now;
    interval.counters.reserve(bucket.current.size());
    for (const auto& [key, traffic] : bucket.current) {
        ConnectionCounter& counter = interval.counters.emplace_back();
        counter.localMac = ToMac(key.localMac);
        counter.localIp = ToOptionalIp(key.localIp);
        counter.localPort = key.localPort;
        counter.remoteMac = ToMac(key.remoteMac);
        counter.remoteIp = ToOptionalIp(key.remoteIp);
        counter.remotePort = key.remotePort;
        counter.bytesSent = traffic.bytesOut;
        counter.packetsSent = traffic.packetsOut;
        counter.bytesReceived = traffic.bytesIn;
        counter.packetsReceived = traffic.packetsIn;
        counter.etherType = key.etherType.value_or(0);
        counter.ipProtocol = key.ipProto;
        if (const auto gateways = m_gateways.find(key.ifindex); gateways != m_gateways.end()) {
            const std::optional<GatewayAddress>& gateway =
                KeyFamily(key) == 4 ? gateways->second.ipv4 : gateways->second.ipv6;
            if (gateway) {
                counter.gatewayIp = gateway->address;
                counter.gatewayMac = gateway->mac;
            }
        }
    }

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
        std::unordered_map<std::uint32_t, InterfaceGateways> gateways;
        gateways.max_load_factor(1.0f);
        for (const auto& networkInterface : interfaces) {
            if (!networkInterface.ipv4Gateway && !networkInterface.ipv6Gateway) {
                continue;
            }
            InterfaceGateways& entry = gateways[networkInterface.index];
            if (const auto& gateway = networkInterface.ipv4Gateway) {
                entry.ipv4 = GatewayAddress{ToIp(*gateway), ToMac(gateway->mac)};
            }
            if (const auto& gateway = networkInterface.ipv6Gateway) {
                entry.ipv6 = GatewayAddress{ToIp(*gateway), ToMac(gateway->mac)};
            }
        }
        m_gateways.swap(gateways);
    } catch (...) {
        qor::CurrentExceptionToResult(GetTracer(), "UpdateGateways");
    }
}

qor::result_t ConnectionCounters::MoveCountersToStorage() noexcept {
    try {
        DWI_TRACE_ENTRY(GetTracer()) << "m_outCollectors.size=" << m_outCollectors.size();
        const char* storageKey = kStorageKey;
        Collectors collectors;
        for (auto& [id, value] : m_outCollectors) {
            DWI_TRACE_FN(GetTracer(), kInfo)
                << "id=" << id
                << ", value.data.readyCounters.size()=" << value.data.readyCounters.size()
                << ", value.registered=" << value.registered;
            if (!value.registered) {
                continue;
            }
            CollectorData& data = collectors.collectors.emplace_back();
            data.collector = value.data.collector;
            data.period = value.data.period;
            data.periodAlignment = value.data.periodAlignment;
            data.readyCounters = std::exchange(value.data.readyCounters, {});
        }

        if (collectors.collectors.empty()) {
            DWI_TRACE_FN(GetTracer(), kInfo) << "There's no any statistic for saving";
            DWI_CHECK_RETURN(GetTracer(), m_storage->DeleteValue(storageKey),
                             "Cannot delete saved statistics");
            return qor::errors::kFalse;
        }

        const qor::meta::TypeDescriptor* type = nullptr;
        DWI_CHECK_RETURN(
            GetTracer(),
            m_metaInfoProvider->GetTypeInfo(connection_counters_data::kCollectorsTypeId, &type),
            "Cannot get metadata of Collectors");
        const qor::AnyRef any{&collectors, type};
        qor::IServiceLocator* sl = GetServiceLocator();
        qor::ByteVector dataBlob;
        DWI_CHECK_RETURN(GetTracer(), tools::AnyToBlob(sl, any, dataBlob), "Cannot serialize");
        DWI_CHECK_RETURN(GetTracer(), m_storage->DeleteValue(storageKey),
                         "Cannot delete saved statistics");
        DWI_CHECK_RETURN(GetTracer(), m_storage->SetValue(storageKey, dataBlob),
                         "Cannot save statistics");
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "MoveCountersToStorage");
    }
}

qor::result_t ConnectionCounters::LoadCountersFromStorage() noexcept {
    try {
        DWI_TRACE_ENTRY(GetTracer());
        const char* storageKey = kStorageKey;
        qor::ByteVector dataBlob;
        const qor::result_t result = m_storage->GetValue(storageKey, dataBlob);
        if (result == qor::errors::kNotFound || (QOR_SUCCEEDED(result) && dataBlob.empty())) {
            DWI_TRACE_FN(GetTracer(), kInfo) << "There's no any saved statistics";
            return qor::errors::kFalse;
        }
        if (!QOR_SUCCEEDED(result)) {
            DWI_TRACE_FN(GetTracer(), kError)
                << "Failed to load statistic from storage: " << qor::trace::Result{result};
            return result;
        }

        const qor::meta::TypeDescriptor* type = nullptr;
        DWI_CHECK_RETURN(
            GetTracer(),
            m_metaInfoProvider->GetTypeInfo(connection_counters_data::kCollectorsTypeId, &type),
            "Cannot get metadata of Collectors");
        Collectors collectors;
        const qor::AnyRef any{&collectors, type};
        qor::IServiceLocator* sl = GetServiceLocator();
        DWI_CHECK_RETURN(GetTracer(), tools::AnyFromBlob(sl, dataBlob, any), "Cannot serialize");

        m_outCollectors.reserve(m_outCollectors.size() + collectors.collectors.size());
        for (CollectorData& value : collectors.collectors) {
            const auto [it, inserted] = m_outCollectors.try_emplace(value.collector);
            CollectorBucket& bucket = it->second;
            if (inserted) {
                bucket.data = std::move(value);
                bucket.registered = false;
            }
            DWI_TRACE_FN(GetTracer(), kInfo)
                << "value.collector=" << bucket.data.collector
                << ", bucket.data.readyCounters.size()=" << bucket.data.readyCounters.size();
        }
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "LoadCountersFromStorage");
    }
}

}  // namespace dwi::network_interceptor
