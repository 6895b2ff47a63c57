// Host tracer sinks: where the module's trace records end up.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace nti::host {

// LevelSink is the base of the sinks that need a record's level when it is
// committed: it keeps the level in room reserved in front of the text and
// hands level and text to Write.
class LevelSink : public qor::object::Ifaces<qor::ITracer> {
public:
    explicit LevelSink(std::uint32_t maxLevel) : m_maxLevel(maxLevel) {}

    [[nodiscard]] qor::result_t BeginRecord(std::uint32_t level, std::uint32_t* position,
                                            qor::TraceBuffer* buffer) noexcept override;
    [[nodiscard]] qor::result_t CommitRecord(qor::TraceBuffer* buffer,
                                             std::uint32_t length) noexcept override;
    std::uint32_t GetMaxLevel() noexcept override { return m_maxLevel; }

protected:
    ~LevelSink() override = default;
    // Write delivers one record; an exception becomes 0x80000041 (out of memory).
    [[nodiscard]] virtual qor::result_t Write(std::uint32_t level, std::string_view text) = 0;

private:
    std::uint32_t m_maxLevel;
};

// WriteAll writes `data` to `fd`, retrying short and interrupted writes.
// Returns 0 or the code of the errno that stopped it.
[[nodiscard]] qor::result_t WriteAll(int fd, std::string_view data) noexcept;

// LineTracer writes one line per record: UTC time, thread id, level, text.
// Each line goes out with one write(2), so lines of concurrent threads never
// interleave.
class LineTracer : public LevelSink {
public:
    // LineTracer writes records up to `maxLevel` to `fd`, closing it at the
    // end when `ownsFd`.
    LineTracer(int fd, std::uint32_t maxLevel, bool ownsFd = false);
    ~LineTracer() override;
    LineTracer(const LineTracer&) = delete;
    LineTracer& operator=(const LineTracer&) = delete;

protected:
    [[nodiscard]] qor::result_t Write(std::uint32_t level, std::string_view text) override;

private:
    int m_fd;
    bool m_ownsFd;
};

// OpenFileTracer makes a LineTracer that appends to `path` and owns the file.
// Throws qor::SystemException when the file cannot be opened.
qor::object::ImplPtr<LineTracer> OpenFileTracer(const std::string& path, std::uint32_t maxLevel);

// DiscardingTracer accepts records up to a level and drops them.
class DiscardingTracer : public qor::object::Ifaces<qor::ITracer> {
public:
    explicit DiscardingTracer(std::uint32_t maxLevel) : m_maxLevel(maxLevel) {}
    [[nodiscard]] qor::result_t BeginRecord(std::uint32_t level, std::uint32_t*,
                                            qor::TraceBuffer*) noexcept override {
        return level > m_maxLevel ? qor::errors::kNotMatched : qor::errors::kOk;
    }
    [[nodiscard]] qor::result_t CommitRecord(qor::TraceBuffer*, std::uint32_t) noexcept override {
        return 0;
    }
    std::uint32_t GetMaxLevel() noexcept override { return m_maxLevel; }

private:
    std::uint32_t m_maxLevel;
};

// FormatTraceLine builds the line LineTracer writes for `text` (exposed for tests).
std::string FormatTraceLine(std::int64_t unixNanos, long threadId, std::uint32_t level,
                            std::string_view text);
// FormatTraceLineNow stamps the line with the current time and thread.
std::string FormatTraceLineNow(std::uint32_t level, std::string_view text);

}  // namespace nti::host
