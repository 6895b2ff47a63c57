#include "network_traffic_interceptor/src/object_factory.h"

#include "network_traffic_interceptor/network_interceptor.h"
#include "network_traffic_interceptor/src/connection_counters.h"
#include "network_traffic_interceptor/src/meta_registry.h"
#include "network_traffic_interceptor/src/network_interceptor.h"
#include "qor/exception.h"

namespace dwi::network_interceptor {
namespace {

// AsObject hands out the object's IObject identity (its first interface).
template <class T>
qor::RefPtr<qor::IObject> AsObject(qor::RefPtr<T> object) {
    qor::RefPtr<qor::IObject> identity;
    const qor::result_t result = object->QueryInterface(qor::IObject::IID, identity.RefVoid());
    if (!QOR_SUCCEEDED(result)) {
        throw qor::ResultCodeException("Object has no identity", QOR_HERE, result);
    }
    return identity;
}

qor::RefPtr<qor::IObject> CreateNetworkInterceptor(qor::IServiceLocator* locator,
                                                   qor::ITracer* tracer) {
    return AsObject(qor::object::Create<NetworkInterceptor>(locator, tracer));
}

qor::RefPtr<qor::IObject> CreateConnectionCounters(qor::IServiceLocator* locator,
                                                   qor::ITracer* tracer) {
    return AsObject(qor::object::Create<ConnectionCounters>(locator, tracer));
}

}  // namespace

CreateFn FindClass(std::uint32_t clsid) noexcept {
    switch (clsid) {
        case kNetworkInterceptorClassId:
            return &CreateNetworkInterceptor;
        case kConnectionCountersClassId:
            return &CreateConnectionCounters;
        default:
            return nullptr;
    }
}

qor::RefPtr<qor::IObject> CreateMetaRegistryFactory() {
    return AsObject(qor::object::Create<MetaRegistryFactory>());
}

}  // namespace dwi::network_interceptor
