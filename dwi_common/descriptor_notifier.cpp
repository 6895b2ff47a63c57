#include "dwi_common/descriptor_notifier.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>

#include <boost/exception/info.hpp>

#include "qor/source_location.h"

// Bound weakly so that a C library without eventfd still loads the module;
// the pipe implementation serves then.
#pragma weak eventfd

namespace dwi {
namespace detail {
namespace {

static_assert((EFD_NONBLOCK | EFD_CLOEXEC) == 0x80800);
static_assert((O_NONBLOCK | O_CLOEXEC) == 0x80800);
static_assert(O_CLOEXEC == 0x80000);

// Set during static initialisation, before any notifier exists.
const bool g_eventFdAvailable = &::eventfd != nullptr;

// Boost keeps the file as a plain pointer, so it needs a NUL-terminated copy
// of the extensionless path.
constexpr std::string_view kSourcePath = qor::StripExtension(__FILE__);
constexpr auto kSourceFile = [] {
    std::array<char, kSourcePath.size() + 1> file{};
    for (std::size_t i = 0; i < kSourcePath.size(); ++i) {
        file[i] = kSourcePath[i];
    }
    return file;
}();

constexpr const char* kEventFdConstructor =
    "dwi::detail::EventFdDescriptorNotifier::EventFdDescriptorNotifier(bool)";
constexpr const char* kPipeConstructor =
    "dwi::detail::PipeDescriptorNotifier::PipeDescriptorNotifier(bool)";
constexpr const char* kSetFlags =
    "void dwi::detail::PipeDescriptorNotifier::SetFlags(dwi::detail::PipeDescriptorNotifier::Pipe, "
    "int)";

[[noreturn]] void ThrowSystemError(int error, const char* message, const char* function, int line) {
    throw DescriptorNotifierError(std::error_code(error, std::generic_category()), message)
        << boost::throw_function(function) << boost::throw_file(kSourceFile.data())
        << boost::throw_line(line);
}

// What EAGAIN means for one transfer.
enum class OnAgain { kRetry, kSucceed, kFail };

// Transfer repeats one read or write until it moves data or fails for good.
// A transfer of 0 bytes is a failure with whatever errno holds.
template <class Io>
[[nodiscard]] qor::result_t Transfer(Io io, OnAgain onAgain) noexcept {
    for (;;) {
        if (io() > 0) {
            return qor::errors::kOk;
        }
        const int error = errno;
        if (error == EINTR || (error == EAGAIN && onAgain == OnAgain::kRetry)) {
            continue;
        }
        if (error == EAGAIN && onAgain == OnAgain::kSucceed) {
            return qor::errors::kOk;
        }
        return qor::ErrnoToResult(error);
    }
}

}  // namespace

bool EventFdAvailable() noexcept {
    return g_eventFdAvailable;
}

EventFdDescriptorNotifier::EventFdDescriptorNotifier(bool blocking) {
    if (!g_eventFdAvailable) {
        // Only reachable by building this class directly on such a C library.
        ThrowSystemError(ENOSYS, "Creation of eventfd failed", kEventFdConstructor, __LINE__);
    }
    m_fds[0] = ::eventfd(0, blocking ? 0 : EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_fds[0] < 0 && errno != 0) {
        ThrowSystemError(errno, "Creation of eventfd failed", kEventFdConstructor, __LINE__);
    }
}

EventFdDescriptorNotifier::~EventFdDescriptorNotifier() {
    ::close(m_fds[0]);
}

qor::result_t EventFdDescriptorNotifier::Notify() noexcept {
    const std::uint64_t one = 1;
    // Spinning on a full counter: the reader drains it in one read.
    return Transfer([&] { return ::write(m_fds[0], &one, sizeof(one)); }, OnAgain::kRetry);
}

qor::result_t EventFdDescriptorNotifier::Reset() noexcept {
    std::uint64_t count = 0;
    return Transfer([&] { return ::read(m_fds[0], &count, sizeof(count)); }, OnAgain::kSucceed);
}

PipeDescriptorNotifier::PipeDescriptorNotifier(bool blocking) {
    if (::pipe(m_fds) != 0 && errno != 0) {
        ThrowSystemError(errno, "Creation of pipe failed", kPipeConstructor, __LINE__);
    }
    if (blocking) {
        return;
    }
    try {
        // Through F_SETFL the kernel drops O_CLOEXEC: the read end becomes
        // non-blocking, the write end stays blocking and neither end is
        // close-on-exec. Consumers rely on the blocking write end.
        SetFlags(kRead, O_NONBLOCK | O_CLOEXEC);
        SetFlags(kWrite, O_CLOEXEC);
    } catch (...) {
        Close();
        throw;
    }
}

PipeDescriptorNotifier::~PipeDescriptorNotifier() {
    Close();
}

void PipeDescriptorNotifier::Close() noexcept {
    ::close(m_fds[kRead]);
    ::close(m_fds[kWrite]);
    m_fds[kRead] = -1;
    m_fds[kWrite] = -1;
}

void PipeDescriptorNotifier::SetFlags(Pipe which, int flags) {
    const int old = ::fcntl(m_fds[which], F_GETFL);
    if (old == -1 && errno != 0) {
        ThrowSystemError(errno, "Failed to fetch flags of pipe descriptor", kSetFlags, __LINE__);
    }
    if (::fcntl(m_fds[which], F_SETFL, old | flags) != 0 && errno != 0) {
        ThrowSystemError(errno, "Failed to set pipe descriptor flags", kSetFlags, __LINE__);
    }
}

qor::result_t PipeDescriptorNotifier::Notify() noexcept {
    const char one = 1;
    return Transfer([&] { return ::write(m_fds[kWrite], &one, 1); }, OnAgain::kFail);
}

qor::result_t PipeDescriptorNotifier::Reset() noexcept {
    char byte = 0;
    return Transfer([&] { return ::read(m_fds[kRead], &byte, 1); }, OnAgain::kSucceed);
}

}  // namespace detail

DescriptorNotifier::DescriptorNotifier(bool blocking) {
    if (detail::EventFdAvailable()) {
        std::construct_at(&m_eventFd, blocking);
    } else {
        std::construct_at(&m_pipe, blocking);
    }
}

DescriptorNotifier::~DescriptorNotifier() {
    if (detail::EventFdAvailable()) {
        std::destroy_at(&m_eventFd);
    } else {
        std::destroy_at(&m_pipe);
    }
}

int DescriptorNotifier::GetDescriptor() const noexcept {
    return detail::EventFdAvailable() ? m_eventFd.GetDescriptor() : m_pipe.GetDescriptor();
}

qor::result_t DescriptorNotifier::Notify() noexcept {
    return detail::EventFdAvailable() ? m_eventFd.Notify() : m_pipe.Notify();
}

qor::result_t DescriptorNotifier::Reset() noexcept {
    return detail::EventFdAvailable() ? m_eventFd.Reset() : m_pipe.Reset();
}

}  // namespace dwi
