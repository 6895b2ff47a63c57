// Client helpers for reaching host services through the service locator.
#pragma once

#include <cstdint>

#include "qor/exception.h"
#include "qor/object.h"
#include "qor/service_locator.h"

namespace qor {

// GetInterface asks `sl` for service T (key 0) into `out`. Returns the
// locator's code; 0x80000046 for a null locator. Use where a missing service
// is a handled condition.
template <class T>
[[nodiscard]] result_t GetInterface(IServiceLocator* sl, T** out,
                                    std::uint32_t serviceKey = 0) noexcept {
    if (sl == nullptr || out == nullptr) {
        return errors::kInvalidArgument;
    }
    return sl->GetInterface(T::IID, serviceKey, reinterpret_cast<void**>(out));
}

// The location that GetInterfaceException reports for this header.
inline constexpr std::uint32_t kObjclientThrowLine = 103;

// GetMandatoryInterface returns service T or throws GetInterfaceException
// ("Can't get interface") carrying the identifier, the key and the code that
// GetInterface returned. Use for services an object cannot work without.
template <class T>
RefPtr<T> GetMandatoryInterface(IServiceLocator* sl, std::uint32_t serviceKey = 0) {
    RefPtr<T> service;
    const result_t result = GetInterface(sl, service.Ref(), serviceKey);
    if (!QOR_SUCCEEDED(result) || !service) {
        throw GetInterfaceException(QOR_AT(kObjclientThrowLine), T::IID, serviceKey,
                                    QOR_SUCCEEDED(result) ? errors::kNoInterface : result);
    }
    return service;
}

// GetMandatoryInterface through a creation context: the throwing locator when
// the host gave one, else the plain locator.
template <class T>
RefPtr<T> GetMandatoryInterface(const CreationContext& context, std::uint32_t serviceKey = 0) {
    if (context.throwingLocator != nullptr) {
        return RefPtr<T>::Adopt(
            static_cast<T*>(context.throwingLocator->GetInterface(T::IID, serviceKey)));
    }
    return GetMandatoryInterface<T>(context.locator, serviceKey);
}

}  // namespace qor
