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
using Context = std::pair<const MnlParser*, Table&>;

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

// AttributesFillMessage is true when the attribute walk reaches the end of the
// message. libmnl's walk stops quietly at an attribute that overruns the
// message; such a message is broken, not short.
bool AttributesFillMessage(const nlmsghdr* nlh) noexcept {
    const auto* tail = static_cast<const char*>(mnl_nlmsg_get_payload_tail(nlh));
    const auto* attr =
        static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(nlh, sizeof(nfgenmsg)));
    while (mnl_attr_ok(attr, static_cast<int>(tail - reinterpret_cast<const char*>(attr)))) {
        attr = mnl_attr_next(attr);
    }
    return tail - reinterpret_cast<const char*>(attr) <= 0;
}

}  // namespace

MnlParser::MnlParser(qor::ITracer* tracer, Callback callback, std::optional<unsigned long> maxType,
                     const Checker* checker)
    : m_tracer(tracer), m_callback(std::move(callback)), m_maxType(maxType), m_checker(checker) {}

int MnlParser::Parse(const void* buf, std::size_t numBytes, unsigned int seq,
                     unsigned int portId) const {
    QOR_TRACE(m_tracer, qor::trace_level::kDebug)
        << kParseFunction << " buf=" << qor::trace::Hex0x{reinterpret_cast<std::uintptr_t>(buf)}
        << " numBytes=" << numBytes << " seq=" << seq << " portId=" << portId << " bufDump:\n"
        << HexDump{buf, numBytes};
    const mnl_cb_t step = m_callback ? &MnlParser::MessageStep : nullptr;
    return mnl_cb_run(buf, numBytes, seq, portId, step, const_cast<MnlParser*>(this));
}

int MnlParser::MessageStep(const nlmsghdr* nlh, void* data) noexcept {
    return static_cast<const MnlParser*>(data)->HandleMessage(nlh);
}

int MnlParser::HandleMessage(const nlmsghdr* nlh) const noexcept {
    try {
        if (!m_maxType) {
            return m_callback(nlh, nullptr);
        }
        Table table(std::min<unsigned long>(*m_maxType, UINT16_MAX) + 1, nullptr);
        Context context{this, table};
        if (mnl_attr_parse(
                nlh, sizeof(nfgenmsg),
                [](const nlattr* attr, void* data) noexcept {
                    const auto context = static_cast<Context*>(data);
                    return context->first->ParseAttribute(context->second.data(), attr);
                },
                &context) != MNL_CB_OK ||
            !AttributesFillMessage(nlh)) {
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
    if (!m_maxType || mnl_attr_type_valid(attr, static_cast<std::uint16_t>(std::min<unsigned long>(
                                                    *m_maxType, UINT16_MAX))) < 0) {
        return MNL_CB_OK;
    }
    const std::uint16_t type = mnl_attr_get_type(attr);
    if (m_checker == nullptr) {
        table[type] = attr;
        return MNL_CB_OK;
    }
    try {
        const auto it = m_checker->find(type);
        if (it == m_checker->end() || it->second(attr) >= 0) {
            table[type] = attr;
            return MNL_CB_OK;
        }
    } catch (...) {
        QOR_TRACE(m_tracer, qor::trace_level::kDebug) << "Failure in attribute check type=" << type;
        return MNL_CB_ERROR;
    }
    QOR_TRACE(m_tracer, qor::trace_level::kError)
        << check::BoolHead{QOR_AT(kCheckerLine), kCheckerCondition};
    return MNL_CB_ERROR;
}

}  // namespace dwi::tools
