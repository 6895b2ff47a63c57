#include "host/services/tracer_sink.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "qor/exception.h"

namespace nti::host {

std::string FormatTraceLine(std::int64_t unixNanos, long threadId, std::uint32_t level,
                            std::string_view text) {
    const std::time_t seconds = static_cast<std::time_t>(unixNanos / 1000000000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char head[96];
    const int n = std::snprintf(
        head, sizeof(head), "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ %ld %u ", utc.tm_year + 1900,
        utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
        static_cast<long long>((unixNanos % 1000000000) / 1000), threadId, level);
    std::string line(head, n > 0 ? static_cast<std::size_t>(n) : 0);
    line.append(text);
    line.push_back('\n');
    return line;
}

std::string FormatTraceLineNow(std::uint32_t level, std::string_view text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return FormatTraceLine(static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec,
                           static_cast<long>(syscall(SYS_gettid)), level, text);
}

LineTracer::LineTracer(int fd, std::uint32_t maxLevel, bool ownsFd)
    : LevelSink(maxLevel), m_fd(fd), m_ownsFd(ownsFd) {}

LineTracer::~LineTracer() {
    if (m_ownsFd) {
        close(m_fd);
    }
}

// The level travels from BeginRecord to CommitRecord in the room reserved in
// front of the text.
qor::result_t LevelSink::BeginRecord(std::uint32_t level, std::uint32_t* position,
                                     qor::TraceBuffer* buffer) noexcept {
    if (level > m_maxLevel) {
        return qor::errors::kNotMatched;
    }
    if (buffer != nullptr && position != nullptr) {
        if (buffer->capacity < sizeof(level)) {
            return qor::errors::kBufferTooSmall;
        }
        std::memcpy(buffer->data, &level, sizeof(level));
        *position += sizeof(level);
    }
    return qor::errors::kOk;
}

qor::result_t LevelSink::CommitRecord(qor::TraceBuffer* buffer, std::uint32_t length) noexcept {
    std::uint32_t level = 0;
    if (buffer == nullptr || length < sizeof(level) || length > buffer->size) {
        return qor::errors::kInvalidArgument;
    }
    std::memcpy(&level, buffer->data, sizeof(level));
    try {
        return Write(level, std::string_view(buffer->data + sizeof(level), length - sizeof(level)));
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

[[nodiscard]] qor::result_t WriteAll(int fd, std::string_view data) noexcept {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return qor::ErrnoToResult(errno);
        }
        done += static_cast<std::size_t>(n);
    }
    return qor::errors::kOk;
}

qor::result_t LineTracer::Write(std::uint32_t level, std::string_view text) {
    return WriteAll(m_fd, FormatTraceLineNow(level, text));
}

qor::object::ImplPtr<LineTracer> OpenFileTracer(const std::string& path, std::uint32_t maxLevel) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd < 0) {
        throw qor::SystemException("Cannot open trace file " + path, QOR_HERE, errno);
    }
    return qor::object::Create<LineTracer>(fd, maxLevel, true);
}

}  // namespace nti::host
