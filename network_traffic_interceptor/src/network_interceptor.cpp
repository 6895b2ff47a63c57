#include "network_traffic_interceptor/src/network_interceptor.h"

#include "dwi_tracing/tracing.h"

namespace dwi::network_interceptor {

NetworkInterceptor::NetworkInterceptor(qor::IServiceLocator* locator, qor::ITracer* tracer)
    : ServiceLocatorProvider(locator),
      TracerProvider(qor::trace::CreatePrefixTracer(tracer, "NetworkInterceptor")) {
    DWI_TRACE_ENTRY(GetTracer());
}

qor::result_t NetworkInterceptor::StartInterception(IPacketEventCallback*, const firewall::Filter&,
                                                    const char*) noexcept {
    return qor::errors::kNotImplemented;
}

qor::result_t NetworkInterceptor::StopInterception(IPacketEventCallback*) noexcept {
    return qor::errors::kNotImplemented;
}

qor::result_t NetworkInterceptor::SetVerdict(IPacketEventCallback*, const Packet&,
                                             std::uint32_t) noexcept {
    return qor::errors::kNotImplemented;
}

}  // namespace dwi::network_interceptor
