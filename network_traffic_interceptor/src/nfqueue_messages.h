// The NFQUEUE netlink messages the interceptor sends (configuration and
// verdicts) and reads (queued packets).
#pragma once

// The C library's definitions first: the kernel headers then leave theirs out.
#include <netinet/in.h>

#include <linux/netfilter.h>

#include <cstddef>
#include <cstdint>

#include "network_traffic_interceptor/network_interceptor.h"

struct nlmsghdr;
struct nlattr;

namespace dwi::network_interceptor {

// Room for one configuration message.
inline constexpr std::size_t kConfigBufferSize = 256;
// Room for one verdict: the largest payload plus the headers.
inline constexpr std::size_t kMaxVerdictPayload = 0xFFFF;
inline constexpr std::size_t kVerdictBufferSize = kMaxVerdictPayload + 256;
// Room for one verdict without payload.
inline constexpr std::size_t kShortVerdictBufferSize = 64;

// Configuration builders. Each writes one NFQNL_MSG_CONFIG request (with
// NLM_F_ACK) into `buffer` (at least kConfigBufferSize bytes, aligned for
// nlmsghdr) and returns its header.
//
// BuildCfgPfRequest: a per-family command (NFQNL_CFG_CMD_PF_BIND/UNBIND)
// for family `pf`; res_id 0.
nlmsghdr* BuildCfgPfRequest(char* buffer, std::uint8_t command, std::uint16_t pf);
// BuildCfgRequest: `command` for queue `queueNumber`, family AF_INET.
nlmsghdr* BuildCfgRequest(char* buffer, std::uint8_t command, std::uint16_t queueNumber);
// BuildCfgParams: copy `mode` with `range` bytes.
nlmsghdr* BuildCfgParams(char* buffer, std::uint8_t mode, std::uint32_t range,
                         std::uint16_t queueNumber);
// BuildCfgFlagsGSO: mask and flags NFQA_CFG_F_GSO.
nlmsghdr* BuildCfgFlagsGSO(char* buffer, std::uint16_t queueNumber);
// BuildCfgQueueMaxLen: queue length 65535.
nlmsghdr* BuildCfgQueueMaxLen(char* buffer, std::uint16_t queueNumber);

// BuildVerdictMessage writes an NFQNL_MSG_VERDICT for `packetId` with the
// netfilter verdict `nfVerdict`. With a packet record, its mark goes along
// when not 0 and its payload when `payloadChanged` is set. `buffer` holds
// `size` bytes; returns null when the message does not fit.
nlmsghdr* BuildVerdictMessage(char* buffer, std::size_t size, std::uint16_t queueNumber,
                              std::uint32_t packetId, std::uint32_t nfVerdict,
                              const Packet* packet) noexcept;

// NetfilterVerdict maps a Verdict value to the netfilter verdict sent for it
// (NF_ACCEPT for values without one).
constexpr std::uint32_t NetfilterVerdict(std::uint32_t verdict) noexcept {
    switch (static_cast<Verdict>(verdict)) {
        case Verdict::ALLOW:
            return NF_ACCEPT;
        case Verdict::DROP:
            return NF_DROP;
        case Verdict::REPEAT:
            return NF_REPEAT;
        default:
            return NF_ACCEPT;
    }
}

// ReadQueuedPacket fills `packet` (id, devices, mark, payload) from an
// NFQNL_MSG_PACKET message and its attribute table; false for other messages
// and packets without payload. The payload stays in the message's buffer.
bool ReadQueuedPacket(const nlmsghdr* nlh, const nlattr** table, Packet& packet) noexcept;

}  // namespace dwi::network_interceptor
