// Wake-up objects for threads that sleep in poll(2).
//
// One thread calls Notify; the polling thread sees GetDescriptor() readable
// and calls Reset to consume the wake-up. eventfd-based where the C library
// offers eventfd, pipe-based otherwise; the choice is made once per process.
#pragma once

#include <system_error>

#include <boost/exception/exception.hpp>

#include "qor/result.h"

namespace dwi {

// DescriptorNotifierError is what a notifier's construction throws: a
// std::system_error of the generic category built from errno (what() is the
// message, ": " and the system's text) that also carries, as Boost error
// information, the throwing function's signature (boost::throw_function),
// the source file "dwi_common/descriptor_notifier" (boost::throw_file) and
// the line. Catch it as either base.
class DescriptorNotifierError : public std::system_error, public boost::exception {
public:
    using std::system_error::system_error;
};

namespace detail {

// EventFdAvailable tells whether the C library offered eventfd when the
// process loaded; every DescriptorNotifier of the process uses eventfd then,
// a pipe otherwise. Fixed for the life of the process.
bool EventFdAvailable() noexcept;

// NotifierDescriptors is the state both implementations share: two
// descriptors, -1 while unused.
class NotifierDescriptors {
public:
    NotifierDescriptors() = default;
    NotifierDescriptors(const NotifierDescriptors&) = delete;
    NotifierDescriptors& operator=(const NotifierDescriptors&) = delete;

protected:
    ~NotifierDescriptors() = default;

    int m_fds[2] = {-1, -1};
};

// EventFdDescriptorNotifier wakes through an eventfd counter: any number of
// Notify calls are consumed by one Reset.
class EventFdDescriptorNotifier : public NotifierDescriptors {
public:
    // A non-blocking notifier's eventfd is EFD_NONBLOCK | EFD_CLOEXEC; a
    // blocking one has neither, so Reset waits for a Notify. Throws
    // DescriptorNotifierError ("Creation of eventfd failed") when eventfd
    // fails with errno set (ENOSYS when the C library has no eventfd); a
    // failure without errno keeps the negative descriptor.
    explicit EventFdDescriptorNotifier(bool blocking);
    ~EventFdDescriptorNotifier();

    int GetDescriptor() const noexcept { return m_fds[0]; }
    // Notify adds one to the counter. A full counter is waited out by
    // retrying, as is EINTR; other errno values are returned as result codes.
    [[nodiscard]] qor::result_t Notify() noexcept;
    // Reset drains the counter. 0 also when nothing was pending (EAGAIN);
    // EINTR retries; other errno values are returned as result codes.
    [[nodiscard]] qor::result_t Reset() noexcept;
};

// PipeDescriptorNotifier wakes through one byte per Notify in an anonymous
// pipe: one Reset consumes one Notify, so the descriptor stays readable while
// bytes of further Notify calls wait.
class PipeDescriptorNotifier : public NotifierDescriptors {
public:
    // Pipe indexes the descriptors.
    enum Pipe { kRead = 0, kWrite = 1 };

    // A non-blocking notifier makes only the read end non-blocking: the write
    // end stays blocking, so Notify on a full pipe waits for the reader.
    // Throws DescriptorNotifierError ("Creation of pipe failed", or the
    // SetFlags errors) and then leaves no descriptor open.
    explicit PipeDescriptorNotifier(bool blocking);
    ~PipeDescriptorNotifier();

    int GetDescriptor() const noexcept { return m_fds[kRead]; }
    int Descriptor(Pipe which) const noexcept { return m_fds[which]; }
    // Notify writes one byte; EINTR retries, every other errno (EAGAIN
    // included) is returned as a result code.
    [[nodiscard]] qor::result_t Notify() noexcept;
    // Reset reads one byte. 0 also when nothing was pending (EAGAIN); EINTR
    // retries; other errno values are returned as result codes.
    [[nodiscard]] qor::result_t Reset() noexcept;

    // SetFlags ORs `flags` into the file-status flags (F_SETFL) of one end;
    // the kernel ignores O_CLOEXEC there. Throws DescriptorNotifierError
    // ("Failed to fetch flags of pipe descriptor" or "Failed to set pipe
    // descriptor flags").
    void SetFlags(Pipe which, int flags);

private:
    void Close() noexcept;
};

}  // namespace detail

// DescriptorNotifier forwards to the implementation chosen for the process
// (see detail::EventFdAvailable); it holds nothing but that implementation's
// two descriptors.
class DescriptorNotifier {
public:
    // Throws the DescriptorNotifierError of the chosen implementation on
    // failure; leaks no descriptor then.
    explicit DescriptorNotifier(bool blocking);
    ~DescriptorNotifier();
    DescriptorNotifier(const DescriptorNotifier&) = delete;
    DescriptorNotifier& operator=(const DescriptorNotifier&) = delete;

    // GetDescriptor is the descriptor to poll for POLLIN.
    int GetDescriptor() const noexcept;
    // Notify wakes the polling side. Returns 0 or the errno's result code.
    [[nodiscard]] qor::result_t Notify() noexcept;
    // Reset consumes a wake-up; 0 also when nothing was pending.
    [[nodiscard]] qor::result_t Reset() noexcept;

private:
    // The active member follows detail::EventFdAvailable().
    union {
        detail::EventFdDescriptorNotifier m_eventFd;
        detail::PipeDescriptorNotifier m_pipe;
    };
};

}  // namespace dwi
