// A manual page (roff) rendered from a CLI11 command line definition, so that
// nti.1 never drifts from what nti accepts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace nti::host {

// RoffEscape makes `text` safe as roff input: backslashes and hyphens are
// escaped and a line starting with a control character is neutralised.
std::string RoffEscape(std::string_view text);

// ManSections is what a manual page says beyond the command line. Texts
// start a new paragraph at each blank line; empty parts are left out.
struct ManSections {
    std::string date;  // YYYY-MM-DD
    std::string exitStatus;
    std::string environment;
    std::string files;
    std::vector<std::string> examples;  // command lines
    std::vector<std::string> seeAlso;   // "page(section)"
};

// RenderManPage renders section 1 for program `name`: NAME and DESCRIPTION
// from the app's description (its first paragraph is the summary), the visible
// options of the app, one subsection per visible subcommand with its
// options, then the sections of `more`. Options in the empty group (hidden)
// are left out.
std::string RenderManPage(const CLI::App& app, std::string_view name, std::string_view version,
                          const ManSections& more = {});

}  // namespace nti::host
