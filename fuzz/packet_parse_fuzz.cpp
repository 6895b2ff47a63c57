// Arbitrary bytes through ParsedPacket::Parse with and without required
// ports. Parse may only return its three codes or throw the size check's
// CheckFailedException, and every range and view it hands back must lie
// inside the input.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "network_traffic_interceptor/packet.h"
#include "qor/exception.h"
#include "qor/result.h"

namespace {

using dwi::network_interceptor::ByteRange;
using dwi::network_interceptor::ParsedPacket;

void Require(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

bool Inside(ByteRange inner, ByteRange outer) {
    return outer.begin <= inner.begin && inner.begin <= inner.end && inner.end == outer.end;
}

// CheckViews verifies what a Parse that returned `result` left behind.
void CheckViews(const ParsedPacket& packet, ByteRange input, qor::result_t result) {
    Require(packet.Payload().begin == input.begin && packet.Payload().end == input.end);
    const ByteRange transport = packet.Transport();
    Require(transport.IsNull() || Inside(transport, input));
    const ByteRange application = packet.ApplicationPayload();
    Require(application.IsNull() || Inside(application, transport));
    if (const auto* ipv4 = packet.Ipv4()) {
        Require(ipv4->Data() == input.begin && input.Size() >= ipv4->kSize);
    }
    if (const auto* ipv6 = packet.Ipv6()) {
        Require(ipv6->Data() == input.begin && input.Size() >= ipv6->kSize);
    }
    if (const auto* tcp = packet.Tcp()) {
        Require(tcp->Data() == transport.begin && transport.Size() >= tcp->kSize);
    }
    if (const auto* udp = packet.Udp()) {
        Require(udp->Data() == transport.begin && transport.Size() >= udp->kSize);
    }
    if (result != qor::errors::kOk) {
        Require(packet.Source().version == 0 && packet.Destination().version == 0);
        return;
    }
    const std::uint8_t version = packet.Ipv4() ? 4 : 6;
    Require((packet.Ipv4() == nullptr) != (packet.Ipv6() == nullptr));
    Require(packet.Source().version == version && packet.Destination().version == version);
    if (version == 4) {
        Require(packet.Source().address >> 32 == 0 && packet.Destination().address >> 32 == 0);
    }
    const bool hasPorts = packet.Tcp() != nullptr || packet.Udp() != nullptr;
    Require(hasPorts || (packet.Source().port == 0 && packet.Destination().port == 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteRange input{data, data + size};
    for (bool requirePorts : {false, true}) {
        ParsedPacket packet;
        qor::result_t result = qor::errors::kOk;
        try {
            result = packet.Parse(input, requirePorts);
        } catch (const qor::CheckFailedException& e) {
            constexpr std::string_view kPrefix = ": payload size is to small: expected ";
            Require(e.Message().compare(0, kPrefix.size(), kPrefix) == 0);
            continue;
        }
        Require(result == qor::errors::kOk || result == qor::errors::kFalse ||
                result == qor::errors::kInvalidArgument);
        CheckViews(packet, input, result);
    }
    return 0;
}
