#include "host/services/service_locator.h"

#include <mutex>

#include "qor/exception.h"

namespace nti::host {

qor::result_t ServiceLocator::GetInterface(qor::iid_t iid, std::uint32_t serviceKey,
                                           void** out) noexcept {
    if (out == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    qor::RefPtr<qor::IObject> service;
    {
        std::shared_lock lock(m_mutex);
        const auto it = m_services.find({iid, serviceKey});
        if (it == m_services.end()) {
            return qor::errors::kNoInterface;
        }
        service = it->second;
    }
    return service->QueryInterface(iid, out);
}

qor::result_t ServiceLocator::Register(qor::iid_t iid, qor::IObject* service,
                                       std::uint32_t serviceKey) {
    if (service == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    qor::RefPtr<qor::IObject> probe;
    const qor::result_t offered = service->QueryInterface(iid, probe.RefVoid());
    if (!QOR_SUCCEEDED(offered)) {
        return offered;
    }
    qor::RefPtr<qor::IObject> old;
    std::unique_lock lock(m_mutex);
    auto& slot = m_services[{iid, serviceKey}];
    old = std::move(slot);  // released outside the lock
    slot = qor::RefPtr<qor::IObject>(service);
    lock.unlock();
    return qor::errors::kOk;
}

void ServiceLocator::Add(qor::iid_t iid, qor::IObject* service, std::uint32_t serviceKey) {
    if (const qor::result_t r = Register(iid, service, serviceKey); !QOR_SUCCEEDED(r)) {
        throw qor::ResultCodeException("Cannot register a host service", QOR_HERE, r);
    }
}

qor::result_t ServiceLocator::Unregister(qor::iid_t iid, std::uint32_t serviceKey) {
    qor::RefPtr<qor::IObject> old;
    std::unique_lock lock(m_mutex);
    const auto it = m_services.find({iid, serviceKey});
    if (it == m_services.end()) {
        return qor::errors::kNotFound;
    }
    old = std::move(it->second);
    m_services.erase(it);
    lock.unlock();
    return qor::errors::kOk;
}

void ServiceLocator::Clear() {
    decltype(m_services) old;
    {
        std::unique_lock lock(m_mutex);
        old.swap(m_services);
    }
}

}  // namespace nti::host
