// JournalTracer: the host tracer sink that writes to the systemd journal.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "host/services/tracer_sink.h"

namespace nti::host {

// JournalPriority maps a trace level to a syslog priority: up to 300 err (3),
// up to 500 warning (4), up to 600 notice (5), up to 700 info (6), above that
// debug (7).
int JournalPriority(std::uint32_t level) noexcept;

// JournalTracer sends each record up to `maxLevel` as one journal entry with
// the fields PRIORITY, MESSAGE (the text), NTI_TRACE_LEVEL, TID and
// SYSLOG_IDENTIFIER.
//
// Fallback: when the journal cannot take an entry, the record is written as a
// trace line to `fallbackFd` instead, after a single notice line naming the
// error; the notice is repeated only after the journal has taken an entry
// again. That covers a refused send (full socket buffer...) and a missing
// journal socket (a container, early boot), which sd_journal_sendv would
// report as success while dropping the entry: the socket is looked for before
// every send. Records are never dropped silently and the sink never throws.
class JournalTracer : public LevelSink {
public:
    // SendFn has the contract of sd_journal_sendv: 0, or a negative errno.
    using SendFn = int (*)(const struct iovec* fields, int count);

    static constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

    // A null `send` means sd_journal_sendv; `socketPath` is where journald
    // listens.
    JournalTracer(std::uint32_t maxLevel, int fallbackFd, SendFn send = nullptr,
                  std::string socketPath = kJournalSocket);
    JournalTracer(const JournalTracer&) = delete;
    JournalTracer& operator=(const JournalTracer&) = delete;

protected:
    [[nodiscard]] qor::result_t Write(std::uint32_t level, std::string_view text) override;

private:
    int m_fallbackFd;
    SendFn m_send;
    std::string m_socketPath;
    std::mutex m_fallbackMutex;  // keeps the notice ahead of the lines it explains
    bool m_inFallback = false;
};

}  // namespace nti::host
