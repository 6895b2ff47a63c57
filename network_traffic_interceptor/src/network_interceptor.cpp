#include "network_traffic_interceptor/src/network_interceptor.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "qor/exception.h"
#include "qor/rtl/objclient.h"

namespace dwi::network_interceptor {
namespace {

namespace level = qor::trace_level;

// The event's address is the interception's key.
std::uint64_t KeyOf(const IPacketEventCallback* event) noexcept {
    return reinterpret_cast<std::uintptr_t>(event);
}

class ReadLock {
public:
    explicit ReadLock(pthread_rwlock_t& lock) : m_lock(lock) {
        int error = 0;
        while ((error = pthread_rwlock_rdlock(&m_lock)) == EAGAIN) {
        }
        if (error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }
    ~ReadLock() { pthread_rwlock_unlock(&m_lock); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};

class WriteLock {
public:
    explicit WriteLock(pthread_rwlock_t& lock) : m_lock(lock) {
        if (const int error = pthread_rwlock_wrlock(&m_lock); error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }
    ~WriteLock() { pthread_rwlock_unlock(&m_lock); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};

}  // namespace

NetworkInterceptor::NetworkInterceptor(qor::IServiceLocator* locator, qor::ITracer* tracer)
    : ServiceLocatorProvider(locator),
      TracerProvider(qor::trace::CreatePrefixTracer(tracer, "NetworkInterceptor")) {
    DWI_TRACE_ENTRY(GetTracer());
    pthread_rwlock_init(&m_lock, nullptr);
}

NetworkInterceptor::~NetworkInterceptor() {
    DWI_TRACE_ENTRY(GetTracer());
    try {
        {
            WriteLock lock(m_lock);
            for (auto& [key, interceptor] : m_interceptors) {
                DWI_IGNORED_RESULT(GetTracer(), interceptor->Stop(), "Cannot stop interceptor");
            }
        }
        m_interceptors.clear();
    } catch (...) {
        qor::TraceCurrentException(GetTracer(), "~NetworkInterceptor");
    }
    pthread_rwlock_destroy(&m_lock);
    ReleaseTracer();
    ReleaseServiceLocator();
}

qor::RefPtr<NfQueueInterceptor> NetworkInterceptor::CreateInterceptor(
    qor::RefPtr<dwi::firewall::IDynamicRules> firewall) {
    return qor::object::Create<NfQueueInterceptor>(GetServiceLocator(), GetTracer(),
                                                   std::move(firewall));
}

qor::result_t NetworkInterceptor::StartInterception(IPacketEventCallback* event,
                                                    const firewall::Filter& filter,
                                                    const char* serviceName) noexcept {
    DWI_TRACE_ENTRY(GetTracer());
    try {
        auto firewall =
            qor::GetMandatoryInterface<dwi::firewall::IDynamicRules>(GetServiceLocator());
        qor::RefPtr<NfQueueInterceptor> interceptor = CreateInterceptor(std::move(firewall));
        const qor::result_t _result = interceptor->Start(filter, event, serviceName);
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_AT(44),
                             "interceptor->Start(filter, event, serviceName)", _result)
                << "Cannot start interceptor for " << serviceName;
            return _result;
        }
        {
            WriteLock lock(m_lock);
            // An interceptor registered already for this event stays; the new
            // one goes when `interceptor` does, outside the lock.
            m_interceptors.try_emplace(KeyOf(event), std::move(interceptor));
        }
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "StartInterception");
    }
}

qor::result_t NetworkInterceptor::StopInterception(IPacketEventCallback* event) noexcept {
    DWI_TRACE_ENTRY(GetTracer());
    try {
        const std::uint64_t key = KeyOf(event);
        WriteLock lock(m_lock);
        const auto it = m_interceptors.find(key);
        if (it == m_interceptors.end()) {
            DWI_BOOL_RECORD(GetTracer(), level::kError, QOR_AT(65), "it != m_interceptors.end()")
                << "Cannot find " << qor::trace::Hex0x{key};
            return qor::errors::kNotFound;
        }
        const qor::RefPtr<NfQueueInterceptor>& interceptor = it->second;
        const qor::result_t _result = interceptor->Stop();
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_AT(68), "interceptor->Stop()", _result)
                << "Cannot stop interceptor";
            return _result;
        }
        m_interceptors.erase(it);
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "StopInterception");
    }
}

qor::result_t NetworkInterceptor::SetVerdict(IPacketEventCallback* event, const Packet& packet,
                                             std::uint32_t verdict) noexcept {
    DWI_TRACE_ENTRY(GetTracer());
    try {
        const std::uint64_t key = KeyOf(event);
        ReadLock lock(m_lock);
        const auto it = m_interceptors.find(key);
        if (it == m_interceptors.end()) {
            DWI_BOOL_RECORD(GetTracer(), level::kError, QOR_AT(82), "it != m_interceptors.end()")
                << "Cannot find " << qor::trace::Hex0x{key};
            return qor::errors::kNotFound;
        }
        const qor::result_t _result = it->second->SetVerdict(packet, verdict);
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_AT(84),
                             "it->second->SetVerdict(packet, verdict)", _result)
                << "Cannot set verdict";
            return _result;
        }
        return qor::errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "SetVerdict");
    }
}

}  // namespace dwi::network_interceptor
