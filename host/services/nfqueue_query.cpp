#include "host/services/nfqueue_query.h"

#include <fstream>
#include <set>
#include <sstream>

namespace nti::host {

std::vector<QueueStats> ParseQueueStats(std::string_view text) {
    std::vector<QueueStats> result;
    std::istringstream in{std::string(text)};
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::uint32_t queue = 0;
        QueueStats s;
        if (fields >> queue >> s.portId >> s.waiting >> s.copyMode >> s.copyRange >>
                s.queueDropped >> s.userDropped >> s.idSequence &&
            queue <= 0xFFFF) {
            s.queue = static_cast<std::uint16_t>(queue);
            result.push_back(s);
        }
    }
    return result;
}

std::vector<QueueStats> ReadQueueStats(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        return {};
    }
    std::ostringstream text;
    text << file.rdbuf();
    return ParseQueueStats(text.str());
}

NfqueueQuery::NfqueueQuery(std::uint16_t first, std::uint16_t last, std::string procPath)
    : m_first(first), m_last(last), m_procPath(std::move(procPath)) {}

qor::result_t NfqueueQuery::GetAvailableQueue(std::uint32_t count,
                                              std::uint16_t* queueNum) noexcept {
    if (queueNum == nullptr || count == 0) {
        return qor::errors::kInvalidArgument;
    }
    try {
        std::set<std::uint16_t> bound;
        for (const QueueStats& s : ReadQueueStats(m_procPath)) {
            bound.insert(s.queue);
        }
        std::lock_guard lock(m_mutex);
        // A held number the kernel showed bound and no longer shows was
        // released by its user (socket closed, process gone).
        for (auto it = m_taken.begin(); it != m_taken.end();) {
            const bool isBound = bound.contains(it->first);
            if (it->second.seenBound && !isBound) {
                it = m_taken.erase(it);
                continue;
            }
            it->second.seenBound = it->second.seenBound || isBound;
            ++it;
        }
        std::uint32_t runStart = m_first;
        for (std::uint32_t q = m_first; q <= m_last; ++q) {
            const auto n = static_cast<std::uint16_t>(q);
            if (bound.contains(n) || m_taken.contains(n)) {
                runStart = q + 1;
                continue;
            }
            if (q - runStart + 1 == count) {
                for (std::uint32_t t = runStart; t <= q; ++t) {
                    m_taken.emplace(static_cast<std::uint16_t>(t), Hold{});
                }
                *queueNum = static_cast<std::uint16_t>(runStart);
                return qor::errors::kOk;
            }
        }
        return qor::errors::kNotFound;
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

void NfqueueQuery::ReleaseQueues(std::uint16_t first, std::uint32_t count) {
    std::lock_guard lock(m_mutex);
    for (std::uint32_t q = first; q < std::uint32_t{first} + count && q <= 0xFFFF; ++q) {
        m_taken.erase(static_cast<std::uint16_t>(q));
    }
}

std::vector<std::uint16_t> NfqueueQuery::Taken() const {
    std::lock_guard lock(m_mutex);
    std::vector<std::uint16_t> result;
    for (const auto& [q, hold] : m_taken) {
        result.push_back(q);
    }
    return result;
}

}  // namespace nti::host
