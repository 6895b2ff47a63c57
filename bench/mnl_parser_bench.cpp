// One NFQUEUE packet message through MnlParser with the NFQUEUE checks (level
// 800 refused), and the same buffer through libnetfilter_queue's two parsers.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sched.h>

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
#include "tests/support/nfqueue_message.h"
#include "tests/support/recording_tracer.h"

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

// The floor under any parser built on libmnl's walk: mnl_cb_run and
// mnl_attr_parse with a step that only files each attribute by type, no
// checks and no copy of the parser's own.
void BM_LibmnlWalkOnly(benchmark::State& state) {
    const auto buf = nti::test::NfqueueMessage(nti::test::SampleInputPacket());
    Packet packet;
    const mnl_cb_t onMessage = [](const nlmsghdr* nlh, void* data) {
        const nlattr* table[NFQA_MAX + 1] = {};
        mnl_attr_parse(
            nlh, sizeof(nfgenmsg),
            [](const nlattr* attr, void* tb) {
                const std::uint16_t type = attr->nla_type & NLA_TYPE_MASK;
                if (type <= NFQA_MAX) {
                    static_cast<const nlattr**>(tb)[type] = attr;
                }
                return MNL_CB_OK;
            },
            table);
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
BENCHMARK(BM_LibmnlWalkOnly);

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

// OpenQueueHandle binds queue 0 for nfq_handle_packet, which only delivers to
// a queue handle that the kernel has bound. The binding is made in a network
// namespace of this process's own, so the machine's queues are not touched.
struct QueueHandle {
    nfq_handle* handle = nullptr;
    nfq_q_handle* queue = nullptr;
    ~QueueHandle() {
        if (queue != nullptr) {
            nfq_destroy_queue(queue);
        }
        if (handle != nullptr) {
            nfq_close(handle);
        }
    }
};

// libnetfilter_queue's classic API, as a consumer of nfq_handle_packet uses
// it: libnfnetlink indexes the attributes, the callback reads them through
// the nfq_get_* accessors.
void BM_LibnetfilterQueueHandlePacket(benchmark::State& state) {
    static const bool ownNamespace = unshare(CLONE_NEWNET) == 0;
    if (!ownNamespace) {
        state.SkipWithError("needs CAP_SYS_ADMIN for a network namespace of its own");
        return;
    }
    const auto message = nti::test::NfqueueMessage(nti::test::SampleInputPacket());
    std::vector<char> buf(message.begin(), message.end());
    Packet packet;
    QueueHandle queue;
    queue.handle = nfq_open();
    if (queue.handle != nullptr) {
        queue.queue = nfq_create_queue(
            queue.handle, 0,
            [](nfq_q_handle*, nfgenmsg*, nfq_data* nfad, void* data) {
                auto& p = *static_cast<Packet*>(data);
                if (const nfqnl_msg_packet_hdr* hdr = nfq_get_msg_packet_hdr(nfad);
                    hdr != nullptr) {
                    p.id = ntohl(hdr->packet_id);
                }
                p.indev = nfq_get_indev(nfad);
                p.outdev = nfq_get_outdev(nfad);
                p.mark = nfq_get_nfmark(nfad);
                unsigned char* payload = nullptr;
                const int length = nfq_get_payload(nfad, &payload);
                p.payload = payload;
                p.payloadLength = static_cast<std::uint16_t>(length > 0 ? length : 0);
                return 0;
            },
            &packet);
    }
    if (queue.queue == nullptr) {
        state.SkipWithError("cannot bind queue 0 in the benchmark's namespace");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            nfq_handle_packet(queue.handle, buf.data(), static_cast<int>(buf.size())));
        benchmark::DoNotOptimize(packet);
    }
    if (packet.id != 0x01020304 || packet.payloadLength != 40) {
        state.SkipWithError("parsed the wrong packet");
    }
}
BENCHMARK(BM_LibnetfilterQueueHandlePacket);

}  // namespace
