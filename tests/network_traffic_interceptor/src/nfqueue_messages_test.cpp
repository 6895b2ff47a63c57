// Wire bytes of the NFQUEUE configuration and verdict messages.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "network_traffic_interceptor/src/nfqueue_messages.h"

namespace {

namespace ni = dwi::network_interceptor;
using Bytes = std::vector<std::uint8_t>;

// Message composes expected bytes field by field, in wire order.
class Message {
public:
    Message& U8(std::uint8_t v) {
        m_bytes.push_back(v);
        return *this;
    }
    Message& Le16(std::uint16_t v) { return U8(v & 0xFF).U8(v >> 8); }
    Message& Le32(std::uint32_t v) { return Le16(v & 0xFFFF).Le16(v >> 16); }
    Message& Be16(std::uint16_t v) { return U8(v >> 8).U8(v & 0xFF); }
    Message& Be32(std::uint32_t v) { return Be16(v >> 16).Be16(v & 0xFFFF); }
    Message& Raw(const Bytes& b) {
        m_bytes.insert(m_bytes.end(), b.begin(), b.end());
        return *this;
    }
    // Header fills in nlmsg_len from the final size.
    Bytes Done() const {
        Bytes out = m_bytes;
        const auto len = static_cast<std::uint32_t>(out.size());
        for (int i = 0; i < 4; ++i) {
            out[i] = static_cast<std::uint8_t>(len >> (8 * i));
        }
        return out;
    }

private:
    Bytes m_bytes;
};

Message Header(std::uint8_t type, std::uint16_t flags, std::uint16_t resId) {
    Message m;
    m.Le32(0)  // length, filled by Done()
        .Le16(static_cast<std::uint16_t>((NFNL_SUBSYS_QUEUE << 8) | type))
        .Le16(flags)
        .Le32(0)   // seq
        .Le32(0);  // pid
    m.U8(AF_UNSPEC).U8(NFNETLINK_V0).Be16(resId);
    return m;
}

Message ConfigHeader(std::uint16_t resId) {
    return Header(NFQNL_MSG_CONFIG, NLM_F_REQUEST | NLM_F_ACK, resId);
}

Bytes AsBytes(const nlmsghdr* nlh) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(nlh);
    return Bytes(p, p + nlh->nlmsg_len);
}

Bytes Hex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return bytes;
}

struct ConfigCase {
    std::string name;
    std::function<nlmsghdr*(char*)> build;
    std::uint16_t resId;
    std::string attributes;  // hex: length, type, payload of each
};

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
    EXPECT_EQ(AsBytes(nlh), ConfigHeader(GetParam().resId).Raw(Hex(GetParam().attributes)).Done());
}

INSTANTIATE_TEST_SUITE_P(Builders, ConfigMessageTest, ::testing::ValuesIn(ConfigCases()),
                         [](const auto& test) { return test.param.name; });

// --- Verdicts ---------------------------------------------------------------

Message VerdictHeader(std::uint16_t queue, std::uint32_t nfVerdict, std::uint32_t id) {
    return Header(NFQNL_MSG_VERDICT, NLM_F_REQUEST, queue)
        .Le16(12)
        .Le16(NFQA_VERDICT_HDR)
        .Be32(nfVerdict)
        .Be32(id);
}

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
    const Bytes padded{0x45, 0x00, 0x00, 0x1c, 0xAB, 0, 0, 0};
    struct Case {
        const char* name;
        std::uint32_t mark;
        bool changed;
        Bytes expected;
    };
    const Case cases[] = {
        {"neither", 0, false, VerdictHeader(5, NF_REPEAT, 9).Done()},
        {"mark", 0x01020304, false,
         VerdictHeader(5, NF_REPEAT, 9).Le16(8).Le16(NFQA_MARK).Be32(0x01020304).Done()},
        {"payload", 0, true,
         VerdictHeader(5, NF_REPEAT, 9).Le16(4 + 5).Le16(NFQA_PAYLOAD).Raw(padded).Done()},
        {"both", 0xFFFFFFFF, true,
         VerdictHeader(5, NF_REPEAT, 9)
             .Le16(8)
             .Le16(NFQA_MARK)
             .Be32(0xFFFFFFFF)
             .Le16(4 + 5)
             .Le16(NFQA_PAYLOAD)
             .Raw(padded)
             .Done()},
    };
    for (const Case& c : cases) {
        ni::Packet packet;
        packet.payloadBegin = data;
        packet.payloadEnd = data + sizeof(data);
        packet.mark = c.mark;
        packet.payloadChanged = c.changed;
        EXPECT_EQ(BuildVerdict(5, 9, NF_REPEAT, &packet), c.expected) << c.name;
    }
    EXPECT_EQ(BuildVerdict(0x0203, 0xA1B2C3D4, NF_DROP, nullptr),
              VerdictHeader(0x0203, NF_DROP, 0xA1B2C3D4).Done());
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

}  // namespace
