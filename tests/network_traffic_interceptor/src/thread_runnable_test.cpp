// Thread objects shared by a thread and its owner.
#include "network_traffic_interceptor/src/thread_runnable.h"

#include <gtest/gtest.h>

namespace {

namespace ni = dwi::network_interceptor;

struct Worker {
    qor::result_t Result() { return 0x12; }
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

}  // namespace
