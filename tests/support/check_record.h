// Check records ("<file>:<line>(<expression>),(<condition>) failed: ...")
// compared without their line numbers, so that tests do not move with edits.
#pragma once

#include <cctype>
#include <string>
#include <vector>

#include "tests/support/recording_tracer.h"

namespace nti::test {

// WithoutLine writes every "<file>:<line>(" of `text` as "<file>:#(".
inline std::string WithoutLine(const std::string& text) {
    std::string out;
    std::size_t from = 0;
    for (std::size_t colon = text.find(':'); colon != std::string::npos;
         colon = text.find(':', colon + 1)) {
        std::size_t end = colon + 1;
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
            ++end;
        }
        if (end > colon + 1 && end < text.size() && text[end] == '(') {
            out.append(text, from, colon + 1 - from).append("#");
            from = end;
        }
    }
    return out.append(text, from, std::string::npos);
}

// HasCheckRecord: a level-300 record of `lines` holds the failed result check
// of `expression` in `source` followed, somewhere later, by `tail`.
inline bool HasCheckRecord(const std::vector<TraceLine>& lines, const std::string& source,
                           const std::string& expression, const std::string& tail) {
    const std::string head =
        source + ":#(" + expression + "),(QOR_SUCCEEDED(_result)) failed: result = ";
    for (const auto& line : lines) {
        const std::string text = WithoutLine(line.text);
        const auto at = text.find(head);
        if (line.level == 300 && at != std::string::npos &&
            text.find(tail, at + head.size()) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace nti::test
