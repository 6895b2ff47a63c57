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

#include <gtest/gtest.h>
#include <boost/exception/get_error_info.hpp>

namespace {

using dwi::DescriptorNotifier;
using dwi::DescriptorNotifierError;
using dwi::detail::EventFdDescriptorNotifier;
using dwi::detail::PipeDescriptorNotifier;

static_assert(std::is_base_of_v<std::system_error, DescriptorNotifierError>);
static_assert(std::is_base_of_v<boost::exception, DescriptorNotifierError>);
static_assert(sizeof(DescriptorNotifier) == 2 * sizeof(int));

constexpr auto kBlockedFor = std::chrono::milliseconds(100);

bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

// ExpectBlocksUntil runs `blocking` on another thread, expects it still to
// wait after a while, runs `release` and expects `blocking` to return 0.
template <class Blocking, class Release>
void ExpectBlocksUntil(Blocking blocking, Release release) {
    std::atomic<bool> done{false};
    qor::result_t result = -1;
    std::thread thread([&] {
        result = blocking();
        done = true;
    });
    std::this_thread::sleep_for(kBlockedFor);
    EXPECT_FALSE(done);
    release();
    thread.join();
    EXPECT_EQ(result, 0);
}

// Per implementation: its texts and how to reach its write end.
template <class Notifier>
struct Traits;

template <>
struct Traits<EventFdDescriptorNotifier> {
    static constexpr const char* kMessage = "Creation of eventfd failed";
    static constexpr const char* kFunction =
        "dwi::detail::EventFdDescriptorNotifier::EventFdDescriptorNotifier(bool)";
    // Descriptors one construction needs.
    static constexpr int kDescriptors = 1;
    static int WriteEnd(const EventFdDescriptorNotifier& n) { return n.GetDescriptor(); }
};

template <>
struct Traits<PipeDescriptorNotifier> {
    static constexpr const char* kMessage = "Creation of pipe failed";
    static constexpr const char* kFunction =
        "dwi::detail::PipeDescriptorNotifier::PipeDescriptorNotifier(bool)";
    static constexpr int kDescriptors = 2;
    static int WriteEnd(const PipeDescriptorNotifier& n) {
        return n.Descriptor(PipeDescriptorNotifier::kWrite);
    }
};

// The public notifier uses eventfd here.
template <>
struct Traits<DescriptorNotifier> : Traits<EventFdDescriptorNotifier> {};

template <class Notifier>
class NotifierTest : public ::testing::Test {};

using Implementations = ::testing::Types<EventFdDescriptorNotifier, PipeDescriptorNotifier>;
TYPED_TEST_SUITE(NotifierTest, Implementations);

TYPED_TEST(NotifierTest, ThreeNotifiesThenResets) {
    TypeParam n(false);
    ASSERT_GE(n.GetDescriptor(), 0);
    EXPECT_FALSE(Readable(n.GetDescriptor()));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(n.Notify(), 0);
    }
    EXPECT_TRUE(Readable(n.GetDescriptor()));
    ASSERT_EQ(n.Reset(), 0);
    if constexpr (std::is_same_v<TypeParam, EventFdDescriptorNotifier>) {
        // One read drains the whole counter.
        EXPECT_FALSE(Readable(n.GetDescriptor()));
    } else {
        // One Reset per Notify.
        EXPECT_TRUE(Readable(n.GetDescriptor()));
        ASSERT_EQ(n.Reset(), 0);
        EXPECT_TRUE(Readable(n.GetDescriptor()));
        ASSERT_EQ(n.Reset(), 0);
        EXPECT_FALSE(Readable(n.GetDescriptor()));
    }
}

TYPED_TEST(NotifierTest, ResetWithNothingPendingSucceeds) {
    TypeParam n(false);
    EXPECT_EQ(n.Reset(), 0);
    EXPECT_EQ(n.Reset(), 0);
    EXPECT_FALSE(Readable(n.GetDescriptor()));
}

TYPED_TEST(NotifierTest, NonBlockingReadSideAndNoCloseOnExecForThePipe) {
    TypeParam n(false);
    const int readEnd = n.GetDescriptor();
    const int writeEnd = Traits<TypeParam>::WriteEnd(n);
    EXPECT_NE(::fcntl(readEnd, F_GETFL) & O_NONBLOCK, 0);
    if constexpr (std::is_same_v<TypeParam, EventFdDescriptorNotifier>) {
        EXPECT_EQ(::fcntl(readEnd, F_GETFD), FD_CLOEXEC);
    } else {
        // F_SETFL drops O_CLOEXEC and the write end is meant to block.
        EXPECT_EQ(::fcntl(writeEnd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(::fcntl(readEnd, F_GETFD), 0);
        EXPECT_EQ(::fcntl(writeEnd, F_GETFD), 0);
    }
}

TYPED_TEST(NotifierTest, BlockingResetWaitsForNotify) {
    TypeParam n(true);
    EXPECT_EQ(::fcntl(n.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(Traits<TypeParam>::WriteEnd(n), F_GETFL) & O_NONBLOCK, 0);
    ExpectBlocksUntil([&] { return n.Reset(); }, [&] { EXPECT_EQ(n.Notify(), 0); });
    EXPECT_FALSE(Readable(n.GetDescriptor()));
}

// The child leaves through _exit, so the closed descriptors are never closed twice.
TYPED_TEST(NotifierTest, ClosedDescriptorsGiveErrnoCodes) {
    EXPECT_EXIT(
        {
            std::signal(SIGPIPE, SIG_IGN);
            TypeParam n(false);
            int failures = 0;
            if constexpr (std::is_same_v<TypeParam, EventFdDescriptorNotifier>) {
                ::close(n.GetDescriptor());
                failures += n.Notify() != static_cast<qor::result_t>(0x80010101);  // EBADF
                failures += n.Reset() != static_cast<qor::result_t>(0x80010101);
            } else {
                ::close(n.Descriptor(PipeDescriptorNotifier::kWrite));
                // End of file moves no byte: the result is whatever errno holds.
                errno = EIO;
                failures += n.Reset() != static_cast<qor::result_t>(0x80000059);
                failures += n.Notify() != static_cast<qor::result_t>(0x80010101);
                PipeDescriptorNotifier reader(false);
                ::close(reader.GetDescriptor());
                failures += reader.Notify() != static_cast<qor::result_t>(0x80060020);  // EPIPE
            }
            std::fprintf(stderr, "failures=%d\n", failures);
            std::_Exit(failures);
        },
        ::testing::ExitedWithCode(0), "failures=0");
}

int CountOpenDescriptors(int limit) {
    int count = 0;
    for (int fd = 0; fd < limit; ++fd) {
        count += ::fcntl(fd, F_GETFD) != -1;
    }
    return count;
}

// ExhaustAndConstruct runs in a child: it leaves `free` descriptors of a
// small table, constructs, and reports every mismatch on stderr.
template <class Notifier>
int ExhaustAndConstruct(int free) {
    constexpr int kLimit = 64;
    rlimit limit{kLimit, kLimit};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 100;
    }
    while (::open("/dev/null", O_RDONLY) != -1) {
    }
    for (int fd = kLimit - 1; fd >= 0 && free > 0; --fd) {
        free -= ::close(fd) == 0;
    }
    const int before = CountOpenDescriptors(kLimit);
    int failures = 0;
    auto fail = [&](const std::string& what) {
        std::fprintf(stderr, "%s\n", what.c_str());
        ++failures;
    };
    try {
        Notifier n(false);
        fail("constructed");
    } catch (const std::system_error& e) {
        if (e.code() != std::error_code(EMFILE, std::generic_category())) {
            fail("code " + e.code().message());
        }
        const std::string expected =
            std::string(Traits<Notifier>::kMessage) + ": " + std::strerror(EMFILE);
        if (e.what() != expected) {
            fail(std::string("what ") + e.what());
        }
        const auto* info = dynamic_cast<const boost::exception*>(&e);
        const char* const* function =
            info != nullptr ? boost::get_error_info<boost::throw_function>(*info) : nullptr;
        const char* const* file =
            info != nullptr ? boost::get_error_info<boost::throw_file>(*info) : nullptr;
        if (function == nullptr || std::string(*function) != Traits<Notifier>::kFunction) {
            fail("function");
        }
        if (file == nullptr || std::string(*file) != "dwi_common/descriptor_notifier") {
            fail("file");
        }
    }
    if (CountOpenDescriptors(kLimit) != before) {
        fail("leaked");
    }
    return failures;
}

TYPED_TEST(NotifierTest, ExhaustedDescriptorTableThrowsWithoutLeaks) {
    for (int free = 0; free < Traits<TypeParam>::kDescriptors; ++free) {
        SCOPED_TRACE(free);
        EXPECT_EXIT(std::_Exit(ExhaustAndConstruct<TypeParam>(free)), ::testing::ExitedWithCode(0),
                    "");
    }
}

TEST(PipeNotifierTest, FullPipeBlocksNotifyUntilDrained) {
    PipeDescriptorNotifier n(false);
    const int size = ::fcntl(n.GetDescriptor(), F_SETPIPE_SZ, 4096);
    ASSERT_GT(size, 0);
    for (int i = 0; i < size; ++i) {
        ASSERT_EQ(n.Notify(), 0);
    }
    // The pipe takes the byte once its one page is read empty.
    ExpectBlocksUntil([&] { return n.Notify(); },
                      [&] {
                          for (int i = 0; i < size; ++i) {
                              EXPECT_EQ(n.Reset(), 0);
                          }
                      });
    EXPECT_TRUE(Readable(n.GetDescriptor()));
    EXPECT_EQ(n.Reset(), 0);
    EXPECT_FALSE(Readable(n.GetDescriptor()));
}

TEST(PipeNotifierTest, SetFlagsFailureCarriesItsMessageAndFunction) {
    PipeDescriptorNotifier n(true);
    const int readEnd = n.GetDescriptor();
    const int saved = ::dup(readEnd);
    ASSERT_GE(saved, 0);
    ::close(readEnd);
    try {
        n.SetFlags(PipeDescriptorNotifier::kRead, O_NONBLOCK);
        ADD_FAILURE() << "SetFlags on a closed descriptor succeeded";
    } catch (const DescriptorNotifierError& e) {
        EXPECT_EQ(e.code(), std::error_code(EBADF, std::generic_category()));
        EXPECT_EQ(std::string(e.what()),
                  std::string("Failed to fetch flags of pipe descriptor: ") + std::strerror(EBADF));
        const char* const* function = boost::get_error_info<boost::throw_function>(e);
        ASSERT_NE(function, nullptr);
        EXPECT_STREQ(*function,
                     "void dwi::detail::PipeDescriptorNotifier::SetFlags("
                     "dwi::detail::PipeDescriptorNotifier::Pipe, int)");
    }
    ASSERT_EQ(::dup2(saved, readEnd), readEnd);
    ::close(saved);
}

TEST(DescriptorNotifierTest, UsesEventFdWhenTheCLibraryHasIt) {
    // glibc has had eventfd since 2.7.
    EXPECT_TRUE(dwi::detail::EventFdAvailable());
    DescriptorNotifier n(false);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(n.Notify(), 0);
    }
    EXPECT_TRUE(Readable(n.GetDescriptor()));
    EXPECT_EQ(n.Reset(), 0);
    EXPECT_FALSE(Readable(n.GetDescriptor()));
    EXPECT_EQ(n.Reset(), 0);
}

TEST(DescriptorNotifierTest, ExhaustedDescriptorTableThrowsTheEventFdError) {
    EXPECT_EXIT(std::_Exit(ExhaustAndConstruct<DescriptorNotifier>(0)),
                ::testing::ExitedWithCode(0), "");
}

}  // namespace
