// Arbitrary bytes as one received NFQUEUE buffer through MnlParser with the
// NFQUEUE checks, read the way the packet handler reads a message.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "dwi_common/mnl_parser.h"
#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace {

// SinkTracer accepts every level, so the traces and the hex dump run too,
// and drops the records.
class SinkTracer : public qor::object::Ifaces<qor::ITracer> {
public:
    [[nodiscard]] qor::result_t BeginRecord(std::uint32_t, std::uint32_t*,
                                            qor::TraceBuffer*) noexcept override {
        return 0;
    }
    [[nodiscard]] qor::result_t CommitRecord(qor::TraceBuffer*, std::uint32_t) noexcept override {
        return 0;
    }
    std::uint32_t GetMaxLevel() noexcept override { return 1000; }
};

std::uint32_t U32(const nlattr* attr) {
    return attr != nullptr ? ntohl(mnl_attr_get_u32(attr)) : 0;
}

int OnPacket(const nlmsghdr*, const nlattr** table) {
    // NFQA_PACKET_HDR has no checker entry: its length is ours to check.
    std::uint32_t id = 0;
    if (const nlattr* hdr = table[NFQA_PACKET_HDR];
        hdr != nullptr && mnl_attr_get_payload_len(hdr) >= sizeof(id)) {
        std::memcpy(&id, mnl_attr_get_payload(hdr), sizeof(id));
    }
    std::uint32_t sum = ntohl(id) + U32(table[NFQA_IFINDEX_INDEV]) +
                        U32(table[NFQA_IFINDEX_OUTDEV]) + U32(table[NFQA_MARK]);
    if (const nlattr* payload = table[NFQA_PAYLOAD]; payload != nullptr) {
        const auto* bytes = static_cast<const std::uint8_t*>(mnl_attr_get_payload(payload));
        for (std::uint16_t i = 0; i < mnl_attr_get_payload_len(payload); ++i) {
            sum += bytes[i];
        }
    }
    return sum == 0xFFFFFFFF ? MNL_CB_STOP : MNL_CB_OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto tracer = qor::object::Create<SinkTracer>();
    static const dwi::tools::MnlParser parser(tracer.Get(), OnPacket,
                                              dwi::network_interceptor::kNfqueueMaxAttribute,
                                              &dwi::network_interceptor::NfqueueAttributeChecker());
    // A receive buffer is aligned (the heap's alignment here) and ends where
    // the last message ends, padded or not: a copy of exactly `size` bytes
    // keeps every read past the buffer visible, into the padding too.
    const auto buf = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    std::memcpy(buf.get(), data, size);
    // Any result will do: the sanitizers judge the walk, not its outcome.
    static_cast<void>(parser.Parse(buf.get(), size, 0, 0));
    return 0;
}
