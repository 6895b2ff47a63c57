// Wake-up objects for threads that sleep in poll(2).
//
// One thread calls Notify; the polling thread sees GetDescriptor() readable
// and calls Reset to consume the wake-up. eventfd-based where the C library
// offers eventfd, pipe-based otherwise; the choice is made once per process.
#pragma once

#include "qor/result.h"

namespace dwi {

// The implementations, dwi::detail::EventFdDescriptorNotifier and
// dwi::detail::PipeDescriptorNotifier, are declared below DescriptorNotifier.

class DescriptorNotifier {
public:
    // Throws the system error of the chosen implementation on failure; leaks
    // no descriptor then.
    explicit DescriptorNotifier(bool blocking);
    ~DescriptorNotifier();
    DescriptorNotifier(const DescriptorNotifier&) = delete;
    DescriptorNotifier& operator=(const DescriptorNotifier&) = delete;

    // GetDescriptor is the descriptor to poll for POLLIN.
    int GetDescriptor() const noexcept;
    // Notify wakes the polling side. Returns 0 or the errno's result code.
    qor::result_t Notify() noexcept;
    // Reset consumes a wake-up; 0 also when nothing was pending.
    qor::result_t Reset() noexcept;

private:
    int m_fds[2] = {-1, -1};
};

}  // namespace dwi
