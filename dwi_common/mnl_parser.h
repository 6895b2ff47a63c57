// MnlParser: netlink messages of a netfilter socket into per-message
// callbacks with an attribute table indexed by attribute type. A thin, traced
// layer over libmnl's mnl_cb_run and mnl_attr_parse.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "qor/trace/tracer.h"

struct nlmsghdr;
struct nlattr;

namespace dwi::tools {

class MnlParser {
public:
    // Callback gets the message and its attribute table (null when the parser
    // has no maximum type); returns MNL_CB_OK (1), MNL_CB_STOP (0) or
    // MNL_CB_ERROR (-1).
    using Callback = std::function<int(const nlmsghdr*, const nlattr**)>;
    // Checker maps an attribute type to a validator; a negative result
    // rejects the attribute (and the whole message).
    using Checker = std::unordered_map<int, std::function<int(const nlattr*)>>;

    // The tracer and checker are not owned; the checker must outlive the
    // parser and keep its entries unchanged while the parser lives.
    MnlParser(qor::ITracer* tracer, Callback callback, std::optional<unsigned long> maxType,
              const Checker* checker);

    // Parse runs every message of `buf` through the callback, in order, until
    // one returns 0 or less; returns what mnl_cb_run returns: -1 when a
    // callback, a checker or the attribute walk failed (traced), and -1 with
    // errno set for libmnl's own failures, such as an NLMSG_ERROR message or a
    // sequence or port mismatch. A message that the end of the buffer cuts
    // short ends the walk quietly, as libmnl does. Never throws.
    [[nodiscard]] int Parse(const void* buf, std::size_t numBytes, unsigned int seq,
                            unsigned int portId) const;

    // ParseAttribute is the per-attribute step (libmnl callback convention):
    // stores `attr` in `table` by type unless its type is above the maximum
    // (skipped) or its checker entry rejects it or throws (MNL_CB_ERROR).
    int ParseAttribute(const nlattr** table, const nlattr* attr) const;

private:
    // AttributeWalk is the state of one message's attribute walk: the table
    // being filled, where the attribute after the last visited one starts,
    // and where the message ends.
    struct AttributeWalk {
        const MnlParser* parser;
        const nlattr** table;
        const char* next;
        const char* end;
    };

    // MessageStep is the libmnl message callback; `data` is the parser.
    static int MessageStep(const nlmsghdr* nlh, void* data) noexcept;
    int HandleMessage(const nlmsghdr* nlh) const noexcept;
    int StoreAttribute(const nlattr** table, const nlattr* attr) const;
    // CheckFailed and CheckRejected trace a checker that threw or said no.
    int CheckFailed(std::uint16_t type) const noexcept;
    int CheckRejected() const noexcept;

    qor::ITracer* m_tracer;
    Callback m_callback;
    std::optional<unsigned long> m_maxType;
    const Checker* m_checker;
    // m_tableMax is the maximum type, clamped to the 16 bits a type has.
    std::uint16_t m_tableMax;
    // m_checks indexes m_checker's entries by attribute type up to the
    // highest checked type: one hash lookup per attribute costs more than
    // the rest of the walk.
    std::vector<const Checker::mapped_type*> m_checks;
};

}  // namespace dwi::tools
