// Durations as people write them on a command line.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace nti::host {

// ParseDuration reads "<number><unit>" with unit ms, s, m or h, or a bare
// number of seconds; the number may have a fraction ("1.5s", "0.25").
// Rounded to milliseconds; nullopt for junk, a negative value, or more than
// a year.
std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);

}  // namespace nti::host
