#include "dwi_common/mnl_parser.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "tests/support/nfqueue_message.h"
#include "tests/support/recording_tracer.h"

namespace {

using dwi::network_interceptor::kNfqueueMaxAttribute;
using dwi::network_interceptor::NfqueueAttributeChecker;
using dwi::tools::MnlParser;
using nti::test::RecordingTracer;

constexpr const char* kCannotProcess =
    "(mnl_attr_parse(nlh, sizeof(nfgenmsg), [](const nlattr* attr, void* data) noexcept { const "
    "auto context = static_cast<Context*>(data); return "
    "context->first->ParseAttribute(context->second.data(), attr); }, &context) == 1),(bool) "
    "failed: result = false Cannot process MNL packet";

// Message builds one netfilter message by hand: header, nfgenmsg, attributes.
class Message {
public:
    explicit Message(std::uint32_t seq = 0) : m_buf(MNL_SOCKET_BUFFER_SIZE) {
        m_nlh = mnl_nlmsg_put_header(m_buf.data());
        m_nlh->nlmsg_type = (NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_PACKET;
        m_nlh->nlmsg_seq = seq;
        mnl_nlmsg_put_extra_header(m_nlh, sizeof(nfgenmsg));
    }
    Message& U32(std::uint16_t type, std::uint32_t value) {
        mnl_attr_put_u32(m_nlh, type, htonl(value));
        return *this;
    }
    Message& U16(std::uint16_t type, std::uint16_t value) {
        mnl_attr_put_u16(m_nlh, type, htons(value));
        return *this;
    }
    // Raw appends `bytes` zero bytes to the message, the first four an
    // attribute header of length `length` when there is room for one.
    Message& Raw(int bytes, std::uint16_t length) {
        auto* tail = static_cast<char*>(mnl_nlmsg_get_payload_tail(m_nlh));
        std::memset(tail, 0, static_cast<std::size_t>(bytes));
        if (bytes >= 4) {
            reinterpret_cast<nlattr*>(tail)->nla_type = NFQA_PAYLOAD;
            reinterpret_cast<nlattr*>(tail)->nla_len = length;
        }
        m_nlh->nlmsg_len += static_cast<std::uint32_t>(bytes);
        return *this;
    }
    nlmsghdr* Header() { return m_nlh; }
    Message& AppendTo(std::vector<char>& out) {
        out.insert(out.end(), m_buf.data(), m_buf.data() + m_nlh->nlmsg_len);
        return *this;
    }
    std::vector<char> Bytes() {
        std::vector<char> out;
        AppendTo(out);
        return out;
    }

private:
    std::vector<char> m_buf;
    nlmsghdr* m_nlh;
};

std::uint32_t U32At(const std::vector<const nlattr*>& table, int type) {
    return table.at(static_cast<std::size_t>(type)) != nullptr
               ? ntohl(mnl_attr_get_u32(table[static_cast<std::size_t>(type)]))
               : 0xFFFFFFFF;
}

class MnlParserTest : public ::testing::Test {
protected:
    // Parse runs `buf` through a parser that records every message's sequence
    // number and table (up to kNfqueueMaxAttribute) and answers `reply`.
    int Parse(const std::vector<char>& buf,
              std::optional<unsigned long> maxType = kNfqueueMaxAttribute,
              const MnlParser::Checker* checker = &NfqueueAttributeChecker(),
              int reply = MNL_CB_OK) {
        MnlParser parser(
            m_tracer.Get(),
            [this, reply](const nlmsghdr* nlh, const nlattr** table) {
                m_seqs.push_back(nlh->nlmsg_seq);
                m_tables.emplace_back();
                if (table != nullptr) {
                    m_tables.back().assign(table, table + kNfqueueMaxAttribute + 1);
                }
                return reply;
            },
            maxType, checker);
        return parser.Parse(buf.data(), buf.size(), 0, 0);
    }
    // Texts is every record but Parse's own debug record, "L:" the level.
    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const auto& line : m_tracer->Lines()) {
            if (line.text.rfind("int ", 0) != 0) {
                // The line number of a record is not the test's business.
                const auto open = line.text.find('(');
                const bool check = line.text.rfind("dwi_common/mnl_parser:", 0) == 0;
                texts.push_back(std::to_string(line.level) + ":" +
                                (check ? line.text.substr(open) : line.text));
            }
        }
        return texts;
    }

    qor::object::ImplPtr<RecordingTracer> m_tracer = qor::object::Create<RecordingTracer>();
    std::vector<std::uint32_t> m_seqs;
    std::vector<std::vector<const nlattr*>> m_tables;
};

TEST_F(MnlParserTest, KernelPacketFillsTheTable) {
    const auto buf = nti::test::NfqueueMessage(nti::test::SampleInputPacket());
    ASSERT_EQ(Parse(buf), MNL_CB_OK);
    ASSERT_EQ(m_tables.size(), 1u);
    const auto& table = m_tables[0];
    const auto* hdr =
        static_cast<const nfqnl_msg_packet_hdr*>(mnl_attr_get_payload(table[NFQA_PACKET_HDR]));
    EXPECT_EQ(ntohl(hdr->packet_id), 0x01020304u);
    EXPECT_EQ(U32At(table, NFQA_IFINDEX_INDEV), 2u);
    EXPECT_EQ(U32At(table, NFQA_MARK), 0x10u);
    EXPECT_NE(table[NFQA_HWADDR], nullptr);
    EXPECT_NE(table[NFQA_TIMESTAMP], nullptr);
    EXPECT_EQ(mnl_attr_get_payload_len(table[NFQA_PAYLOAD]), 40);
    EXPECT_EQ(table[NFQA_IFINDEX_OUTDEV], nullptr);
    EXPECT_TRUE(Texts().empty());
}

// One message against the parser with the NFQUEUE checker: what is kept in
// the table, and whether the message is whole.
struct ShapeCase {
    const char* name;
    std::vector<char> bytes;
    int result;
    std::uint32_t mark;  // NFQA_MARK in the delivered table (0xFFFFFFFF: none)
    std::vector<std::string> records;
};

void PrintTo(const ShapeCase& c, std::ostream* os) {
    *os << c.name;
}

const std::string kBroken = "300:" + std::string(kCannotProcess);

std::vector<char> Overrun() {
    Message m;
    m.U32(NFQA_MARK, 1);
    auto* overrun = static_cast<nlattr*>(mnl_nlmsg_get_payload_tail(m.Header()));
    m.U32(NFQA_IFINDEX_INDEV, 2);
    overrun->nla_len = 12;  // four bytes past the message
    return m.Bytes();
}

std::vector<char> Padded(std::vector<char> buf) {
    buf.resize(MNL_ALIGN(buf.size()), 0);
    return buf;
}

std::vector<char> Truncated(std::uint32_t length) {
    Message m;
    m.Header()->nlmsg_len = length;
    return m.Bytes();
}

const ShapeCase kShapes[] = {
    {"LastOccurrenceWins", Message().U32(NFQA_MARK, 1).U32(NFQA_MARK, 2).Bytes(), MNL_CB_OK, 2, {}},
    {"TypeFlagsAreMaskedOff",
     Message().U32(NFQA_MARK | NLA_F_NET_BYTEORDER | NLA_F_NESTED, 3).Bytes(),
     MNL_CB_OK,
     3,
     {}},
    {"AttributeRunsPastTheMessage", Overrun(), -1, 0, {kBroken}},
    {"CheckerRejects",
     Message().U16(NFQA_MARK, 1).Bytes(),
     -1,
     0,
     {"300:(it == m_checker->end() || it->second(attr) >= 0),(bool) failed: result = false",
      kBroken}},
    {"UnalignedLastAttribute", Message().U32(NFQA_MARK, 5).Raw(5, 5).Bytes(), MNL_CB_OK, 5, {}},
    {"LengthBelowAttributeHeader", Message().U32(NFQA_MARK, 1).Raw(4, 3).Bytes(), -1, 0, {kBroken}},
    {"LastAttributeRunsIntoThePadding",
     Padded(Message().U32(NFQA_MARK, 1).Raw(5, 6).Bytes()),
     -1,
     0,
     {kBroken}},
    // The kernel does not pad a packet's payload: stray bytes at the end of
    // the buffer must not be read past it.
    {"ThreeStrayBytes", Message().U32(NFQA_MARK, 1).Raw(3, 0).Bytes(), -1, 0, {kBroken}},
    {"NoRoomForTheNetfilterHeader", Truncated(18), -1, 0, {kBroken}},
};

class MnlParserShapeTest : public MnlParserTest, public ::testing::WithParamInterface<ShapeCase> {};

TEST_P(MnlParserShapeTest, KeepsWhatTheMessageHolds) {
    const ShapeCase& c = GetParam();
    EXPECT_EQ(Parse(c.bytes), c.result);
    ASSERT_EQ(m_tables.size(), c.result == MNL_CB_OK ? 1u : 0u);
    if (c.result == MNL_CB_OK) {
        EXPECT_EQ(U32At(m_tables[0], NFQA_MARK), c.mark);
    }
    EXPECT_EQ(Texts(), c.records);
}

INSTANTIATE_TEST_SUITE_P(Shapes, MnlParserShapeTest, ::testing::ValuesIn(kShapes),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(MnlParserTest, CheckerOfTheHighestTypeApplies) {
    const MnlParser::Checker rejectHighest = {{3, [](const nlattr*) { return -1; }}};
    EXPECT_EQ(Parse(Message().U32(3, 1).Bytes(), 3, &rejectHighest), -1);
    EXPECT_TRUE(m_seqs.empty());
}

TEST_F(MnlParserTest, CallbackRepliesEndTheWalk) {
    std::vector<char> buf;
    for (std::uint32_t seq = 1; seq <= 3; ++seq) {
        Message(seq).U32(NFQA_MARK, seq).AppendTo(buf);
    }
    const struct {
        int reply;
        int result;
        std::vector<std::uint32_t> seen;
    } cases[] = {{MNL_CB_OK, MNL_CB_OK, {1, 2, 3}},
                 {MNL_CB_STOP, MNL_CB_STOP, {1}},
                 {MNL_CB_ERROR, MNL_CB_ERROR, {1}}};
    for (const auto& c : cases) {
        m_seqs.clear();
        EXPECT_EQ(Parse(buf, kNfqueueMaxAttribute, &NfqueueAttributeChecker(), c.reply), c.result);
        EXPECT_EQ(m_seqs, c.seen);
    }
    // Without a maximum the callback gets no table and nothing is checked.
    std::vector<char> unchecked = buf;
    Message(4).U16(NFQA_MARK, 1).AppendTo(unchecked);
    m_tables.clear();
    EXPECT_EQ(Parse(unchecked, std::nullopt), MNL_CB_OK);
    ASSERT_EQ(m_tables.size(), 4u);
    EXPECT_TRUE(m_tables[3].empty());
    // libmnl reads a length with the top bit set as negative and would leave
    // the buffer: the walk ends before that message.
    reinterpret_cast<nlmsghdr*>(buf.data() + buf.size() / 3)->nlmsg_len = 0x80000014;
    m_seqs.clear();
    EXPECT_EQ(Parse(buf), MNL_CB_OK);
    EXPECT_EQ(m_seqs, std::vector<std::uint32_t>{1});
}

TEST_F(MnlParserTest, ThrowingCallbackOrCheckerIsContained) {
    const MnlParser::Checker throwing = {
        {NFQA_MARK, [](const nlattr*) -> int { throw std::logic_error("check failed"); }}};
    const MnlParser::Checker empty = {{NFQA_MARK, nullptr}};
    const auto buf = Message().U32(NFQA_MARK, 1).Bytes();
    for (const auto* checker : {&throwing, &empty}) {
        m_tracer->Clear();
        EXPECT_EQ(Parse(buf, kNfqueueMaxAttribute, checker), -1);
        EXPECT_EQ(Texts(),
                  (std::vector<std::string>{"800:Failure in attribute check type=3", kBroken}));
    }
    EXPECT_TRUE(m_seqs.empty());
    m_tracer->Clear();
    MnlParser parser(
        m_tracer.Get(),
        [](const nlmsghdr*, const nlattr**) -> int { throw std::runtime_error("consumer"); },
        kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
    EXPECT_EQ(Texts(), std::vector<std::string>{"800:Failure in callback"});
}

}  // namespace
