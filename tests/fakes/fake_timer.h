// FakeTimer schedules runnables without running them; the test fires them by
// hand. CancelAndWait waits for a Fire in progress, like the host's timer.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "qor/object.h"
#include "qor/timer.h"
#include "tests/support/call_log.h"

namespace nti::test {

class FakeTimer : public qor::object::Ifaces<qor::ITimer> {
public:
    struct Entry {
        qor::RefPtr<qor::IRunnable> runnable;
        std::uint32_t period;
    };

    qor::result_t SetRepeated(qor::IRunnable* runnable, std::uint32_t period) noexcept override {
        std::lock_guard lock(m_mutex);
        LogTo(m_log, "SetRepeated " + std::to_string(period));
        ++m_setCount;
        if (m_setResult < 0) {
            return m_setResult;
        }
        if (m_failSetAfter >= 0 && m_setCount > static_cast<std::uint32_t>(m_failSetAfter)) {
            return qor::errors::kUnexpected;
        }
        auto it = Find(runnable);
        if (it != m_entries.end()) {
            it->period = period;
        } else {
            m_entries.push_back({qor::RefPtr<qor::IRunnable>(runnable), period});
        }
        return 0;
    }

    qor::result_t CancelAndWait(qor::IRunnable* runnable) noexcept override {
        if (m_onCancel) {
            m_onCancel(runnable);
        }
        qor::RefPtr<qor::IRunnable> released;  // dropped outside the lock
        std::unique_lock lock(m_mutex);
        LogTo(m_log, "CancelAndWait");
        ++m_cancelCount;
        m_idle.wait(lock, [&] {
            return std::find(m_running.begin(), m_running.end(), runnable) == m_running.end();
        });
        if (m_cancelResult < 0) {
            return m_cancelResult;
        }
        auto it = Find(runnable);
        if (it == m_entries.end()) {
            return qor::errors::kNotFound;
        }
        released = std::move(it->runnable);
        m_entries.erase(it);
        return 0;
    }

    // Fire runs a scheduled runnable on the calling thread; 0x8000004C when it
    // is not scheduled.
    qor::result_t Fire(qor::IRunnable* runnable) {
        qor::RefPtr<qor::IRunnable> held;
        {
            std::lock_guard lock(m_mutex);
            auto it = Find(runnable);
            if (it == m_entries.end()) {
                return qor::errors::kNotFound;
            }
            held = it->runnable;
            m_running.push_back(runnable);
        }
        const qor::result_t result = held->Run();
        {
            std::lock_guard lock(m_mutex);
            m_running.erase(std::find(m_running.begin(), m_running.end(), runnable));
        }
        m_idle.notify_all();
        return result;
    }

    std::vector<Entry> Scheduled() const {
        std::lock_guard lock(m_mutex);
        return m_entries;
    }
    // Latest is the runnable scheduled last (null when none is).
    qor::IRunnable* Latest() const {
        std::lock_guard lock(m_mutex);
        return m_entries.empty() ? nullptr : m_entries.back().runnable.Get();
    }
    std::uint32_t SetCount() const { return m_setCount; }
    std::uint32_t CancelCount() const { return m_cancelCount; }

    void FailSet(qor::result_t code) { m_setResult = code; }
    // FailSetAfter lets `count` SetRepeated calls succeed, then fails them.
    void FailSetAfter(int count) { m_failSetAfter = static_cast<int>(m_setCount) + count; }
    void FailCancel(qor::result_t code) { m_cancelResult = code; }
    // OnCancel runs first thing in CancelAndWait, outside the fake's lock.
    void OnCancel(std::function<void(qor::IRunnable*)> hook) { m_onCancel = std::move(hook); }
    void SetLog(CallLog* log) { m_log = log; }

private:
    std::vector<Entry>::iterator Find(qor::IRunnable* runnable) {
        return std::find_if(m_entries.begin(), m_entries.end(),
                            [&](const Entry& e) { return e.runnable.Get() == runnable; });
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_idle;
    std::vector<Entry> m_entries;
    std::vector<qor::IRunnable*> m_running;
    std::atomic<std::uint32_t> m_setCount{0};
    std::atomic<std::uint32_t> m_cancelCount{0};
    std::atomic<qor::result_t> m_setResult{0};
    std::atomic<int> m_failSetAfter{-1};
    std::atomic<qor::result_t> m_cancelResult{0};
    std::function<void(qor::IRunnable*)> m_onCancel;
    CallLog* m_log = nullptr;
};

}  // namespace nti::test
