// Persistence of the statistics service: unread intervals of registered
// collectors go to the key-value storage at the end and come back at the start.
#include <utility>

#include "dwi_common/blob_tools.h"
#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "network_traffic_interceptor/src/connection_counters.h"
#include "qor/exception.h"
#include "qor/rtl/objclient.h"

namespace dwi::network_interceptor {

using connection_counters_data::CollectorData;
using connection_counters_data::Collectors;
using qor::trace_level::kError;
using qor::trace_level::kInfo;

namespace {

constexpr const char* kStorageKey = "Collectors";

}  // namespace

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
