// nti: the host program for the network traffic interceptor module.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <map>

#include "host/commands/commands.h"
#include "host/exit_signals.h"
#include "host/man_page.h"

int main(int argc, char** argv) {
    using namespace nti::host;
    CLI::App app{
        "nti - load the network traffic interceptor module and use it on this machine:\n"
        "intercept packets through NFQUEUE and watch per-connection traffic statistics."};
    app.require_subcommand(1);
    CommonOptions options;
    app.add_option("--module", options.module,
                   "Module to load: a path, or a name searched as lib<name>.so")
        ->capture_default_str();
    app.add_option("--trace-level", options.traceLevel,
                   "Highest trace level written (300 errors, 500 warnings, 800 all)")
        ->capture_default_str()
        ->check(CLI::Range(0u, 1000u));
    auto* traceFile =
        app.add_option("--trace-file", options.traceFile, "Write traces to this file, not stderr");
    app.add_flag("--trace-journal", options.traceJournal,
                 "Write traces to the systemd journal (PRIORITY from the level, field "
                 "NTI_TRACE_LEVEL); stderr while the journal is unavailable")
        ->excludes(traceFile);

    // Hidden: prints the manual page built from this definition (installed as nti.1).
    app.add_flag_callback("--man",
                          [&app] {
                              std::cout << RenderManPage(app, "nti", NTI_VERSION);
                              throw CLI::Success();
                          })
        ->group("");
    app.add_option("--firewall", options.firewall,
                   "Firewall that holds the rules: nft (a table the kernel deletes when nti "
                   "ends, even when killed), iptables (chains NTI_IN/OUT/FWD; rules of killed "
                   "runs are removed by the next start) or auto (nft where the kernel supports "
                   "what the command needs)")
        ->capture_default_str()
        ->check(CLI::IsMember({"auto", "nft", "iptables"}));
    app.add_option("--state-dir", options.stateDir,
                   "Directory of the key-value storage (default /var/lib/nti for root, else "
                   "$XDG_STATE_HOME/nti or ~/.local/state/nti)");

    std::map<CLI::App*, CommandRunner> runners;
    const auto add = [&](CommandRunner (*adder)(CLI::App&)) {
        const std::size_t before = app.get_subcommands({}).size();
        CommandRunner runner = adder(app);
        runners.emplace(app.get_subcommands({})[before], std::move(runner));
    };
    add(&AddInfoCommand);
    add(&AddInterceptCommand);
    add(&AddStatsCommand);
    add(&AddStatsServiceCommand);
    add(&AddDemoCommand);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? kExitOk : kExitUsage;
    }
    InstallTerminateCleanup();
    for (auto& [sub, runner] : runners) {
        if (!sub->parsed()) {
            continue;
        }
        // Unwinding removes the rules; a cleanup still registered here belongs
        // to an object something kept alive, and runs before the process ends.
        try {
            return runner(options);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "nti: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "nti: unknown exception\n");
        }
        RunExitCleanups();
        return kExitFailure;
    }
    return kExitUsage;
}
