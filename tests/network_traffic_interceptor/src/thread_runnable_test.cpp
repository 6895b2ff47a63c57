// Thread objects shared by a thread and its owner.
#include "network_traffic_interceptor/src/thread_runnable.h"

#include <sys/prctl.h>

#include <atomic>
#include <cerrno>

#include <gtest/gtest.h>

#include "tests/support/watched_interceptor.h"

namespace {

namespace ni = dwi::network_interceptor;

struct Worker {
    qor::result_t Result() { return 0x12; }

    // Tries to join itself, then waits for the owner to let go.
    qor::result_t JoinSelf() {
        prctl(PR_SET_NAME, "nfqTestSelf", 0, 0, 0);
        selfJoin = self.load()->Join();
        joined = true;
        while (!released.load()) {
        }
        done = true;
        return 0;
    }

    std::atomic<ni::ThreadRunnable*> self{nullptr};
    std::atomic<qor::result_t> selfJoin{0};
    std::atomic<bool> joined{false};
    std::atomic<bool> released{false};
    std::atomic<bool> done{false};
};

TEST(ThreadRunnableTest, JoinGivesTheBodysResultOnce) {
    Worker worker;
    ni::ThreadHandle thread;
    ASSERT_EQ(ni::StartThread(&worker, &Worker::Result, thread), 0);
    EXPECT_TRUE(thread->Joinable());
    EXPECT_EQ(thread->Join(), 0);
    EXPECT_FALSE(thread->Joinable());
    EXPECT_EQ(thread->Result(), 0x12);
    EXPECT_EQ(thread->Join(), qor::errors::kInvalidState);
}

TEST(ThreadRunnableTest, SelfJoinFailsAndTheDetachedThreadFreesItself) {
    Worker worker;
    ni::ThreadHandle thread(
        std::make_unique<ni::ThreadRunnableMemFn<Worker>>(&worker, &Worker::JoinSelf).release());
    worker.self = thread.get();
    ASSERT_EQ(thread->Start(), 0);
    ASSERT_TRUE(nti::test::Eventually([&] { return worker.joined.load(); }));
    EXPECT_EQ(worker.selfJoin.load(), qor::ErrnoToResult(EDEADLK));
    EXPECT_TRUE(thread->Joinable());
    thread->Detach();
    EXPECT_FALSE(thread->Joinable());
    thread.reset();
    worker.released = true;
    // The worker lives on this stack: its last use must be seen ending.
    ASSERT_TRUE(nti::test::Eventually([&] { return worker.done.load(); }));
    // The thread frees its object on the way out; the sanitizers watch that.
    EXPECT_TRUE(nti::test::Eventually([] { return nti::test::CountThreads("nfqTestSelf") == 0; }));
}

}  // namespace
