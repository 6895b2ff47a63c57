// Wire bytes of the NFQUEUE configuration and verdict messages.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "dwi_common/mnl_parser.h"
#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "network_traffic_interceptor/src/nfqueue_messages.h"
#include "tests/support/nfqueue_message.h"

namespace {

namespace ni = dwi::network_interceptor;
using nti::test::AsBytes;
using nti::test::Bytes;
using nti::test::Hex;

// Expected is a whole message: netlink header with its final length, nfgenmsg,
// then `attributes` (hex: length, type, payload of each).
Bytes Expected(std::uint8_t type, std::uint16_t flags, std::uint16_t resId,
               const std::string& attributes) {
    // Lengths and flags here fit in their low byte; seq and pid are 0.
    char header[64];
    std::snprintf(header, sizeof(header),
                  "%02zx000000 %02x%02x %02x00 00000000 00000000 %02x%02x %04x ",
                  20 + Hex(attributes).size(), type, NFNL_SUBSYS_QUEUE, flags, AF_UNSPEC,
                  NFNETLINK_V0, resId);
    return Hex(header + attributes);
}

struct ConfigCase {
    std::string name;
    std::function<nlmsghdr*(char*)> build;
    std::uint16_t resId;
    std::string attributes;  // hex: length, type, payload of each
};

void PrintTo(const ConfigCase& c, std::ostream* os) {
    *os << c.name;
}

std::vector<ConfigCase> ConfigCases() {
    using namespace ni;
    return {
        {"PfUnbindInet", [](char* b) { return BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_UNBIND, 2); },
         0, "0800 0100 04 00 0002"},
        {"PfBindInet6", [](char* b) { return BuildCfgPfRequest(b, NFQNL_CFG_CMD_PF_BIND, 10); }, 0,
         "0800 0100 03 00 000a"},
        {"BindQueue", [](char* b) { return BuildCfgRequest(b, NFQNL_CFG_CMD_BIND, 0x1234); },
         0x1234, "0800 0100 01 00 0002"},
        {"BindQueueZero", [](char* b) { return BuildCfgRequest(b, NFQNL_CFG_CMD_BIND, 0); }, 0,
         "0800 0100 01 00 0002"},
        // 5 bytes of payload, padded to 8.
        {"Params", [](char* b) { return BuildCfgParams(b, NFQNL_COPY_PACKET, 0xFFFF, 65535); },
         65535, "0900 0200 0000ffff 02 000000"},
        {"FlagsGso", [](char* b) { return BuildCfgFlagsGSO(b, 7); }, 7,
         "0800 0400 00000004 0800 0500 00000004"},
        {"QueueMaxLen", [](char* b) { return BuildCfgQueueMaxLen(b, 0x0102); }, 0x0102,
         "0800 0300 0000ffff"},
    };
}

class ConfigMessageTest : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(ConfigMessageTest, BytesMatch) {
    alignas(nlmsghdr) char buffer[ni::kConfigBufferSize];
    // Stale bytes must not leak into padding.
    std::fill(std::begin(buffer), std::end(buffer), '\xEE');
    const nlmsghdr* nlh = GetParam().build(buffer);
    ASSERT_EQ(static_cast<const void*>(nlh), static_cast<const void*>(buffer));
    EXPECT_EQ(AsBytes(nlh), Expected(NFQNL_MSG_CONFIG, NLM_F_REQUEST | NLM_F_ACK, GetParam().resId,
                                     GetParam().attributes));
}

INSTANTIATE_TEST_SUITE_P(Builders, ConfigMessageTest, ::testing::ValuesIn(ConfigCases()),
                         [](const auto& test) { return test.param.name; });

// --- Verdicts ---------------------------------------------------------------

Bytes BuildVerdict(std::uint16_t queue, std::uint32_t id, std::uint32_t nfVerdict,
                   const ni::Packet* packet) {
    std::vector<char> buffer(ni::kVerdictBufferSize, '\xEE');
    const nlmsghdr* nlh =
        ni::BuildVerdictMessage(buffer.data(), buffer.size(), queue, id, nfVerdict, packet);
    if (nlh == nullptr) {
        return {};
    }
    return AsBytes(nlh);
}

TEST(VerdictMessageTest, MarkWhenNotZeroPayloadOnlyWhenChanged) {
    std::uint8_t data[] = {0x45, 0x00, 0x00, 0x1c, 0xAB};
    struct Case {
        const char* name;
        std::uint32_t mark;
        bool changed;
        std::string attributes;  // after the verdict header
    };
    const Case cases[] = {
        {"neither", 0, false, ""},
        {"mark", 0x01020304, false, "0800 0300 01020304"},
        {"payload", 0, true, "0900 0a00 4500001cab 000000"},
        {"both", 0xFFFFFFFF, true, "0800 0300 ffffffff 0900 0a00 4500001cab 000000"},
    };
    for (const Case& c : cases) {
        ni::Packet packet;
        packet.payloadBegin = data;
        packet.payloadEnd = data + sizeof(data);
        packet.mark = c.mark;
        packet.payloadChanged = c.changed;
        // NF_REPEAT is 4.
        EXPECT_EQ(BuildVerdict(5, 9, NF_REPEAT, &packet),
                  Expected(NFQNL_MSG_VERDICT, NLM_F_REQUEST, 5,
                           "0c00 0200 00000004 00000009" + c.attributes))
            << c.name;
    }
    EXPECT_EQ(BuildVerdict(0x0203, 0xA1B2C3D4, NF_DROP, nullptr),
              Expected(NFQNL_MSG_VERDICT, NLM_F_REQUEST, 0x0203, "0c00 0200 00000000 a1b2c3d4"));
}

TEST(VerdictMessageTest, LargestPayloadThatAnAttributeHoldsFits) {
    std::vector<std::uint8_t> data(0xFFFF - 4, 0x5A);
    ni::Packet packet;
    packet.payloadChanged = true;
    packet.payloadBegin = data.data();
    packet.payloadEnd = data.data() + data.size();
    const Bytes bytes = BuildVerdict(1, 2, NF_ACCEPT, &packet);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes.size(), 16u + 4u + 12u + 4u + data.size() + 1u);

    data.push_back(0x5A);
    packet.payloadBegin = data.data();
    packet.payloadEnd = data.data() + data.size();
    EXPECT_TRUE(BuildVerdict(1, 2, NF_ACCEPT, &packet).empty());
    char shortBuffer[16];
    EXPECT_EQ(ni::BuildVerdictMessage(shortBuffer, sizeof(shortBuffer), 1, 2, NF_ACCEPT, nullptr),
              nullptr);
}

TEST(VerdictMessageTest, VerdictTable) {
    struct Row {
        std::uint32_t verdict;
        std::uint32_t sent;
        const char* name;
    };
    for (const Row& row :
         {Row{0, NF_ACCEPT, "ALLOW"}, Row{1, NF_DROP, "DROP"}, Row{2, NF_REPEAT, "REPEAT"},
          Row{3, NF_ACCEPT, "LATER"}, Row{4, NF_ACCEPT, "unreachable"},
          Row{0xFFFFFFFF, NF_ACCEPT, "unreachable"}}) {
        EXPECT_EQ(ni::NetfilterVerdict(row.verdict), row.sent) << row.verdict;
        EXPECT_STREQ(ni::VerdictName(row.verdict), row.name) << row.verdict;
    }
}

// What the poll thread takes from a queued packet: id, devices and mark in
// host order and the payload where it lies; a message of another type or a
// packet without payload is not read.
TEST(QueuedPacketTest, ReadsIdDevicesMarkAndPayloadInPlace) {
    const auto read = [](const std::vector<char>& buf, ni::Packet& packet) {
        bool isPacket = false;
        const dwi::tools::MnlParser parser(
            nullptr,
            [&](const nlmsghdr* nlh, const nlattr** table) {
                isPacket = ni::ReadQueuedPacket(nlh, table, packet);
                return MNL_CB_OK;
            },
            ni::kNfqueueMaxAttribute, &ni::NfqueueAttributeChecker());
        EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
        return isPacket;
    };
    nti::test::NfqueuePacket sample = nti::test::SampleInputPacket();
    sample.outdev = 3;
    const std::vector<char> buf = nti::test::NfqueueMessage(sample);
    ni::Packet packet;
    ASSERT_TRUE(read(buf, packet));
    EXPECT_EQ(std::make_tuple(packet.id, packet.indev, packet.outdev, packet.mark),
              std::make_tuple(0x01020304u, 2u, 3u, 0x10u));
    ASSERT_EQ(packet.payloadEnd - packet.payloadBegin, 40);
    EXPECT_TRUE(Bytes(packet.payloadBegin, packet.payloadEnd) == Bytes(sample.payload));
    EXPECT_GT(reinterpret_cast<const char*>(packet.payloadBegin), buf.data());
    EXPECT_LT(reinterpret_cast<const char*>(packet.payloadEnd), buf.data() + buf.size() + 1);

    sample.payload.clear();
    EXPECT_FALSE(read(nti::test::NfqueueMessage(sample), packet));
    std::vector<char> other = buf;
    reinterpret_cast<nlmsghdr*>(other.data())->nlmsg_type =
        (NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_VERDICT;
    EXPECT_FALSE(read(other, packet));
}

}  // namespace
