#include "network_traffic_interceptor/src/nfqueue_attributes.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>

namespace dwi::network_interceptor {
namespace {

static_assert(kNfqueueMaxAttribute == NFQA_PAYLOAD);
static_assert(sizeof(nfqnl_msg_packet_timestamp) == 16);
static_assert(sizeof(nfqnl_msg_packet_hw) == 12);

int ValidateU32(const nlattr* attr) {
    return mnl_attr_validate(attr, MNL_TYPE_U32);
}

template <std::size_t Length>
int ValidateLength(const nlattr* attr) {
    return mnl_attr_validate2(attr, MNL_TYPE_UNSPEC, Length);
}

}  // namespace

const dwi::tools::MnlParser::Checker& NfqueueAttributeChecker() {
    static const dwi::tools::MnlParser::Checker checker = {
        {NFQA_MARK, ValidateU32},
        {NFQA_TIMESTAMP, ValidateLength<16>},
        {NFQA_IFINDEX_INDEV, ValidateU32},
        {NFQA_IFINDEX_OUTDEV, ValidateU32},
        {NFQA_IFINDEX_PHYSINDEV, ValidateU32},
        {NFQA_IFINDEX_PHYSOUTDEV, ValidateU32},
        {NFQA_HWADDR, ValidateLength<12>},
    };
    return checker;
}

namespace {
// Builds the table while the module loads, not on the first packet. Only a
// failed allocation can throw here, and a module that cannot build it cannot load.
// NOLINTNEXTLINE(cert-err58-cpp)
[[maybe_unused]] const auto& g_checkerAtLoad = NfqueueAttributeChecker();
}  // namespace

}  // namespace dwi::network_interceptor
