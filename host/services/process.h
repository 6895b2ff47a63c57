// Running a helper program without a shell.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "qor/result.h"

namespace nti::host {

struct ProcessOutput {
    int exitCode = -1;  // exit status, or 128 + signal number
    std::string out;
    std::string err;
};

// RunProcess starts argv[0] (searched in PATH) with `input` on its standard
// input, collects its standard output and error and waits for it. A program
// still running after `timeout` is killed. Returns 0 when the program ran
// (whatever its exit code), else a code converted from errno, or 0x80000221
// on the timeout.
[[nodiscard]] qor::result_t RunProcess(
    const std::vector<std::string>& argv, std::string_view input, ProcessOutput& output,
    std::chrono::milliseconds timeout = std::chrono::seconds(30));

// ProgramInPath is true when `name` is an executable file in a directory of
// PATH (the usual system directories when PATH is unset).
[[nodiscard]] bool ProgramInPath(std::string_view name);

}  // namespace nti::host
