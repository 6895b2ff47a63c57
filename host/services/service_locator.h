// ServiceLocator: the host's registry of services, handed to every creation.
#pragma once

#include <cstdint>
#include <map>
#include <shared_mutex>
#include <utility>

#include "qor/object.h"
#include "qor/service_locator.h"

namespace nti::host {

class ServiceLocator : public qor::object::Ifaces<qor::IServiceLocator> {
public:
    // GetInterface answers services registered under (iid, key) with a new
    // reference; 0x80000001 when none is.
    [[nodiscard]] qor::result_t GetInterface(qor::iid_t iid, std::uint32_t serviceKey,
                                             void** out) noexcept override;

    // Register makes `service` (which must offer `iid`) answer for (iid, key);
    // replaces an earlier registration.
    [[nodiscard]] qor::result_t Register(qor::iid_t iid, qor::IObject* service,
                                         std::uint32_t serviceKey = 0);
    template <class T>
    [[nodiscard]] qor::result_t Register(T* service, std::uint32_t serviceKey = 0) {
        return Register(T::IID, service, serviceKey);
    }
    // Add is Register for set-up code, where a service that does not offer its
    // interface is a programming error: it throws ResultCodeException then.
    void Add(qor::iid_t iid, qor::IObject* service, std::uint32_t serviceKey = 0);
    template <class T>
    void Add(T* service, std::uint32_t serviceKey = 0) {
        Add(T::IID, service, serviceKey);
    }
    // Unregister removes one registration; 0x8000004C when there was none.
    [[nodiscard]] qor::result_t Unregister(qor::iid_t iid, std::uint32_t serviceKey = 0);
    // Clear drops every registration (breaks cycles at shutdown).
    void Clear();

private:
    mutable std::shared_mutex m_mutex;
    std::map<std::pair<qor::iid_t, std::uint32_t>, qor::RefPtr<qor::IObject>> m_services;
};

}  // namespace nti::host
