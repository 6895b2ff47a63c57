#include "host/services/timer.h"

#include <sys/prctl.h>

#include <utility>

namespace nti::host {

void TimerSchedule::Set(Key key, Clock::duration period, Clock::time_point now) {
    const std::uint64_t generation = ++m_generation;
    m_entries[key] = Entry{period, generation};
    m_heap.push(Due{now + period, m_sequence++, key, generation});
}

bool TimerSchedule::Remove(Key key) {
    return m_entries.erase(key) != 0;
}

void TimerSchedule::DropStale() {
    while (!m_heap.empty()) {
        const Due& top = m_heap.top();
        const auto it = m_entries.find(top.key);
        if (it != m_entries.end() && it->second.generation == top.generation) {
            return;
        }
        m_heap.pop();
    }
}

std::optional<TimerSchedule::Clock::time_point> TimerSchedule::NextDue() {
    DropStale();
    if (m_heap.empty()) {
        return std::nullopt;
    }
    return m_heap.top().at;
}

std::optional<TimerSchedule::Key> TimerSchedule::PopDue(Clock::time_point now) {
    DropStale();
    if (m_heap.empty() || m_heap.top().at > now) {
        return std::nullopt;
    }
    Due due = m_heap.top();
    m_heap.pop();
    const Entry& entry = m_entries.at(due.key);
    due.at += entry.period;
    if (due.at <= now) {
        due.at = now + entry.period;
    }
    due.sequence = m_sequence++;
    m_heap.push(due);
    return due.key;
}

std::vector<TimerSchedule::Key> TimerSchedule::Keys() const {
    std::vector<Key> keys;
    keys.reserve(m_entries.size());
    for (const auto& [key, entry] : m_entries) {
        keys.push_back(key);
    }
    return keys;
}

Timer::Timer() : m_thread([this] { Loop(); }) {}

Timer::~Timer() {
    Shutdown();
}

qor::result_t Timer::SetRepeated(qor::IRunnable* runnable, std::uint32_t period) noexcept {
    if (runnable == nullptr || period == 0) {
        return qor::errors::kInvalidArgument;
    }
    qor::RefPtr<qor::IRunnable> held(runnable);
    qor::RefPtr<qor::IRunnable> replaced;  // released outside the lock
    {
        std::lock_guard lock(m_mutex);
        if (m_stopping) {
            return qor::errors::kInvalidState;
        }
        auto& slot = m_runnables[runnable];
        replaced = std::exchange(slot, std::move(held));
        m_schedule.Set(runnable, std::chrono::milliseconds(period), TimerSchedule::Clock::now());
    }
    m_wake.notify_one();
    return qor::errors::kOk;
}

qor::result_t Timer::CancelAndWait(qor::IRunnable* runnable) noexcept {
    if (runnable == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    qor::RefPtr<qor::IRunnable> dropped;
    {
        std::unique_lock lock(m_mutex);
        const bool scheduled = m_schedule.Remove(runnable);
        if (const auto it = m_runnables.find(runnable); it != m_runnables.end()) {
            dropped = std::move(it->second);
            m_runnables.erase(it);
        }
        if (std::this_thread::get_id() != m_thread.get_id()) {
            m_finished.wait(lock, [&] { return m_running != runnable; });
        }
        if (!scheduled) {
            return qor::errors::kNotFound;
        }
    }
    return qor::errors::kOk;
}

void Timer::Shutdown() noexcept {
    std::map<const void*, qor::RefPtr<qor::IRunnable>> dropped;
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
        for (const auto key : m_schedule.Keys()) {
            m_schedule.Remove(key);
        }
        dropped.swap(m_runnables);
    }
    m_wake.notify_all();
    if (m_thread.joinable() && std::this_thread::get_id() != m_thread.get_id()) {
        m_thread.join();
    }
}

void Timer::Loop() noexcept {
    prctl(PR_SET_NAME, "ntiTimer", 0, 0, 0);
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        const auto next = m_schedule.NextDue();
        if (!next) {
            m_wake.wait(lock);
            continue;
        }
        const auto now = TimerSchedule::Clock::now();
        if (*next > now) {
            m_wake.wait_until(lock, *next);
            continue;
        }
        const auto key = m_schedule.PopDue(now);
        if (!key) {
            continue;
        }
        qor::RefPtr<qor::IRunnable> runnable = m_runnables.at(*key);
        m_running = *key;
        lock.unlock();
        static_cast<void>(runnable->Run());  // its result is the runnable's business
        // The last reference may go here (cancelled meanwhile); drop it unlocked.
        runnable.Reset();
        lock.lock();
        m_running = nullptr;
        m_finished.notify_all();
    }
}

}  // namespace nti::host
