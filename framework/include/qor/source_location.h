// Source locations as traces and exceptions show them: the path relative to
// the repository root without its extension, e.g.
// "network_traffic_interceptor/src/network_interceptor". The build strips the
// root with -fmacro-prefix-map.
#pragma once

#include <cstdint>
#include <string_view>

namespace qor {

struct SourceLocation {
    std::string_view file;
    std::uint32_t line = 0;
};

// StripExtension drops the last ".ext" of the final path component.
constexpr std::string_view StripExtension(std::string_view path) {
    const auto slash = path.rfind('/');
    const auto dot = path.rfind('.');
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) {
        return path;
    }
    return path.substr(0, dot);
}

}  // namespace qor

// QOR_HERE is the location of the expanding line.
#define QOR_HERE (::qor::SourceLocation{::qor::StripExtension(__FILE__), __LINE__})
// QOR_AT is this file at a fixed line: for records whose line number is part
// of the system's observable output and must not move with edits.
#define QOR_AT(line) (::qor::SourceLocation{::qor::StripExtension(__FILE__), (line)})
