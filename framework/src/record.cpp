#include "qor/trace/record.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qor::trace {

TraceRecord::TraceRecord(ITracer* tracer, std::uint32_t level) noexcept : m_tracer(tracer) {
    if (m_tracer == nullptr) {
        return;
    }
    m_buf.data = m_inline;
    m_buf.capacity = kInitialCapacity;
    std::uint32_t position = 0;
    if (m_tracer->BeginRecord(level, &position, &m_buf) != 0) {
        return;
    }
    // The reserved room must exist; give up quietly if it cannot.
    if (position > m_buf.capacity && !Reserve(position - m_buf.size)) {
        return;
    }
    m_buf.size = position;
    m_buf.start = position;
    m_accepted = true;
}

TraceRecord::~TraceRecord() {
    if (m_accepted) {
        // A destructor has nowhere to report a record the tracer refused.
        static_cast<void>(m_tracer->CommitRecord(&m_buf, m_buf.size));
    }
    if (m_buf.data != m_inline) {
        std::free(m_buf.data);
    }
}

bool TraceRecord::Reserve(std::uint32_t extra) noexcept {
    const std::uint64_t need = static_cast<std::uint64_t>(m_buf.size) + extra;
    if (need <= m_buf.capacity) {
        return true;
    }
    if (need > 0x7FFFFFFFu) {
        return false;
    }
    std::uint64_t capacity = m_buf.capacity * 2ull;
    while (capacity < need) {
        capacity *= 2;
    }
    char* grown = nullptr;
    if (m_buf.data == m_inline) {
        grown = static_cast<char*>(std::malloc(capacity));
        if (grown != nullptr) {
            std::memcpy(grown, m_inline, m_buf.size);
        }
    } else {
        grown = static_cast<char*>(std::realloc(m_buf.data, capacity));
    }
    if (grown == nullptr) {
        return false;  // the record stays truncated
    }
    m_buf.data = grown;
    m_buf.capacity = static_cast<std::uint32_t>(capacity);
    return true;
}

TraceRecord& TraceRecord::Write(std::string_view text) noexcept {
    if (!m_accepted) {
        return *this;
    }
    Pad(text.size());
    if (text.empty()) {
        return *this;  // an empty view may have a null data pointer
    }
    if (!Reserve(static_cast<std::uint32_t>(text.size()))) {
        const std::uint32_t room = m_buf.capacity - m_buf.size;
        text = text.substr(0, room);
    }
    std::memcpy(m_buf.data + m_buf.size, text.data(), text.size());
    m_buf.size += static_cast<std::uint32_t>(text.size());
    return *this;
}

void TraceRecord::Pad(std::size_t length) noexcept {
    if (m_width <= 0) {
        return;
    }
    const auto width = static_cast<std::size_t>(m_width);
    m_width = 0;  // width applies to one value, as with streams
    if (length >= width) {
        return;
    }
    std::size_t pad = width - length;
    if (!Reserve(static_cast<std::uint32_t>(pad))) {
        return;
    }
    std::memset(m_buf.data + m_buf.size, m_fill, pad);
    m_buf.size += static_cast<std::uint32_t>(pad);
}

TraceRecord& TraceRecord::WriteChar(char c) noexcept {
    return Write(std::string_view(&c, 1));
}

namespace {
std::size_t FormatUnsigned(char* end, std::uint64_t value, std::uint32_t flags) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const unsigned base = (flags & kHex) != 0 ? 16 : (flags & kOct) != 0 ? 8 : 10;
    char* p = end;
    do {
        *--p = kDigits[value % base];
        value /= base;
    } while (value != 0);
    if ((flags & kShowBase) != 0) {
        if (base == 16) {
            *--p = 'x';
            *--p = '0';
        } else if (base == 8 && *p != '0') {
            *--p = '0';
        }
    }
    return static_cast<std::size_t>(end - p);
}
}  // namespace

TraceRecord& TraceRecord::WriteUnsigned(std::uint64_t value) noexcept {
    if (!m_accepted) {
        return *this;
    }
    char buf[32];
    const std::size_t n = FormatUnsigned(buf + sizeof(buf), value, m_flags);
    return Write(std::string_view(buf + sizeof(buf) - n, n));
}

TraceRecord& TraceRecord::WriteSigned(std::int64_t value) noexcept {
    if (!m_accepted) {
        return *this;
    }
    if (value >= 0) {
        return WriteUnsigned(static_cast<std::uint64_t>(value));
    }
    char buf[32];
    const std::uint64_t magnitude = ~static_cast<std::uint64_t>(value) + 1;
    std::size_t n = FormatUnsigned(buf + sizeof(buf), magnitude, m_flags);
    buf[sizeof(buf) - n - 1] = '-';
    ++n;
    return Write(std::string_view(buf + sizeof(buf) - n, n));
}

TraceRecord& TraceRecord::WriteDouble(double value) noexcept {
    if (!m_accepted) {
        return *this;
    }
    char buf[512];
    // Two literal formats, so that the compiler checks the arguments of each.
    const int n = (m_flags & kScientific) != 0
                      ? std::snprintf(buf, sizeof(buf), "%*.*e", m_width, m_precision, value)
                      : std::snprintf(buf, sizeof(buf), "%*.*f", m_width, m_precision, value);
    m_width = 0;
    if (n > 0) {
        Write(std::string_view(
            buf, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof(buf) - 1)));
    }
    return *this;
}

TraceRecord& TraceRecord::WritePointer(const void* p) noexcept {
    if (p == nullptr) {
        return Write("null");
    }
    return *this << Hex0x{reinterpret_cast<std::uintptr_t>(p)};
}

TraceRecord& operator<<(TraceRecord& r, Hex0x value) noexcept {
    const std::uint32_t saved = r.Flags();
    r.SetFlags((saved & ~kBaseField) | kHex | kShowBase);
    r.WriteUnsigned(value.value);
    r.SetFlags(saved);
    return r;
}

TraceRecord& operator<<(TraceRecord& r, Result value) noexcept {
    if (!r) {
        return r;
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    char buf[10] = {'0', 'x'};
    auto code = static_cast<std::uint32_t>(value.code);
    for (int i = 9; i >= 2; --i) {
        buf[i] = kDigits[code & 0xF];
        code >>= 4;
    }
    return r.Write(std::string_view(buf, sizeof(buf)))
        .Write(" (")
        .Write(ResultText(value.code))
        .WriteChar(')');
}

}  // namespace qor::trace
