// CallLog records calls made on several fakes in one order, for lifecycle
// assertions across services.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace nti::test {

class CallLog {
public:
    void Add(std::string entry) {
        std::lock_guard lock(m_mutex);
        m_entries.push_back(std::move(entry));
    }
    std::vector<std::string> Entries() const {
        std::lock_guard lock(m_mutex);
        return m_entries;
    }
    void Clear() {
        std::lock_guard lock(m_mutex);
        m_entries.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
};

// LogTo appends to `log` when there is one.
inline void LogTo(CallLog* log, std::string entry) {
    if (log != nullptr) {
        log->Add(std::move(entry));
    }
}

}  // namespace nti::test
