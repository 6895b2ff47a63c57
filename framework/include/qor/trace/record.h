// TraceRecord formats one trace message into a record buffer.
//
// The level test comes first: a refused record costs one virtual call and
// formats nothing. Use through QOR_TRACE so that the streamed arguments are
// not even evaluated when the level is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "qor/result.h"
#include "qor/trace/tracer.h"

namespace qor::trace {

// Stream-formatting flags of a record.
enum FormatFlags : std::uint32_t {
    kDec = 1u << 0,
    kHex = 1u << 1,
    kOct = 1u << 2,
    kShowBase = 1u << 3,
    kSkipWs = 1u << 4,
    kFixed = 1u << 5,
    kScientific = 1u << 6,
    kBaseField = kDec | kHex | kOct,
    kFloatField = kFixed | kScientific,
};

class TraceRecord {
public:
    static constexpr std::uint32_t kInitialCapacity = 512;

    TraceRecord(ITracer* tracer, std::uint32_t level) noexcept;
    TraceRecord(const TraceRecord&) = delete;
    TraceRecord& operator=(const TraceRecord&) = delete;
    // Commits an accepted record.
    ~TraceRecord();

    explicit operator bool() const noexcept { return m_accepted; }

    // Text written so far (without reserved prefix room).
    std::string_view Text() const noexcept {
        return {m_buf.data + m_buf.start, m_buf.size - m_buf.start};
    }

    TraceRecord& Write(std::string_view text) noexcept;
    TraceRecord& WriteChar(char c) noexcept;
    TraceRecord& WriteSigned(std::int64_t value) noexcept;
    TraceRecord& WriteUnsigned(std::uint64_t value) noexcept;
    TraceRecord& WriteDouble(double value) noexcept;
    TraceRecord& WritePointer(const void* p) noexcept;

    std::uint32_t Flags() const noexcept { return m_flags; }
    void SetFlags(std::uint32_t flags) noexcept { m_flags = flags; }
    void SetField(std::uint32_t value, std::uint32_t field) noexcept {
        m_flags = (m_flags & ~field) | value;
    }
    void SetWidth(int width) noexcept { m_width = width; }
    void SetPrecision(int precision) noexcept { m_precision = precision; }
    void SetFill(char fill) noexcept { m_fill = fill; }

private:
    bool Reserve(std::uint32_t extra) noexcept;
    void Pad(std::size_t length) noexcept;

    ITracer* m_tracer;
    bool m_accepted = false;
    TraceBuffer m_buf;
    std::uint32_t m_flags = kDec | kSkipWs;
    int m_precision = 6;
    int m_width = 0;
    char m_fill = ' ';
    char m_inline[kInitialCapacity];
};

// Manipulators.
inline TraceRecord& hex(TraceRecord& r) noexcept {
    r.SetField(kHex, kBaseField);
    return r;
}
inline TraceRecord& dec(TraceRecord& r) noexcept {
    r.SetField(kDec, kBaseField);
    return r;
}
inline TraceRecord& oct(TraceRecord& r) noexcept {
    r.SetField(kOct, kBaseField);
    return r;
}
inline TraceRecord& showbase(TraceRecord& r) noexcept {
    r.SetFlags(r.Flags() | kShowBase);
    return r;
}
inline TraceRecord& noshowbase(TraceRecord& r) noexcept {
    r.SetFlags(r.Flags() & ~kShowBase);
    return r;
}
inline TraceRecord& fixed(TraceRecord& r) noexcept {
    r.SetField(kFixed, kFloatField);
    return r;
}
inline TraceRecord& scientific(TraceRecord& r) noexcept {
    r.SetField(kScientific, kFloatField);
    return r;
}
struct SetWidth {
    int width;
};
struct SetPrecision {
    int precision;
};
struct SetFill {
    char fill;
};
// Hex0x writes "0x" and lower-case digits without leading zeros, leaving the
// record's flags alone.
struct Hex0x {
    std::uint64_t value;
};
// Result writes a result code in its formatted form.
struct Result {
    result_t code;
};

inline TraceRecord& operator<<(TraceRecord& r, TraceRecord& (*manip)(TraceRecord&)) noexcept {
    return manip(r);
}
inline TraceRecord& operator<<(TraceRecord& r, SetWidth w) noexcept {
    r.SetWidth(w.width);
    return r;
}
inline TraceRecord& operator<<(TraceRecord& r, SetPrecision p) noexcept {
    r.SetPrecision(p.precision);
    return r;
}
inline TraceRecord& operator<<(TraceRecord& r, SetFill f) noexcept {
    r.SetFill(f.fill);
    return r;
}
inline TraceRecord& operator<<(TraceRecord& r, std::string_view s) noexcept {
    return r.Write(s);
}
inline TraceRecord& operator<<(TraceRecord& r, const char* s) noexcept {
    return s != nullptr ? r.Write(s) : r.Write("null");
}
inline TraceRecord& operator<<(TraceRecord& r, const std::string& s) noexcept {
    return r.Write(s);
}
inline TraceRecord& operator<<(TraceRecord& r, char c) noexcept {
    return r.WriteChar(c);
}
inline TraceRecord& operator<<(TraceRecord& r, bool b) noexcept {
    return r.WriteUnsigned(b ? 1 : 0);
}
template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                        !std::is_same_v<T, char>,
                                    int> = 0>
TraceRecord& operator<<(TraceRecord& r, T value) noexcept {
    if constexpr (std::is_signed_v<T>) {
        return r.WriteSigned(static_cast<std::int64_t>(value));
    } else {
        return r.WriteUnsigned(static_cast<std::uint64_t>(value));
    }
}
template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
TraceRecord& operator<<(TraceRecord& r, T value) noexcept {
    return r << static_cast<std::underlying_type_t<T>>(value);
}
inline TraceRecord& operator<<(TraceRecord& r, double value) noexcept {
    return r.WriteDouble(value);
}
inline TraceRecord& operator<<(TraceRecord& r, const void* p) noexcept {
    return r.WritePointer(p);
}
inline TraceRecord& operator<<(TraceRecord& r, std::nullptr_t) noexcept {
    return r.Write("null");
}
TraceRecord& operator<<(TraceRecord& r, Hex0x value) noexcept;
TraceRecord& operator<<(TraceRecord& r, Result value) noexcept;
template <class T>
TraceRecord& operator<<(TraceRecord& r, const std::optional<T>& value) noexcept {
    if (!value) {
        return r.Write("null");
    }
    return r << *value;
}

}  // namespace qor::trace

// QOR_TRACE(tracer, level) << ...; streams a record when `level` is accepted.
// A refused level costs one virtual call: no record is even constructed. Its
// two empty branches are alike on purpose, not a copy-paste slip.
// NOLINTBEGIN(bugprone-branch-clone)
#define QOR_TRACE(tracer, level)                                                        \
    if (::qor::ITracer* const qor_trace_tracer_ = (tracer);                             \
        qor_trace_tracer_ == nullptr ||                                                 \
        qor_trace_tracer_->BeginRecord((level), nullptr, nullptr) != 0) {               \
    } else if (::qor::trace::TraceRecord qor_trace_record_{qor_trace_tracer_, (level)}; \
               !qor_trace_record_) {                                                    \
    } else                                                                              \
        qor_trace_record_
// NOLINTEND(bugprone-branch-clone)
