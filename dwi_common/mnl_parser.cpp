#include "dwi_common/mnl_parser.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include <boost/container/small_vector.hpp>

#include "dwi_tracing/check.h"
#include "qor/trace/record.h"

namespace dwi::tools {
namespace {

using qor::trace::TraceRecord;

constexpr std::string_view kParseFunction =
    "int dwi::tools::MnlParser::Parse(const void*, size_t, unsigned int, unsigned int) const";
constexpr std::string_view kAttributeParseCondition =
    "mnl_attr_parse(nlh, sizeof(nfgenmsg), [](const nlattr* attr, void* data) noexcept { const "
    "auto context = static_cast<Context*>(data); return "
    "context->first->ParseAttribute(context->second.data(), attr); }, &context) == 1";
constexpr std::string_view kCheckerCondition = "it == m_checker->end() || it->second(attr) >= 0";
// The checker's record keeps this line whatever the file looks like.
constexpr std::uint32_t kCheckerLine = 76;

// Kernel families keep their attribute maxima far below this; a larger
// table would only hold null pointers.
using Table = boost::container::small_vector<const nlattr*, 32>;

// HexDump writes 16 bytes to a line: the offset, then the bytes in two
// groups of eight.
struct HexDump {
    const void* data;
    std::size_t size;
};

TraceRecord& operator<<(TraceRecord& r, HexDump dump) noexcept {
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto* bytes = static_cast<const unsigned char*>(dump.data);
    for (std::size_t offset = 0; offset < dump.size; offset += 16) {
        char line[8 + 2 + 16 * 3 + 1];
        std::size_t n = 0;
        for (int shift = 28; shift >= 0; shift -= 4) {
            line[n++] = kDigits[(offset >> shift) & 0xF];
        }
        line[n++] = ' ';
        const std::size_t end = std::min(dump.size, offset + 16);
        for (std::size_t i = offset; i < end; ++i) {
            line[n++] = ' ';
            if (i - offset == 8) {
                line[n++] = ' ';
            }
            line[n++] = kDigits[bytes[i] >> 4];
            line[n++] = kDigits[bytes[i] & 0xF];
        }
        if (offset != 0) {
            r << '\n';
        }
        r << std::string_view(line, n);
    }
    return r;
}

// NextHeaderFits is false when 1 to 3 bytes are left between `next` and the
// message's end `end`: libmnl would read an attribute header there, which
// reaches into the padding or beyond the buffer.
bool NextHeaderFits(const char* next, const char* end) noexcept {
    return next >= end || static_cast<std::size_t>(end - next) >= sizeof(nlattr);
}

// WalkableLength is how much of `buf` mnl_cb_run may walk. libmnl compares a
// message length as int, so a length with bit 31 set passes its check and
// moves the walk far beyond the buffer; the buffer ends before such a
// message. Any other bad length is left to libmnl, which stops there itself.
std::size_t WalkableLength(const void* buf, std::size_t numBytes) noexcept {
    std::size_t offset = 0;
    while (numBytes - offset >= sizeof(nlmsghdr)) {
        const auto* nlh = reinterpret_cast<const nlmsghdr*>(static_cast<const char*>(buf) + offset);
        if (nlh->nlmsg_len > INT32_MAX) {
            return offset;
        }
        if (nlh->nlmsg_len < sizeof(nlmsghdr) || nlh->nlmsg_len > numBytes - offset) {
            break;
        }
        offset += std::min<std::size_t>(MNL_ALIGN(nlh->nlmsg_len), numBytes - offset);
    }
    return numBytes;
}

}  // namespace

MnlParser::MnlParser(qor::ITracer* tracer, Callback callback, std::optional<unsigned long> maxType,
                     const Checker* checker)
    : m_tracer(tracer),
      m_callback(std::move(callback)),
      m_maxType(maxType),
      m_checker(checker),
      m_tableMax(
          static_cast<std::uint16_t>(std::min<unsigned long>(maxType.value_or(0), UINT16_MAX))) {
    if (m_checker == nullptr || !m_maxType) {
        return;
    }
    for (const auto& [type, check] : *m_checker) {
        if (type < 0 || type > m_tableMax) {
            continue;  // never looked up: the type is skipped or impossible
        }
        if (static_cast<std::size_t>(type) >= m_checks.size()) {
            m_checks.resize(type + 1, nullptr);
        }
        m_checks[type] = &check;
    }
}

int MnlParser::Parse(const void* buf, std::size_t numBytes, unsigned int seq,
                     unsigned int portId) const {
    QOR_TRACE(m_tracer, qor::trace_level::kDebug)
        << kParseFunction << " buf=" << qor::trace::Hex0x{reinterpret_cast<std::uintptr_t>(buf)}
        << " numBytes=" << numBytes << " seq=" << seq << " portId=" << portId << " bufDump:\n"
        << HexDump{buf, numBytes};
    const mnl_cb_t step = m_callback ? &MnlParser::MessageStep : nullptr;
    return mnl_cb_run(buf, WalkableLength(buf, numBytes), seq, portId, step,
                      const_cast<MnlParser*>(this));
}

// StoreAttribute is ParseAttribute, inlined into the attribute walk. The type
// test is mnl_attr_type_valid's and the type mnl_attr_get_type's, read here
// rather than through two library calls for every attribute.
[[gnu::always_inline]] inline int MnlParser::StoreAttribute(const nlattr** table,
                                                            const nlattr* attr) const {
    const std::uint16_t type = attr->nla_type & NLA_TYPE_MASK;
    if (!m_maxType || type > m_tableMax) {
        return MNL_CB_OK;
    }
    if (const Checker::mapped_type* check = type < m_checks.size() ? m_checks[type] : nullptr;
        check != nullptr) {
        int verdict = 0;
        try {
            verdict = (*check)(attr);
        } catch (...) {
            return CheckFailed(type);
        }
        if (verdict < 0) {
            return CheckRejected();
        }
    }
    table[type] = attr;
    return MNL_CB_OK;
}

int MnlParser::MessageStep(const nlmsghdr* nlh, void* data) noexcept {
    return static_cast<const MnlParser*>(data)->HandleMessage(nlh);
}

int MnlParser::HandleMessage(const nlmsghdr* nlh) const noexcept {
    try {
        if (!m_maxType) {
            return m_callback(nlh, nullptr);
        }
        Table table(m_tableMax + 1, nullptr);
        const auto* first =
            static_cast<const char*>(mnl_nlmsg_get_payload_offset(nlh, sizeof(nfgenmsg)));
        AttributeWalk state{this, table.data(), first,
                            reinterpret_cast<const char*>(nlh) + nlh->nlmsg_len};
        // libmnl's walk stops quietly at an attribute that overruns the
        // message, lets the last one run into the message's padding, and
        // reads a header from stray bytes at the end. Such a message is
        // broken, not short: the attributes must fill it exactly, and the
        // walk stops before libmnl would read past the message.
        if (first > state.end || !NextHeaderFits(first, state.end) ||
            mnl_attr_parse(
                nlh, sizeof(nfgenmsg),
                [](const nlattr* attr, void* data) noexcept {
                    const auto walk = static_cast<AttributeWalk*>(data);
                    const auto* at = reinterpret_cast<const char*>(attr);
                    walk->next = at + MNL_ALIGN(attr->nla_len);
                    if (at + attr->nla_len > walk->end || !NextHeaderFits(walk->next, walk->end)) {
                        return MNL_CB_ERROR;
                    }
                    return walk->parser->StoreAttribute(walk->table, attr);
                },
                &state) != MNL_CB_OK ||
            state.next < state.end) {
            DWI_BOOL_RECORD(m_tracer, qor::trace_level::kError, QOR_HERE, kAttributeParseCondition)
                << "Cannot process MNL packet";
            return MNL_CB_ERROR;
        }
        return m_callback(nlh, table.data());
    } catch (...) {
        QOR_TRACE(m_tracer, qor::trace_level::kDebug) << "Failure in callback";
        return MNL_CB_ERROR;
    }
}

int MnlParser::ParseAttribute(const nlattr** table, const nlattr* attr) const {
    return StoreAttribute(table, attr);
}

int MnlParser::CheckFailed(std::uint16_t type) const noexcept {
    QOR_TRACE(m_tracer, qor::trace_level::kDebug) << "Failure in attribute check type=" << type;
    return MNL_CB_ERROR;
}

int MnlParser::CheckRejected() const noexcept {
    QOR_TRACE(m_tracer, qor::trace_level::kError)
        << check::BoolHead{QOR_AT(kCheckerLine), kCheckerCondition};
    return MNL_CB_ERROR;
}

}  // namespace dwi::tools
