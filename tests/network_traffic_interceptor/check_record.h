// Matching of checked-call records written by the module's service objects.
#pragma once

#include <cctype>
#include <string>
#include <vector>

#include "tests/fakes/recording_tracer.h"

namespace nti::test {

// HasCheckRecord is true when a level-300 record reads
//   <source>:<line>(<expression>),(QOR_SUCCEEDED(_result)) failed: result = ...<tail>...
// for any line number.
inline bool HasCheckRecord(const std::vector<TraceLine>& lines, const std::string& source,
                           const std::string& expression, const std::string& tail) {
    const std::string head = source + ":";
    const std::string body = "(" + expression + "),(QOR_SUCCEEDED(_result)) failed: result = ";
    for (const auto& line : lines) {
        if (line.level != 300) {
            continue;
        }
        const auto at = line.text.find(head);
        if (at == std::string::npos) {
            continue;
        }
        auto digits = at + head.size();
        while (digits < line.text.size() &&
               std::isdigit(static_cast<unsigned char>(line.text[digits]))) {
            ++digits;
        }
        if (line.text.compare(digits, body.size(), body) == 0 &&
            line.text.find(tail, digits + body.size()) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace nti::test
