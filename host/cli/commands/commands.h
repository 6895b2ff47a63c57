// The nti subcommands. Each adds itself to the CLI and runs with the common
// options; a command returns the process exit code.
#pragma once

#include <functional>

#include "host/services/host_context.h"

namespace CLI {
class App;
}

namespace nti::host {

// Exit codes shared by the commands.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

using CommandRunner = std::function<int(const CommonOptions&)>;

// Each Add*Command registers its subcommand and returns what runs it.
CommandRunner AddInfoCommand(CLI::App& app);
CommandRunner AddInterceptCommand(CLI::App& app);
CommandRunner AddStatsCommand(CLI::App& app);
CommandRunner AddStatsServiceCommand(CLI::App& app);
CommandRunner AddDemoCommand(CLI::App& app);

}  // namespace nti::host
