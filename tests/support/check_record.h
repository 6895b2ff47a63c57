// Check records ("<file>:<line>(<expression>),(<condition>) failed: ...")
// compared without their line numbers, so that tests do not move with edits.
#pragma once

#include <cctype>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/recording_tracer.h"

namespace nti::test {

// WithoutLine writes every "<file>:<line>(" of `text` as "<file>:#(".
inline std::string WithoutLine(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t digits = i + 1;
        while (text[i] == ':' && digits < text.size() &&
               std::isdigit(static_cast<unsigned char>(text[digits]))) {
            ++digits;
        }
        if (digits > i + 1 && digits < text.size() && text[digits] == '(') {
            out += ":#";
            i = digits;
        } else {
            out += text[i++];
        }
    }
    return out;
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
