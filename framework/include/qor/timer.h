// Host timer service.
#pragma once

#include <cstdint>

#include "qor/object.h"

namespace qor {

// IRunnable is something a host thread runs.
struct IRunnable : IObject {
    static constexpr iid_t IID = 0x3B1E2F70;
    [[nodiscard]] virtual result_t Run() noexcept = 0;

protected:
    ~IRunnable() = default;
};

// ITimer calls runnables repeatedly on the host's timer thread.
struct ITimer : IObject {
    static constexpr iid_t IID = 0xCCD50778;
    // SetRepeated calls `runnable` every `period` milliseconds, first after one
    // period. Holds a reference until cancelled. Setting a runnable that is
    // already scheduled reschedules it.
    [[nodiscard]] virtual result_t SetRepeated(IRunnable* runnable,
                                               std::uint32_t period) noexcept = 0;
    // CancelAndWait stops the calls of `runnable` and waits for a running one
    // to finish. 0x8000004C when it was not scheduled. Must not be called from
    // the runnable itself.
    [[nodiscard]] virtual result_t CancelAndWait(IRunnable* runnable) noexcept = 0;

protected:
    ~ITimer() = default;
};

}  // namespace qor
