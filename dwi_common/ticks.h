// Times in the statistics records: 100-ns ticks since 1601-01-01 UTC.
#pragma once

#include <cstdint>
#include <ctime>

namespace dwi::ticks {

inline constexpr std::uint64_t kTicksPerSecond = 10'000'000;
// kUnixEpochTicks: 1970-01-01 UTC in ticks.
inline constexpr std::uint64_t kUnixEpochTicks = 116'444'736'000'000'000;

// FromUnix: a time since 1970 (CLOCK_REALTIME) in ticks.
constexpr std::uint64_t FromUnix(std::uint64_t seconds, std::uint64_t nanoseconds = 0) noexcept {
    return seconds * kTicksPerSecond + nanoseconds / 100 + kUnixEpochTicks;
}
constexpr std::uint64_t FromUnix(const timespec& time) noexcept {
    return FromUnix(static_cast<std::uint64_t>(time.tv_sec),
                    static_cast<std::uint64_t>(time.tv_nsec));
}

// SinceUnixEpoch: ticks since 1970 of `ticks`; times before 1970 read as 0.
constexpr std::uint64_t SinceUnixEpoch(std::uint64_t ticks) noexcept {
    return ticks > kUnixEpochTicks ? ticks - kUnixEpochTicks : 0;
}

}  // namespace dwi::ticks
