// Host tracer sinks: where the module's trace records end up.
#pragma once

#include <cstdint>
#include <string>

#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace nti::host {

// LineTracer writes one line per record: UTC time, thread id, level, text.
// Each line goes out with one write(2), so lines of concurrent threads never
// interleave.
class LineTracer : public qor::object::Ifaces<qor::ITracer> {
public:
    // LineTracer writes records up to `maxLevel` to `fd`, closing it at the
    // end when `ownsFd`.
    LineTracer(int fd, std::uint32_t maxLevel, bool ownsFd = false);
    ~LineTracer();
    LineTracer(const LineTracer&) = delete;
    LineTracer& operator=(const LineTracer&) = delete;

    qor::result_t BeginRecord(std::uint32_t level, std::uint32_t* position,
                              qor::TraceBuffer* buffer) noexcept override;
    qor::result_t CommitRecord(qor::TraceBuffer* buffer, std::uint32_t length) noexcept override;
    std::uint32_t GetMaxLevel() noexcept override { return m_maxLevel; }

private:
    int m_fd;
    std::uint32_t m_maxLevel;
    bool m_ownsFd;
};

// OpenFileTracer makes a LineTracer that appends to `path` and owns the file.
// Throws qor::SystemException when the file cannot be opened.
qor::object::ImplPtr<LineTracer> OpenFileTracer(const std::string& path, std::uint32_t maxLevel);

// DiscardingTracer accepts records up to a level and drops them.
class DiscardingTracer : public qor::object::Ifaces<qor::ITracer> {
public:
    explicit DiscardingTracer(std::uint32_t maxLevel) : m_maxLevel(maxLevel) {}
    qor::result_t BeginRecord(std::uint32_t level, std::uint32_t*,
                              qor::TraceBuffer*) noexcept override {
        return level > m_maxLevel ? qor::errors::kNotMatched : qor::errors::kOk;
    }
    qor::result_t CommitRecord(qor::TraceBuffer*, std::uint32_t) noexcept override { return 0; }
    std::uint32_t GetMaxLevel() noexcept override { return m_maxLevel; }

private:
    std::uint32_t m_maxLevel;
};

// FormatTraceLine builds the line LineTracer writes for `text` (exposed for tests).
std::string FormatTraceLine(std::int64_t unixNanos, long threadId, std::uint32_t level,
                            std::string_view text);

}  // namespace nti::host
