#include "dwi_common/descriptor_notifier.h"

#include <fcntl.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

using dwi::DescriptorNotifier;
using dwi::detail::EventFdDescriptorNotifier;
using dwi::detail::PipeDescriptorNotifier;

bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

template <class Notifier>
constexpr bool kPipe = std::is_same_v<Notifier, PipeDescriptorNotifier>;

template <class Notifier>
class NotifierTest : public ::testing::Test {};

// The public notifier takes eventfd wherever the C library has it.
using Implementations =
    ::testing::Types<EventFdDescriptorNotifier, PipeDescriptorNotifier, DescriptorNotifier>;
TYPED_TEST_SUITE(NotifierTest, Implementations);

TYPED_TEST(NotifierTest, ResetConsumesTheWakeUps) {
    TypeParam n(false);
    EXPECT_NE(::fcntl(n.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(n.Reset(), 0);  // nothing pending is no failure
    EXPECT_FALSE(Readable(n.GetDescriptor()));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(n.Notify(), 0);
    }
    // eventfd drains its counter in one read; a pipe gives one byte a Reset.
    for (int left = kPipe<TypeParam> ? 3 : 1; left > 0; --left) {
        EXPECT_TRUE(Readable(n.GetDescriptor()));
        ASSERT_EQ(n.Reset(), 0);
    }
    EXPECT_FALSE(Readable(n.GetDescriptor()));
}

TYPED_TEST(NotifierTest, BlockingResetWaitsForNotify) {
    TypeParam n(true);
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        EXPECT_EQ(n.Reset(), 0);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done);
    EXPECT_EQ(n.Notify(), 0);
    waiter.join();
    EXPECT_FALSE(Readable(n.GetDescriptor()));
}

}  // namespace
