// NetworkInterceptor: the packet-interception facade.
#pragma once

#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/object.h"
#include "qor/rtl/providers.h"
#include "qor/service_locator.h"

namespace dwi::network_interceptor {

class NetworkInterceptor : public qor::object::Ifaces<INetworkInterceptor>,
                           private qor::ServiceLocatorProvider,
                           private qor::TracerProvider {
public:
    NetworkInterceptor(qor::IServiceLocator* locator, qor::ITracer* tracer);

    qor::result_t StartInterception(IPacketEventCallback* event, const firewall::Filter& filter,
                                    const char* serviceName) noexcept override;
    qor::result_t StopInterception(IPacketEventCallback* event) noexcept override;
    qor::result_t SetVerdict(IPacketEventCallback* event, const Packet& packet,
                             std::uint32_t verdict) noexcept override;
};

}  // namespace dwi::network_interceptor
