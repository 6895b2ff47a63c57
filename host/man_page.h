// A manual page (roff) rendered from a CLI11 command line definition, so that
// nti.1 never drifts from what nti accepts.
#pragma once

#include <string>
#include <string_view>

namespace CLI {
class App;
}

namespace nti::host {

// RoffEscape makes `text` safe as roff input: backslashes and hyphens are
// escaped and a line starting with a control character is neutralised.
std::string RoffEscape(std::string_view text);

// RenderManPage renders section 1 for program `name`: NAME and DESCRIPTION
// from the app's description (its first paragraph is the summary), the visible
// options of the app, and one subsection per visible subcommand with its
// options. Options in the empty group (hidden) are left out.
std::string RenderManPage(const CLI::App& app, std::string_view name, std::string_view version);

}  // namespace nti::host
