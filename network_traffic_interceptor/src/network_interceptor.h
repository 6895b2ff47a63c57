// NetworkInterceptor: the packet-interception facade. One NfQueueInterceptor
// per consumer, keyed by the address of the consumer's event callback.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>

#include "dwi/firewall/services.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"
#include "qor/object.h"
#include "qor/rtl/providers.h"
#include "qor/service_locator.h"

namespace dwi::network_interceptor {

class NetworkInterceptor : public qor::object::Ifaces<INetworkInterceptor>,
                           private qor::ServiceLocatorProvider,
                           private qor::TracerProvider {
public:
    NetworkInterceptor(qor::IServiceLocator* locator, qor::ITracer* tracer);
    // Stops every interceptor still registered.
    ~NetworkInterceptor() override;

    [[nodiscard]] qor::result_t StartInterception(IPacketEventCallback* event,
                                                  const firewall::Filter& filter,
                                                  const char* serviceName) noexcept override;
    [[nodiscard]] qor::result_t StopInterception(IPacketEventCallback* event) noexcept override;
    [[nodiscard]] qor::result_t SetVerdict(IPacketEventCallback* event, const Packet& packet,
                                           std::uint32_t verdict) noexcept override;

protected:
    // CreateInterceptor makes the interceptor of one interception.
    virtual qor::RefPtr<NfQueueInterceptor> CreateInterceptor(
        qor::RefPtr<dwi::firewall::IDynamicRules> firewall);

private:
    pthread_rwlock_t m_lock;
    std::map<std::uint64_t, qor::RefPtr<NfQueueInterceptor>> m_interceptors;
};

}  // namespace dwi::network_interceptor
