#include "host/services/duration.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace nti::host {

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text) {
    // Longest suffix first: "ms" before "m" and "s".
    constexpr std::array<std::pair<std::string_view, double>, 4> kUnits{
        {{"ms", 1}, {"s", 1e3}, {"m", 60e3}, {"h", 3600e3}}};
    double scale = 1e3;
    for (const auto& [unit, ms] : kUnits) {
        if (text.ends_with(unit)) {
            text.remove_suffix(unit.size());
            scale = ms;
            break;
        }
    }
    // from_chars would also take "inf", "nan" and exponents: digits only.
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string_view::npos ||
        text.front() == '.' || text.back() == '.') {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    constexpr double kYearMs = 365.0 * 24 * 3600e3;
    if (error != std::errc{} || end != text.data() + text.size() || value * scale > kYearMs) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(std::llround(value * scale));
}

}  // namespace nti::host
