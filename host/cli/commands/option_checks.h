// CLI11 checks made from the Parse* functions, shared by the commands.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace nti::host {

// Accepts makes a check that passes what `parse` accepts; the error says
// the value is not `what`. It adds nothing to the help text: the option's
// description says what it takes.
template <class F>
CLI::Validator Accepts(const char* what, F parse) {
    return CLI::Validator(
        [what, parse](std::string& value) -> std::string {
            return parse(value) ? std::string() : std::string("not ") + what + ": " + value;
        },
        "");
}

}  // namespace nti::host
