// The host's service locator and the creation context handed to modules.
#pragma once

#include <cstdint>

#include "qor/object.h"

namespace qor {

// IServiceLocator is the host object through which modules reach host
// services. Slot 3 is GetInterface.
struct IServiceLocator : IObject {
    static constexpr iid_t IID = 0x1C0A7E55;

    // GetInterface stores a new reference to the service `iid` registered under
    // `serviceKey` (modules pass 0) in `*out`. Returns 0x80000001 when the host
    // has no such service; `*out` is untouched then.
    [[nodiscard]] virtual result_t GetInterface(iid_t iid, std::uint32_t serviceKey,
                                                void** out) noexcept = 0;

protected:
    ~IServiceLocator() = default;
};

// IThrowingServiceLocator is the optional second locator of a creation
// context: slot 3 returns the service (with a new reference) directly and
// throws the framework's GetInterfaceException when it is missing.
struct IThrowingServiceLocator : IObject {
    static constexpr iid_t IID = 0x1C0A7E56;

    virtual IObject* GetInterface(iid_t iid, std::uint32_t serviceKey) = 0;

protected:
    ~IThrowingServiceLocator() = default;
};

// CreationContext accompanies every creation request.
struct CreationContext {
    IServiceLocator* locator = nullptr;
    IThrowingServiceLocator* throwingLocator = nullptr;  // optional
};

}  // namespace qor

// The module's three exports.
extern "C" {
// qorCreateObject creates an instance of class `clsid` and stores an owning
// reference in `*out`. Returns 0x80000100 for an unknown class. Never throws.
[[nodiscard]] qor::result_t qorCreateObject(std::uint32_t clsid,
                                            const qor::CreationContext* context,
                                            qor::IObject** out);
// qorGetObjectFactory stores the factory of class `clsid` in `*out`, or null
// with 0x80000043 for a class without one.
[[nodiscard]] qor::result_t qorGetObjectFactory(qor::IServiceLocator* locator, std::uint32_t clsid,
                                                qor::IObject** out);
// qorCanUnloadModule returns 0 when no object of the module lives, else 1.
[[nodiscard]] qor::result_t qorCanUnloadModule();
}

namespace qor {
using CreateObjectFn = decltype(&::qorCreateObject);
using GetObjectFactoryFn = decltype(&::qorGetObjectFactory);
using CanUnloadModuleFn = decltype(&::qorCanUnloadModule);
}  // namespace qor
