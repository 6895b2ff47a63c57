// nti: the host program for the network traffic interceptor module.
#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

#include "host/cli/commands/commands.h"
#include "host/cli/exit_signals.h"
#include "host/cli/man_page.h"
#include "host/services/exit_cleanup.h"

namespace {

// NtiManSections: what the manual page says beyond the command line.
nti::host::ManSections NtiManSections() {
    nti::host::ManSections s;
    s.date = NTI_DATE;
    s.exitStatus =
        "0 success.\n\n1 failure: the module, the firewall or the interception could not be "
        "set up or ended with an error.\n\n2 wrong arguments, options that contradict each "
        "other, or missing privileges (\"needs root or CAP_NET_ADMIN\").";
    s.environment =
        "XDG_STATE_HOME, HOME: where the state directory lies for users other than root "
        "(--state-dir overrides).\n\nPATH: where iptables-restore, iptables-save, "
        "ip6tables-restore and ip6tables-save (and ip, for nti demo) are looked for.";
    s.files =
        "/var/lib/nti/state.db: intervals nti stats counted and did not print, kept for the next "
        "run (root; see --state-dir).\n\n"
        "/proc/net/netfilter/nfnetlink_queue: the kernel's queue counters nti intercept "
        "reports.";
    s.examples = {
        "nti intercept --direction in --proto udp --local-port 53 --count 10",
        "nti intercept --direction out --proto tcp --remote-port 443 --verdict drop --json",
        "nti stats --period 10s --proto tcp --addr 198.18.0.0/15",
        "nti stats --period 1m --json --state-dir /tmp/nti-state",
        "nti demo",
    };
    s.seeAlso = {"iptables(8)", "ip6tables(8)", "iptables-save(8)", "ip-netns(8)",
                 "capabilities(7)"};
    return s;
}

int RunNti(int argc, char** argv) {
    using namespace nti::host;
    CLI::App app{
        "nti - load the network traffic interceptor module and use it on this machine:\n"
        "intercept packets through NFQUEUE and watch per-connection traffic statistics.\n"
        "\n"
        "nti intercept and nti stats change this machine's firewall while they run, in the "
        "firewall --firewall chooses, each rule commented \"nti:<pid>:<tag>\". With nft they "
        "add one nftables table, inet nti_<pid>, that the kernel deletes when nti ends, "
        "however it ends. With iptables they add iptables and ip6tables rules to the chains "
        "NTI_IN, NTI_OUT and NTI_FWD (jumped to from INPUT, OUTPUT and FORWARD), remove them "
        "when they end, and the chains with their jumps once no rule is left in them; rules "
        "of a run that was killed are removed by the next run. nti info changes nothing; nti "
        "demo works in network namespaces of its own and removes them.\n"
        "\n"
        "The common options may be given before or after the command."};
    app.require_subcommand(1);
    // Options a command does not know go to nti itself, so the common ones
    // may follow the command too.
    app.fallthrough();
    app.set_version_flag("--version", "nti " NTI_VERSION, "Print the version and exit");
    CommonOptions options;
    app.add_option("--module", options.module,
                   "Module to load: a path, or a name searched as lib<name>.so")
        ->capture_default_str();
    app.add_option("--trace-level", options.traceLevel,
                   "Highest trace level written, 0 to 1000: 300 errors, 500 warnings, 700 "
                   "information, 800 everything")
        ->capture_default_str()
        ->type_name("LEVEL")
        ->check(CLI::Range(0u, 1000u).description(""));
    auto* traceFile =
        app.add_option("--trace-file", options.traceFile, "Write traces to this file, not stderr")
            ->type_name("PATH");
    app.add_flag("--trace-journal", options.traceJournal,
                 "Write traces to the systemd journal (PRIORITY from the level, field "
                 "NTI_TRACE_LEVEL); stderr while the journal is unavailable")
        ->excludes(traceFile);

    // Hidden: prints the manual page built from this definition (installed as nti.1).
    app.add_flag_callback("--man",
                          [&app] {
                              std::cout << RenderManPage(app, "nti", NTI_VERSION, NtiManSections());
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
                   "Directory of the key-value storage, state.db (default /var/lib/nti for "
                   "root, else $XDG_STATE_HOME/nti or ~/.local/state/nti)")
        ->type_name("DIR");

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
    for (CLI::App* sub : app.get_subcommands({})) {
        sub->footer(
            "The common options (--module, --trace-level, --trace-file, --trace-journal, "
            "--firewall, --state-dir) may come before or after the command: see nti --help.");
    }

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
        return RunCleaningUp([&run = runner, &options] { return run(options); }, kExitFailure);
    }
    return kExitUsage;
}

}  // namespace

// An exception while nti sets itself up ends it with the failure status and
// a message, not with std::terminate's abort.
int main(int argc, char** argv) {
    return nti::host::RunCleaningUp([&] { return RunNti(argc, argv); }, nti::host::kExitFailure);
}
