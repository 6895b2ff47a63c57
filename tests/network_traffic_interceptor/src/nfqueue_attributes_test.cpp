#include "network_traffic_interceptor/src/nfqueue_attributes.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using dwi::network_interceptor::NfqueueAttributeChecker;

struct CheckCase {
    int type;
    std::uint16_t length;  // the one length the check accepts
};

// Validate puts one attribute of `type` with `length` payload bytes and runs
// the checker's entry on it.
int Validate(int type, std::uint16_t length) {
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
    const std::vector<char> payload(length, 0x5a);
    mnl_attr_put(nlh, static_cast<std::uint16_t>(type), payload.size(), payload.data());
    const auto* attr = static_cast<const nlattr*>(mnl_nlmsg_get_payload(nlh));
    return NfqueueAttributeChecker().at(type)(attr);
}

class NfqueueAttributeCheckTest : public ::testing::TestWithParam<CheckCase> {};

TEST_P(NfqueueAttributeCheckTest, AcceptsOnlyItsLength) {
    const auto [type, length] = GetParam();
    EXPECT_EQ(Validate(type, length), 0);
    for (const std::uint16_t wrong :
         {std::uint16_t{0}, static_cast<std::uint16_t>(length - 1),
          static_cast<std::uint16_t>(length + 1), static_cast<std::uint16_t>(length + 4)}) {
        errno = 0;
        EXPECT_EQ(Validate(type, wrong), -1) << "length " << wrong;
        EXPECT_EQ(errno, ERANGE);
    }
}

INSTANTIATE_TEST_SUITE_P(Types, NfqueueAttributeCheckTest,
                         ::testing::Values(CheckCase{NFQA_MARK, 4}, CheckCase{NFQA_TIMESTAMP, 16},
                                           CheckCase{NFQA_IFINDEX_INDEV, 4},
                                           CheckCase{NFQA_IFINDEX_OUTDEV, 4},
                                           CheckCase{NFQA_IFINDEX_PHYSINDEV, 4},
                                           CheckCase{NFQA_IFINDEX_PHYSOUTDEV, 4},
                                           CheckCase{NFQA_HWADDR, 12}),
                         [](const auto& test) { return "Type" + std::to_string(test.param.type); });

TEST(NfqueueAttributeCheckerTest, HeaderAndPayloadGoUnchecked) {
    const auto& checker = NfqueueAttributeChecker();
    EXPECT_EQ(checker.size(), 7u);
    EXPECT_EQ(checker.count(NFQA_PACKET_HDR), 0u);
    EXPECT_EQ(checker.count(NFQA_PAYLOAD), 0u);
}

}  // namespace
