// One NFQUEUE packet message through MnlParser with the NFQUEUE checks (level
// 800 refused), and the same buffer through libnetfilter_queue's parser.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

extern "C" {
#include <libnetfilter_queue/libnetfilter_queue.h>
}

#include "dwi_common/mnl_parser.h"
#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "qor/object.h"
#include "tests/fakes/nfqueue_message.h"
#include "tests/fakes/recording_tracer.h"

namespace {

// Packet is what the packet handler takes from a message.
struct Packet {
    std::uint32_t id = 0;
    std::uint32_t indev = 0;
    std::uint32_t outdev = 0;
    std::uint32_t mark = 0;
    const void* payload = nullptr;
    std::uint16_t payloadLength = 0;
};

std::uint32_t U32(const nlattr* attr) {
    return attr != nullptr ? ntohl(mnl_attr_get_u32(attr)) : 0;
}

// Read takes the same attributes from either parser's table.
template <class Table>
int Read(Table table, Packet& packet) {
    if (const nlattr* hdr = table[NFQA_PACKET_HDR]; hdr != nullptr) {
        std::memcpy(&packet.id, mnl_attr_get_payload(hdr), sizeof(packet.id));
        packet.id = ntohl(packet.id);
    }
    packet.indev = U32(table[NFQA_IFINDEX_INDEV]);
    packet.outdev = U32(table[NFQA_IFINDEX_OUTDEV]);
    packet.mark = U32(table[NFQA_MARK]);
    if (const nlattr* payload = table[NFQA_PAYLOAD]; payload != nullptr) {
        packet.payload = mnl_attr_get_payload(payload);
        packet.payloadLength = mnl_attr_get_payload_len(payload);
    }
    return MNL_CB_OK;
}

void BM_MnlParserNfqueuePacket(benchmark::State& state) {
    const auto buf = nti::test::NfqueueMessage(nti::test::SampleInputPacket());
    const auto tracer = qor::object::Create<nti::test::RecordingTracer>(qor::trace_level::kInfo);
    Packet packet;
    const dwi::tools::MnlParser parser(
        tracer.Get(), [&](const nlmsghdr*, const nlattr** table) { return Read(table, packet); },
        dwi::network_interceptor::kNfqueueMaxAttribute,
        &dwi::network_interceptor::NfqueueAttributeChecker());
    for (auto _ : state) {
        benchmark::DoNotOptimize(parser.Parse(buf.data(), buf.size(), 0, 0));
        benchmark::DoNotOptimize(packet);
    }
    if (packet.id != 0x01020304 || packet.payloadLength != 40 || !tracer->Lines().empty()) {
        state.SkipWithError("parsed the wrong packet");
    }
}
BENCHMARK(BM_MnlParserNfqueuePacket);

// libnetfilter_queue's newer API: nfq_nlmsg_parse validates and indexes the
// attributes of one message inside mnl_cb_run.
void BM_LibnetfilterQueueNfqueuePacket(benchmark::State& state) {
    const auto buf = nti::test::NfqueueMessage(nti::test::SampleInputPacket());
    Packet packet;
    const mnl_cb_t onMessage = [](const nlmsghdr* nlh, void* data) {
        nlattr* table[NFQA_MAX + 1] = {};
        if (nfq_nlmsg_parse(nlh, table) < 0) {
            return MNL_CB_ERROR;
        }
        return Read(table, *static_cast<Packet*>(data));
    };
    for (auto _ : state) {
        benchmark::DoNotOptimize(mnl_cb_run(buf.data(), buf.size(), 0, 0, onMessage, &packet));
        benchmark::DoNotOptimize(packet);
    }
    if (packet.id != 0x01020304 || packet.payloadLength != 40) {
        state.SkipWithError("parsed the wrong packet");
    }
}
BENCHMARK(BM_LibnetfilterQueueNfqueuePacket);

}  // namespace
