#include "host/services/journal_tracer.h"

#include <sys/syscall.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

#include "host/services/tracer_sink.h"
#include "qor/result.h"

namespace nti::host {

int JournalPriority(std::uint32_t level) noexcept {
    if (level <= qor::trace_level::kError) {
        return 3;
    }
    if (level <= qor::trace_level::kWarning) {
        return 4;
    }
    if (level <= 600) {
        return 5;
    }
    if (level <= qor::trace_level::kInfo) {
        return 6;
    }
    return 7;
}

JournalTracer::JournalTracer(std::uint32_t maxLevel, int fallbackFd, SendFn send,
                             std::string socketPath)
    : LevelSink(maxLevel),
      m_fallbackFd(fallbackFd),
      m_send(send ? send : &sd_journal_sendv),
      m_socketPath(std::move(socketPath)) {}

qor::result_t JournalTracer::Write(std::uint32_t level, std::string_view text) {
    const std::string priority = "PRIORITY=" + std::to_string(JournalPriority(level));
    const std::string message = "MESSAGE=" + std::string(text);
    const std::string traceLevel = "NTI_TRACE_LEVEL=" + std::to_string(level);
    const std::string tid = "TID=" + std::to_string(syscall(SYS_gettid));
    const std::string identifier =
        std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name;
    const std::string* fields[] = {&priority, &message, &traceLevel, &tid, &identifier};
    iovec iov[std::size(fields)];
    for (std::size_t i = 0; i < std::size(fields); ++i) {
        iov[i].iov_base = const_cast<char*>(fields[i]->data());
        iov[i].iov_len = fields[i]->size();
    }
    const int sent = access(m_socketPath.c_str(), W_OK) == 0
                         ? m_send(iov, static_cast<int>(std::size(iov)))
                         : -errno;
    std::lock_guard lock(m_fallbackMutex);
    if (sent >= 0) {
        m_inFallback = false;
        return qor::errors::kOk;
    }
    if (!m_inFallback) {
        m_inFallback = true;
        const std::string notice = "journal unavailable (" + std::system_category().message(-sent) +
                                   "), traces go here until it takes entries again";
        // The trace line below reports the same descriptor failing.
        static_cast<void>(
            WriteAll(m_fallbackFd, FormatTraceLineNow(qor::trace_level::kWarning, notice)));
    }
    return WriteAll(m_fallbackFd, FormatTraceLineNow(level, text));
}

}  // namespace nti::host
