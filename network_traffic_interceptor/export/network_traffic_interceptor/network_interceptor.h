// The packet-interception facade and the consumer's callback.
#pragma once

#include <cstdint>

#include "dwi/firewall/rules.h"
#include "network_traffic_interceptor/verdict.h"
#include "qor/object.h"

namespace dwi::network_interceptor {

// Class identifiers for qorCreateObject / qorGetObjectFactory.
inline constexpr std::uint32_t kNetworkInterceptorClassId = 0xF6574815;
inline constexpr std::uint32_t kConnectionCountersClassId = 0x036CEBA8;
inline constexpr std::uint32_t kMetaRegistryFactoryClassId = 0x436294FA;
// Reserved: terminates the process when asked for.
inline constexpr std::uint32_t kCrashClassId = 0xBAD1BAD1;

// IPacketEventCallback receives the queued packets of one interception.
// OnPacketReceived runs on the interceptor's poll thread ("zoltNfQPoll"), one
// packet at a time; `verdict` comes preset to ALLOW. Leaving LATER obliges the
// consumer to call INetworkInterceptor::SetVerdict for the packet afterwards.
struct IPacketEventCallback : qor::IObject {
    static constexpr qor::iid_t IID = 0x7A3C51E2;

    [[nodiscard]] virtual qor::result_t OnPacketReceived(Packet& packet,
                                                         Verdict& verdict) noexcept = 0;

protected:
    ~IPacketEventCallback() = default;
};

// INetworkInterceptor starts and stops interceptions, one per event callback.
struct INetworkInterceptor : qor::IObject {
    static constexpr qor::iid_t IID = 0x42EA2277;

    // StartInterception queues the traffic that `filter` selects to `event`.
    // `serviceName` tags the firewall rules. The event's address is the key of
    // the interception.
    [[nodiscard]] virtual qor::result_t StartInterception(IPacketEventCallback* event,
                                                          const firewall::Filter& filter,
                                                          const char* serviceName) noexcept = 0;
    // StopInterception stops the interception of `event` and removes its rules.
    [[nodiscard]] virtual qor::result_t StopInterception(IPacketEventCallback* event) noexcept = 0;
    // SetVerdict gives the final verdict for a packet first answered LATER.
    // May be called from any thread.
    [[nodiscard]] virtual qor::result_t SetVerdict(IPacketEventCallback* event,
                                                   const Packet& packet,
                                                   std::uint32_t verdict) noexcept = 0;

protected:
    ~INetworkInterceptor() = default;
};

}  // namespace dwi::network_interceptor
