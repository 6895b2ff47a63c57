#include "dwi_common/mnl_parser.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "tests/fakes/nfqueue_message.h"
#include "tests/fakes/recording_tracer.h"

namespace {

using dwi::network_interceptor::kNfqueueMaxAttribute;
using dwi::network_interceptor::NfqueueAttributeChecker;
using dwi::tools::MnlParser;
using nti::test::NfqueuePacket;
using nti::test::RecordingTracer;
using nti::test::TraceLine;

constexpr const char* kCannotProcessCondition =
    "(mnl_attr_parse(nlh, sizeof(nfgenmsg), [](const nlattr* attr, void* data) noexcept { const "
    "auto context = static_cast<Context*>(data); return "
    "context->first->ParseAttribute(context->second.data(), attr); }, &context) == 1),(bool) "
    "failed: result = false Cannot process MNL packet";
constexpr const char* kCheckerRecord =
    "dwi_common/mnl_parser:76(it == m_checker->end() || it->second(attr) >= 0),(bool) failed: "
    "result = false";

// Message builds one netfilter message by hand: header, nfgenmsg, then
// whatever attributes the test puts.
class Message {
public:
    explicit Message(std::uint16_t type = (NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_PACKET)
        : m_buf(MNL_SOCKET_BUFFER_SIZE) {
        m_nlh = mnl_nlmsg_put_header(m_buf.data());
        m_nlh->nlmsg_type = type;
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
    nlmsghdr* Header() { return m_nlh; }
    // Bytes is the message as it stands, appended to `out`.
    void AppendTo(std::vector<char>& out) const {
        out.insert(out.end(), m_buf.data(), m_buf.data() + m_nlh->nlmsg_len);
    }
    std::vector<char> Bytes() const {
        std::vector<char> out;
        AppendTo(out);
        return out;
    }

private:
    std::vector<char> m_buf;
    nlmsghdr* m_nlh;
};

std::uint32_t U32At(const nlattr* const* table, int type) {
    return table[type] != nullptr ? ntohl(mnl_attr_get_u32(table[type])) : 0xFFFFFFFF;
}

// Fixture: a recording tracer and the messages the callback saw.
class MnlParserTest : public ::testing::Test {
protected:
    // Records a message and its table entries up to `kSeen`, answering `reply`.
    MnlParser::Callback Recorder(int reply = MNL_CB_OK) {
        return [this, reply](const nlmsghdr* nlh, const nlattr** table) {
            m_seqs.push_back(nlh->nlmsg_seq);
            m_tables.emplace_back();
            if (table != nullptr) {
                m_tables.back().assign(table, table + kSeen);
            }
            m_nullTables += table == nullptr;
            return reply;
        };
    }
    std::vector<TraceLine> Errors() const {
        std::vector<TraceLine> errors;
        for (const auto& line : m_tracer->Lines()) {
            if (line.level < qor::trace_level::kDebug) {
                errors.push_back(line);
            }
        }
        return errors;
    }
    // Debug lines other than Parse's own record.
    std::vector<std::string> DebugTexts() const {
        std::vector<std::string> texts;
        for (const auto& line : m_tracer->Lines()) {
            if (line.level == qor::trace_level::kDebug && line.text.rfind("int ", 0) != 0) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    static constexpr int kSeen = 4;
    qor::object::ImplPtr<RecordingTracer> m_tracer = qor::object::Create<RecordingTracer>();
    std::vector<std::uint32_t> m_seqs;
    std::vector<std::vector<const nlattr*>> m_tables;
    int m_nullTables = 0;
};

void ExpectCannotProcess(const TraceLine& line) {
    EXPECT_EQ(line.level, qor::trace_level::kError);
    const std::string prefix = "dwi_common/mnl_parser:";
    ASSERT_EQ(line.text.rfind(prefix, 0), 0u) << line.text;
    const auto open = line.text.find('(');
    ASSERT_NE(open, std::string::npos);
    const std::string lineNumber = line.text.substr(prefix.size(), open - prefix.size());
    EXPECT_FALSE(lineNumber.empty());
    EXPECT_EQ(lineNumber.find_first_not_of("0123456789"), std::string::npos) << lineNumber;
    EXPECT_EQ(line.text.substr(open), kCannotProcessCondition);
}

TEST_F(MnlParserTest, KernelPacketFillsTableAndSkipsTypesAboveMaximum) {
    const auto buf = nti::test::NfqueueMessage(nti::test::SampleInputPacket());
    std::vector<const nlattr*> table;
    MnlParser parser(
        m_tracer.Get(),
        [&](const nlmsghdr*, const nlattr** t) {
            table.assign(t, t + kNfqueueMaxAttribute + 1);
            return MNL_CB_OK;
        },
        kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    ASSERT_EQ(table.size(), kNfqueueMaxAttribute + 1);
    ASSERT_NE(table[NFQA_PACKET_HDR], nullptr);
    const auto* hdr =
        static_cast<const nfqnl_msg_packet_hdr*>(mnl_attr_get_payload(table[NFQA_PACKET_HDR]));
    EXPECT_EQ(ntohl(hdr->packet_id), 0x01020304u);
    EXPECT_EQ(U32At(table.data(), NFQA_IFINDEX_INDEV), 2u);
    EXPECT_EQ(U32At(table.data(), NFQA_MARK), 0x10u);
    EXPECT_NE(table[NFQA_HWADDR], nullptr);
    EXPECT_NE(table[NFQA_TIMESTAMP], nullptr);
    ASSERT_NE(table[NFQA_PAYLOAD], nullptr);
    EXPECT_EQ(mnl_attr_get_payload_len(table[NFQA_PAYLOAD]), 40);
    EXPECT_EQ(table[NFQA_IFINDEX_OUTDEV], nullptr);
    EXPECT_EQ(table[0], nullptr);
    EXPECT_TRUE(Errors().empty());
}

TEST_F(MnlParserTest, ParseTraceShowsArgumentsAndDump) {
    const auto buf = Message().Bytes();  // 20 bytes: header and nfgenmsg
    MnlParser parser(m_tracer.Get(), Recorder(), std::nullopt, nullptr);
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 7, 9), MNL_CB_OK);
    EXPECT_EQ(m_nullTables, 1);
    const auto lines = m_tracer->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, qor::trace_level::kDebug);
    char address[32];
    std::snprintf(address, sizeof(address), "0x%lx", reinterpret_cast<unsigned long>(buf.data()));
    EXPECT_EQ(lines[0].text,
              std::string("int dwi::tools::MnlParser::Parse(const void*, size_t, unsigned int, "
                          "unsigned int) const buf=") +
                  address +
                  " numBytes=20 seq=7 portId=9 bufDump:\n"
                  "00000000  14 00 00 00 00 03 00 00  00 00 00 00 00 00 00 00\n"
                  "00000010  00 00 00 00");
}

TEST_F(MnlParserTest, RefusedLevelWritesNothing) {
    const auto quiet = qor::object::Create<RecordingTracer>(qor::trace_level::kWarning);
    const auto buf = Message().U32(NFQA_MARK, 1).Bytes();
    MnlParser parser(quiet.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    EXPECT_TRUE(quiet->Lines().empty());
    EXPECT_EQ(m_seqs.size(), 1u);
}

TEST_F(MnlParserTest, AttributesAboveMaximumAreSkipped) {
    const auto buf = Message().U32(1, 11).U32(3, 33).U32(5, 55).U32(4, 44).Bytes();
    MnlParser parser(m_tracer.Get(), Recorder(), 3, nullptr);
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    ASSERT_EQ(m_tables.size(), 1u);
    EXPECT_EQ(U32At(m_tables[0].data(), 1), 11u);
    EXPECT_EQ(m_tables[0][2], nullptr);
    EXPECT_EQ(U32At(m_tables[0].data(), 3), 33u);
}

TEST_F(MnlParserTest, LastOccurrenceWins) {
    const auto buf = Message().U32(NFQA_MARK, 1).U32(NFQA_MARK, 2).Bytes();
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    ASSERT_EQ(m_tables.size(), 1u);
    EXPECT_EQ(U32At(m_tables[0].data(), NFQA_MARK), 2u);
}

TEST_F(MnlParserTest, OverrunningAttributeFailsTheMessage) {
    Message message;
    message.U32(NFQA_MARK, 1);
    auto* overrun = static_cast<nlattr*>(mnl_nlmsg_get_payload_tail(message.Header()));
    message.U32(NFQA_IFINDEX_INDEV, 2);
    overrun->nla_len = 12;  // four bytes past the message
    const auto buf = message.Bytes();
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
    EXPECT_TRUE(m_seqs.empty());
    const auto errors = Errors();
    ASSERT_EQ(errors.size(), 1u);
    ExpectCannotProcess(errors[0]);
}

// How the last attribute meets the end of the message decides whether the
// message is whole.
struct MessageEndCase {
    const char* name;
    int extraBytes;            // bytes appended after the one U32 attribute
    std::uint16_t lastLength;  // nla_len given to those bytes, when >= 4
    bool padded;               // the buffer holds the message's padding
    int result;
    std::size_t delivered;
    std::size_t errors;
};

class MnlParserMessageEndTest : public MnlParserTest,
                                public ::testing::WithParamInterface<MessageEndCase> {};

TEST_P(MnlParserMessageEndTest, AttributesMustCoverTheMessage) {
    const MessageEndCase& c = GetParam();
    Message message;
    message.U32(NFQA_MARK, 7);
    nlmsghdr* nlh = message.Header();
    auto* extra = static_cast<char*>(mnl_nlmsg_get_payload_tail(nlh));
    std::memset(extra, 0, c.extraBytes);
    if (c.extraBytes >= 4) {
        auto* attr = reinterpret_cast<nlattr*>(extra);
        attr->nla_type = NFQA_PAYLOAD;
        attr->nla_len = c.lastLength;
    }
    nlh->nlmsg_len += c.extraBytes;
    auto buf = message.Bytes();
    if (c.padded) {
        buf.resize(MNL_ALIGN(buf.size()), 0);
    }
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), c.result);
    EXPECT_EQ(m_seqs.size(), c.delivered);
    EXPECT_EQ(Errors().size(), c.errors);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, MnlParserMessageEndTest,
    ::testing::Values(MessageEndCase{"AttributeEndsTheMessage", 0, 0, true, MNL_CB_OK, 1, 0},
                      MessageEndCase{"UnalignedLastAttribute", 5, 5, true, MNL_CB_OK, 1, 0},
                      MessageEndCase{"EmptyLastAttribute", 4, 4, true, MNL_CB_OK, 1, 0},
                      MessageEndCase{"ThreeStrayBytes", 3, 0, true, -1, 0, 1},
                      MessageEndCase{"LengthBelowHeader", 4, 3, true, -1, 0, 1},
                      MessageEndCase{"LastAttributeRunsIntoThePadding", 5, 6, true, -1, 0, 1},
                      // The kernel does not pad a packet's payload: the buffer ends with
                      // the message. Stray bytes must not be read past it.
                      MessageEndCase{"UnpaddedMessageEndsTheBuffer", 5, 5, false, MNL_CB_OK, 1, 0},
                      MessageEndCase{"OneStrayByteEndsTheBuffer", 1, 0, false, -1, 0, 1},
                      MessageEndCase{"TwoStrayBytesEndTheBuffer", 2, 0, false, -1, 0, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(MnlParserTest, MessageWithoutRoomForItsHeaderOrAnAttributeIsBroken) {
    for (const std::uint32_t length : {18u, 21u, 22u, 23u}) {
        SCOPED_TRACE(length);
        Message message;
        message.Header()->nlmsg_len = length;
        auto buf = message.Bytes();  // exactly `length` bytes: overreads show
        MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, nullptr);
        EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
        EXPECT_TRUE(m_seqs.empty());
    }
    EXPECT_EQ(Errors().size(), 4u);
}

TEST_F(MnlParserTest, TypeFlagsAreMaskedOff) {
    const auto buf = Message()
                         .U32(NFQA_MARK | NLA_F_NET_BYTEORDER, 3)
                         .U32(NFQA_PACKET_HDR | NLA_F_NESTED, 1)
                         .U32(kNfqueueMaxAttribute + 1, 9)
                         .Bytes();
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    ASSERT_EQ(m_tables.size(), 1u);
    EXPECT_EQ(U32At(m_tables[0].data(), NFQA_MARK), 3u);
    EXPECT_EQ(U32At(m_tables[0].data(), NFQA_PACKET_HDR), 1u);
}

TEST_F(MnlParserTest, RejectedAttributeStopsTheMessage) {
    std::vector<char> buf;
    Message().U16(NFQA_MARK, 1).AppendTo(buf);  // two bytes where four belong
    Message().U32(NFQA_MARK, 1).AppendTo(buf);
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
    EXPECT_TRUE(m_seqs.empty());
    const auto errors = Errors();
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].level, qor::trace_level::kError);
    EXPECT_EQ(errors[0].text, kCheckerRecord);
    ExpectCannotProcess(errors[1]);
}

TEST_F(MnlParserTest, EmptyMaximumGivesNullTables) {
    std::vector<char> buf;
    Message().U32(NFQA_MARK, 1).AppendTo(buf);
    Message().U16(NFQA_MARK, 1).AppendTo(buf);  // not checked without a maximum
    MnlParser parser(m_tracer.Get(), Recorder(), std::nullopt, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    EXPECT_EQ(m_seqs.size(), 2u);
    EXPECT_EQ(m_nullTables, 2);
}

TEST_F(MnlParserTest, EmptyCallbackDeliversNothing) {
    const auto buf = Message().U32(NFQA_MARK, 1).Bytes();
    MnlParser parser(m_tracer.Get(), nullptr, kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_GE(parser.Parse(buf.data(), buf.size(), 0, 0), 0);
    EXPECT_TRUE(Errors().empty());
    EXPECT_TRUE(DebugTexts().empty());
}

struct SequenceCase {
    const char* name;
    int reply;
    int result;
    std::vector<std::uint32_t> seen;
};

class MnlParserSequenceTest : public MnlParserTest,
                              public ::testing::WithParamInterface<SequenceCase> {};

TEST_P(MnlParserSequenceTest, MessagesInOrderUntilCallbackStops) {
    std::vector<char> buf;
    for (std::uint32_t seq = 1; seq <= 3; ++seq) {
        Message message;
        message.Header()->nlmsg_seq = seq;
        message.U32(NFQA_MARK, seq).AppendTo(buf);
    }
    MnlParser parser(m_tracer.Get(), Recorder(GetParam().reply), kNfqueueMaxAttribute,
                     &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), GetParam().result);
    EXPECT_EQ(m_seqs, GetParam().seen);
    for (std::size_t i = 0; i < m_tables.size(); ++i) {
        EXPECT_EQ(U32At(m_tables[i].data(), NFQA_MARK), m_seqs[i]);
    }
}

INSTANTIATE_TEST_SUITE_P(Replies, MnlParserSequenceTest,
                         ::testing::Values(SequenceCase{"Ok", MNL_CB_OK, 1, {1, 2, 3}},
                                           SequenceCase{"Stop", MNL_CB_STOP, 0, {1}},
                                           SequenceCase{"Error", MNL_CB_ERROR, -1, {1}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(MnlParserTest, LengthWithTopBitSetEndsTheBuffer) {
    std::vector<char> buf;
    Message first;
    first.Header()->nlmsg_seq = 1;
    first.U32(NFQA_MARK, 1).AppendTo(buf);
    const std::size_t second = buf.size();
    Message().U32(NFQA_MARK, 2).AppendTo(buf);
    Message().U32(NFQA_MARK, 3).AppendTo(buf);
    // libmnl reads this length as a negative int and would leave the buffer.
    reinterpret_cast<nlmsghdr*>(buf.data() + second)->nlmsg_len = 0x80000014;
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), MNL_CB_OK);
    EXPECT_EQ(m_seqs, std::vector<std::uint32_t>{1});
}

TEST_F(MnlParserTest, ThrowingCallbackIsContained) {
    std::vector<char> buf;
    Message().U32(NFQA_MARK, 1).AppendTo(buf);
    Message().U32(NFQA_MARK, 2).AppendTo(buf);
    int calls = 0;
    MnlParser parser(
        m_tracer.Get(),
        [&](const nlmsghdr*, const nlattr**) -> int {
            ++calls;
            throw std::runtime_error("consumer failed");
        },
        kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(DebugTexts(), std::vector<std::string>{"Failure in callback"});
    EXPECT_TRUE(Errors().empty());
}

TEST_F(MnlParserTest, ThrowingOrEmptyCheckIsContained) {
    const MnlParser::Checker throwing = {
        {NFQA_MARK, [](const nlattr*) -> int { throw std::logic_error("check failed"); }}};
    const MnlParser::Checker empty = {{NFQA_IFINDEX_INDEV, nullptr}};
    const auto buf = Message().U32(NFQA_IFINDEX_INDEV, 2).U32(NFQA_MARK, 1).Bytes();
    for (const auto* checker : {&throwing, &empty}) {
        m_tracer->Clear();
        MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, checker);
        EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
        const std::string type = checker == &throwing ? "3" : "5";
        EXPECT_EQ(DebugTexts(),
                  std::vector<std::string>{"Failure in attribute check type=" + type});
        const auto errors = Errors();
        ASSERT_EQ(errors.size(), 1u);
        ExpectCannotProcess(errors[0]);
    }
    EXPECT_TRUE(m_seqs.empty());
}

TEST_F(MnlParserTest, ErrorMessageFailsWithItsErrno) {
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
    nlh->nlmsg_type = NLMSG_ERROR;
    static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nlmsgerr)))->error = -EPERM;
    buf.resize(nlh->nlmsg_len);
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    errno = 0;
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 0, 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(m_seqs.empty());
}

TEST_F(MnlParserTest, SequenceAndPortAreCheckedByLibmnl) {
    NfqueuePacket packet = nti::test::SampleInputPacket();
    packet.seq = 5;
    packet.portId = 77;
    const auto buf = nti::test::NfqueueMessage(packet);
    MnlParser parser(m_tracer.Get(), Recorder(), kNfqueueMaxAttribute, &NfqueueAttributeChecker());
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 5, 77), MNL_CB_OK);
    errno = 0;
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 6, 77), -1);
    EXPECT_EQ(errno, EPROTO);
    errno = 0;
    EXPECT_EQ(parser.Parse(buf.data(), buf.size(), 5, 78), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(m_seqs, std::vector<std::uint32_t>{5});
}

}  // namespace
