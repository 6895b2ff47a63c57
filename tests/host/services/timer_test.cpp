#include "host/services/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace nti::host {
namespace {

using namespace std::chrono_literals;
using Clock = TimerSchedule::Clock;

// FnRunnable runs a function and counts its calls.
class FnRunnable : public qor::object::Ifaces<qor::IRunnable> {
public:
    explicit FnRunnable(std::function<void()> body = {}) : m_body(std::move(body)) {}
    qor::result_t Run() noexcept override {
        m_calls.fetch_add(1);
        if (m_body) {
            m_body();
        }
        return 0;
    }
    int Calls() const { return m_calls.load(); }

private:
    std::function<void()> m_body;
    std::atomic<int> m_calls{0};
};

// RefCount reads an object's count without changing it.
std::uint32_t RefCount(qor::IObject* o) {
    o->AddRef();
    return o->Release();
}

// Bounded wait for a condition another thread makes true; guards against a
// hang, not a timing assertion.
bool WaitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 5000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(1ms);
    }
    return condition();
}

TEST(TimerScheduleTest, DueOrderFifoAmongEqualTimesAndStaleEntries) {
    TimerSchedule schedule;
    const int a = 0, b = 0, c = 0;
    const Clock::time_point t0{};
    schedule.Set(&a, 10ms, t0);
    schedule.Set(&b, 25ms, t0);
    schedule.Set(&c, 10ms, t0);
    const std::map<const void*, char> names{{&a, 'A'}, {&b, 'B'}, {&c, 'C'}};

    struct Step {
        int at;
        std::string expected;
    };
    const Step steps[] = {{5, ""},    {10, "AC"}, {15, ""},   {20, "AC"}, {25, "B"},
                          {30, "AC"}, {40, "AC"}, {50, "BAC"}};  // B was rescheduled before A and C
    for (const auto& step : steps) {
        std::string popped;
        while (const auto key = schedule.PopDue(t0 + std::chrono::milliseconds(step.at))) {
            popped += names.at(*key);
        }
        EXPECT_EQ(popped, step.expected) << "at " << step.at << " ms";
    }
    EXPECT_EQ(schedule.NextDue(), t0 + 60ms);

    // Removed and rescheduled keys leave stale entries, which are skipped.
    EXPECT_TRUE(schedule.Remove(&c));
    EXPECT_TRUE(schedule.Remove(&b));
    EXPECT_FALSE(schedule.Remove(&b));
    schedule.Set(&a, 10ms, t0);
    schedule.Set(&a, 30ms, t0 + 5ms);  // reschedule: the 10 ms entry is stale

    EXPECT_EQ(schedule.NextDue(), t0 + 35ms);
    EXPECT_FALSE(schedule.PopDue(t0 + 34ms));
    EXPECT_EQ(schedule.PopDue(t0 + 35ms), &a);
    EXPECT_FALSE(schedule.PopDue(t0 + 35ms));
    EXPECT_TRUE(schedule.Remove(&a));
    EXPECT_TRUE(schedule.Empty());
    EXPECT_FALSE(schedule.NextDue());

    // A late timer skips the calls it missed instead of bursting.
    schedule.Set(&a, 10ms, t0);
    EXPECT_EQ(schedule.PopDue(t0 + 35ms), &a);
    EXPECT_FALSE(schedule.PopDue(t0 + 35ms));
    EXPECT_EQ(schedule.NextDue(), t0 + 45ms);
    // One that is late by less than a period keeps its phase.
    EXPECT_EQ(schedule.PopDue(t0 + 48ms), &a);
    EXPECT_EQ(schedule.NextDue(), t0 + 55ms);
}

TEST(TimerTest, ArgumentsReferencesAndShutdown) {
    auto timer = qor::object::Create<Timer>();
    auto r = qor::object::Create<FnRunnable>();
    EXPECT_EQ(timer->SetRepeated(r.Get(), 0), qor::errors::kInvalidArgument);
    EXPECT_EQ(timer->CancelAndWait(r.Get()), qor::errors::kNotFound);
    EXPECT_EQ(RefCount(r.Get()), 1u);
    // One reference while scheduled, also after a reschedule.
    ASSERT_EQ(timer->SetRepeated(r.Get(), 100000), 0);
    ASSERT_EQ(timer->SetRepeated(r.Get(), 200000), 0);
    EXPECT_EQ(RefCount(r.Get()), 2u);
    EXPECT_EQ(timer->CancelAndWait(r.Get()), 0);
    EXPECT_EQ(RefCount(r.Get()), 1u);
    EXPECT_EQ(r->Calls(), 0);

    // Shutdown releases everything and refuses new work.
    auto a = qor::object::Create<FnRunnable>();
    ASSERT_EQ(timer->SetRepeated(a.Get(), 1), 0);
    ASSERT_EQ(timer->SetRepeated(r.Get(), 100000), 0);
    ASSERT_TRUE(WaitFor([&] { return a->Calls() > 0; }));
    timer->Shutdown();
    const int calls = a->Calls();
    EXPECT_EQ(RefCount(a.Get()), 1u);
    EXPECT_EQ(RefCount(r.Get()), 1u);
    EXPECT_EQ(timer->SetRepeated(a.Get(), 1), qor::errors::kInvalidState);
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(a->Calls(), calls);
    timer->Shutdown();  // twice is harmless
}

// The statistics service cancels with its lock released while the harvest
// waits for that lock: the cancel waits for the harvest, without deadlock.
TEST(TimerTest, CancelAndWaitReturnsOnlyAfterTheRunningCallFinished) {
    auto timer = qor::object::Create<Timer>();
    std::mutex serviceLock;
    std::atomic<bool> entered{false}, finished{false}, returned{false};
    auto r = qor::object::Create<FnRunnable>([&] {
        entered = true;
        std::lock_guard lock(serviceLock);
        finished = true;
    });
    std::unique_lock held(serviceLock);
    ASSERT_EQ(timer->SetRepeated(r.Get(), 1), 0);
    ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
    bool finishedAtReturn = false;
    std::thread canceller([&] {
        EXPECT_EQ(timer->CancelAndWait(r.Get()), 0);
        finishedAtReturn = finished.load();
        returned = true;
    });
    std::this_thread::sleep_for(20ms);  // give a wrong implementation the chance to return
    EXPECT_FALSE(returned.load());
    held.unlock();
    canceller.join();
    EXPECT_TRUE(finishedAtReturn);
    EXPECT_EQ(r->Calls(), 1);
}

TEST(TimerTest, RunnableMayCancelItself) {
    auto timer = qor::object::Create<Timer>();
    std::atomic<qor::result_t> cancelled{-1};
    qor::IRunnable* self = nullptr;
    auto r = qor::object::Create<FnRunnable>([&] { cancelled = timer->CancelAndWait(self); });
    self = r.Get();
    ASSERT_EQ(timer->SetRepeated(r.Get(), 1), 0);
    ASSERT_TRUE(WaitFor([&] { return cancelled.load() != -1; }));
    EXPECT_EQ(cancelled.load(), 0);
    EXPECT_EQ(timer->CancelAndWait(r.Get()), qor::errors::kNotFound);
    EXPECT_EQ(r->Calls(), 1);
    EXPECT_EQ(RefCount(r.Get()), 1u);
}

}  // namespace
}  // namespace nti::host
