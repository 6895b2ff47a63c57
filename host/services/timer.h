// The host timer service: repeating calls on one thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <queue>
#include <thread>
#include <vector>

#include "qor/object.h"
#include "qor/timer.h"

namespace nti::host {

// TimerSchedule orders due calls by time; equal times keep the order in which
// they were scheduled. Entries are identified by a key and a generation: a
// popped entry whose generation is no longer current was cancelled or
// rescheduled and is skipped. Not thread-safe.
class TimerSchedule {
public:
    using Clock = std::chrono::steady_clock;
    using Key = const void*;

    // Set schedules `key` every `period`, first at `now + period`, replacing
    // an earlier schedule of the same key.
    void Set(Key key, Clock::duration period, Clock::time_point now);
    // Remove forgets `key`; false when it was not scheduled.
    bool Remove(Key key);
    bool Contains(Key key) const { return m_entries.contains(key); }
    // NextDue is the earliest live due time, if any.
    std::optional<Clock::time_point> NextDue();
    // PopDue returns the key of the earliest live entry due at `now` and
    // schedules its next call one period later (or one period after `now`
    // when calls were missed, so a late timer does not burst).
    std::optional<Key> PopDue(Clock::time_point now);
    bool Empty() const { return m_entries.empty(); }
    std::vector<Key> Keys() const;

private:
    struct Entry {
        Clock::duration period;
        std::uint64_t generation;
    };
    struct Due {
        Clock::time_point at;
        std::uint64_t sequence;  // FIFO among equal times
        Key key;
        std::uint64_t generation;
        bool operator>(const Due& o) const {
            return at != o.at ? at > o.at : sequence > o.sequence;
        }
    };
    void DropStale();

    std::map<Key, Entry> m_entries;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> m_heap;
    std::uint64_t m_sequence = 0;
    std::uint64_t m_generation = 0;
};

// Timer implements qor::ITimer with one thread on the steady clock. Runnables
// run without any timer lock held, so a runnable may block on a lock that the
// caller of CancelAndWait released before calling it.
class Timer : public qor::object::Ifaces<qor::ITimer> {
public:
    Timer();
    ~Timer() override;
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // SetRepeated: 0x80000046 for a null runnable or a zero period; 0x8000006A
    // after Shutdown.
    [[nodiscard]] qor::result_t SetRepeated(qor::IRunnable* runnable,
                                            std::uint32_t period) noexcept override;
    // CancelAndWait: called on the timer thread (from a runnable) it cancels
    // without waiting, as the running call is the caller's own.
    [[nodiscard]] qor::result_t CancelAndWait(qor::IRunnable* runnable) noexcept override;

    // Shutdown waits for a running call, stops the thread and drops every
    // schedule (the references are released on the caller's thread).
    void Shutdown() noexcept;

private:
    void Loop() noexcept;

    std::mutex m_mutex;
    std::condition_variable m_wake;      // schedule changed or stop
    std::condition_variable m_finished;  // a call returned
    TimerSchedule m_schedule;
    std::map<const void*, qor::RefPtr<qor::IRunnable>> m_runnables;
    const void* m_running = nullptr;
    bool m_stopping = false;
    std::thread m_thread;
};

}  // namespace nti::host
