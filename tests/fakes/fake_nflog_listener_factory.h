// FakeNflogListenerFactory makes FakeNflogListeners; a test delivers NFLOG
// messages through a listener as the host's listener thread would.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "dwi/nflog/nflog.h"
#include "qor/object.h"
#include "tests/support/call_log.h"

namespace nti::test {

class FakeNflogListener : public qor::object::Ifaces<dwi::firewall::INflogListener> {
public:
    // Like the host's listener, it does not own its callback (which owns it).
    FakeNflogListener(dwi::firewall::INflogDataCallback* callback, CallLog* log)
        : m_callback(callback), m_log(log) {}

    qor::result_t Start(const std::vector<std::uint16_t>& groups) noexcept override {
        std::lock_guard lock(m_mutex);
        LogTo(m_log, "Listener Start");
        m_starts.push_back(groups);
        return m_startResult;
    }
    qor::result_t Stop() noexcept override {
        std::lock_guard lock(m_mutex);
        LogTo(m_log, "Listener Stop");
        ++m_stops;
        return m_stopResult;
    }

    // Deliver hands one parsed NFULNL_MSG_PACKET message to the callback.
    void Deliver(const nlmsghdr* message, const nlattr* const* attributes) {
        m_callback->OnData(message, attributes);
    }

    std::vector<std::vector<std::uint16_t>> Starts() const {
        std::lock_guard lock(m_mutex);
        return m_starts;
    }
    int Stops() const { return m_stops; }
    void FailStart(qor::result_t code) { m_startResult = code; }
    void FailStop(qor::result_t code) { m_stopResult = code; }

private:
    dwi::firewall::INflogDataCallback* m_callback;
    CallLog* m_log;
    mutable std::mutex m_mutex;
    std::vector<std::vector<std::uint16_t>> m_starts;
    std::atomic<int> m_stops{0};
    qor::result_t m_startResult = 0;
    qor::result_t m_stopResult = 0;
};

class FakeNflogListenerFactory : public qor::object::Ifaces<dwi::firewall::INflogListenerFactory> {
public:
    qor::result_t CreateListener(dwi::firewall::INflogDataCallback* callback,
                                 dwi::firewall::INflogListener** out) noexcept override {
        std::lock_guard lock(m_mutex);
        if (m_createResult < 0) {
            return m_createResult;
        }
        auto listener = qor::object::Create<FakeNflogListener>(callback, m_log);
        m_listeners.push_back(listener);
        *out = listener.Detach();
        return 0;
    }

    std::vector<qor::object::ImplPtr<FakeNflogListener>> Listeners() const {
        std::lock_guard lock(m_mutex);
        return m_listeners;
    }
    // Listener is the last listener made (null when none was).
    qor::object::ImplPtr<FakeNflogListener> Listener() const {
        std::lock_guard lock(m_mutex);
        return m_listeners.empty() ? nullptr : m_listeners.back();
    }
    void FailCreate(qor::result_t code) { m_createResult = code; }
    void SetLog(CallLog* log) { m_log = log; }

private:
    mutable std::mutex m_mutex;
    std::vector<qor::object::ImplPtr<FakeNflogListener>> m_listeners;
    qor::result_t m_createResult = 0;
    CallLog* m_log = nullptr;
};

}  // namespace nti::test
