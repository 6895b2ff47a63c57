// Packets handed to interception consumers and the verdicts they give back.
#pragma once

#include <cstdint>

namespace dwi::network_interceptor {

// Verdict on one queued packet.
enum class Verdict : std::uint32_t {
    ALLOW = 0,   // accept the packet
    DROP = 1,    // drop it
    REPEAT = 2,  // re-inject it at the start of the hook
    LATER = 3,   // decide later through INetworkInterceptor::SetVerdict
};

// VerdictName is the name traces and tools print for a verdict value;
// "unreachable" for a value outside the enumeration.
constexpr const char* VerdictName(std::uint32_t verdict) noexcept {
    switch (static_cast<Verdict>(verdict)) {
        case Verdict::ALLOW:
            return "ALLOW";
        case Verdict::DROP:
            return "DROP";
        case Verdict::REPEAT:
            return "REPEAT";
        case Verdict::LATER:
            return "LATER";
    }
    return "unreachable";
}

// Packet is one queued packet. The payload points into the receive buffer and
// is valid only during OnPacketReceived; copy it to decide LATER.
struct Packet {
    std::uint32_t id = 0;                  // packet id, host order
    std::uint32_t queue = 0;               // 0 unknown, 1 input queue, 2 output queue
    std::uint32_t indev = 0;               // input interface index, 0 when none
    std::uint32_t outdev = 0;              // output interface index, 0 when none
    bool payloadChanged = false;           // set to send the payload and mark back with the verdict
    std::uint32_t mark = 0;                // packet mark, host order
    std::uint8_t* payloadBegin = nullptr;  // the network-layer packet
    std::uint8_t* payloadEnd = nullptr;
};

}  // namespace dwi::network_interceptor
