#include "dwi_common/descriptor_notifier.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <boost/exception/info.hpp>

namespace {

using dwi::DescriptorNotifier;
using dwi::DescriptorNotifierError;
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

TEST(PipeNotifierTest, OnlyTheReadEndIsNonBlockingAndNeitherEndCloseOnExec) {
    PipeDescriptorNotifier n(false);
    const int writeEnd = n.Descriptor(PipeDescriptorNotifier::kWrite);
    EXPECT_EQ(::fcntl(writeEnd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(n.GetDescriptor(), F_GETFD), 0);
    EXPECT_EQ(::fcntl(writeEnd, F_GETFD), 0);
    EventFdDescriptorNotifier e(false);
    EXPECT_EQ(::fcntl(e.GetDescriptor(), F_GETFD), FD_CLOEXEC);
}

// ClosedDescriptorFailures counts the results that are not the errno codes
// of closed descriptors; run in a child, so nothing is closed twice.
int ClosedDescriptorFailures() {
    std::signal(SIGPIPE, SIG_IGN);
    EventFdDescriptorNotifier e(false);
    ::close(e.GetDescriptor());
    PipeDescriptorNotifier p(false);
    ::close(p.Descriptor(PipeDescriptorNotifier::kWrite));
    PipeDescriptorNotifier reader(false);
    ::close(reader.GetDescriptor());
    int failures = (e.Notify() != static_cast<qor::result_t>(0x80010101)) +  // EBADF
                   (e.Reset() != static_cast<qor::result_t>(0x80010101));
    errno = EIO;  // end of file moves no byte: the result is errno's
    failures += p.Reset() != static_cast<qor::result_t>(0x80000059);
    failures += p.Notify() != static_cast<qor::result_t>(0x80010101);
    failures += reader.Notify() != static_cast<qor::result_t>(0x80060020);  // EPIPE
    return failures;
}

TEST(NotifierErrorsTest, ClosedDescriptorsGiveErrnoCodes) {
    EXPECT_EXIT(std::_Exit(ClosedDescriptorFailures()), ::testing::ExitedWithCode(0), "");
}

// ExhaustAndConstruct runs in a child: it leaves `free` descriptors of a
// small table, constructs, and returns the number of mismatches.
template <class Notifier>
int ExhaustAndConstruct(int free) {
    constexpr int kLimit = 64;
    auto openCount = [] {
        int count = 0;
        for (int fd = 0; fd < kLimit; ++fd) {
            count += ::fcntl(fd, F_GETFD) != -1;
        }
        return count;
    };
    // The sanitizers check dynamic types through a pipe of their own; with
    // the table full they cannot, so their type cache is filled beforehand.
    try {
        throw DescriptorNotifierError(std::error_code(EMFILE, std::generic_category()), "warm")
            << boost::throw_function("warm") << boost::throw_file("warm") << boost::throw_line(1);
    } catch (const std::system_error&) {
    }
    rlimit limit{kLimit, kLimit};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 100;
    }
    std::vector<int> fillers;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) != -1;) {
        fillers.push_back(fd);
    }
    for (; free > 0; --free) {
        ::close(fillers.back());
        fillers.pop_back();
    }
    const int before = openCount();
    int failures = 1;
    try {
        Notifier n(false);
    } catch (const DescriptorNotifierError& e) {
        const int after = openCount();
        for (const int fd : fillers) {
            ::close(fd);
        }
        const std::string made = kPipe<Notifier> ? "pipe" : "eventfd";
        failures = (after != before) + (e.code() != std::errc::too_many_files_open) +
                   (e.what() != "Creation of " + made + " failed: " + std::strerror(EMFILE));
    }
    return failures;
}

TYPED_TEST(NotifierTest, ExhaustedDescriptorTableThrowsWithoutLeaks) {
    for (int free = 0; free < (kPipe<TypeParam> ? 2 : 1); ++free) {
        SCOPED_TRACE(free);
        EXPECT_EXIT(std::_Exit(ExhaustAndConstruct<TypeParam>(free)), ::testing::ExitedWithCode(0),
                    "");
    }
}

}  // namespace
