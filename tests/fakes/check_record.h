// WithoutLine makes check records comparable whole: the line number of
// "<file>:<line>(..." becomes "#", so tests do not move with edits.
#pragma once

#include <cctype>
#include <string>

namespace nti::test {

inline std::string WithoutLine(const std::string& record) {
    const auto colon = record.find(':');
    if (colon == std::string::npos) {
        return record;
    }
    auto end = colon + 1;
    while (end < record.size() && std::isdigit(static_cast<unsigned char>(record[end]))) {
        ++end;
    }
    if (end == colon + 1 || end == record.size() || record[end] != '(') {
        return record;
    }
    return record.substr(0, colon + 1) + "#" + record.substr(end);
}

}  // namespace nti::test
