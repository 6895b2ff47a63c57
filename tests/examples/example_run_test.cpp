#include "examples/common/example_run.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

namespace {

using namespace std::chrono_literals;

// The examples' stop conditions; each case blocks the signals in this thread
// first, as the examples do before starting anything.
TEST(ExampleStopTest, SignalDeadlineAndOwnReason) {
    const example::StopSignals signals;
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);  // would end the test without the mask
    EXPECT_EQ(signals.WaitForStop(0s, 10ms, [] { return false; }), SIGTERM);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(signals.WaitForStop(1s, 20ms, [] { return false; }), 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 1s);
    EXPECT_LT(waited, 3s);

    int asked = 0;
    EXPECT_EQ(signals.WaitForStop(0s, 1ms, [&] { return ++asked == 3; }), 0);
    EXPECT_EQ(asked, 3);
}

}  // namespace
