// What both examples share: the host options every nti command has, and
// waiting for a stop request (signal, deadline or the example's own reason).
#pragma once

#include <getopt.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <host/services/duration.h>
#include <host/services/host_context.h>
#include <qor/object.h>
#include <qor/result.h>

namespace example {

// ParseUnsigned reads a whole decimal number or exits with a usage error.
inline unsigned long ParseUnsigned(const char* name, const char* arg) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(arg, &end, 10);
    if (*arg == '\0' || *end != '\0') {
        std::fprintf(stderr, "%s: not a number: %s\n", name, arg);
        std::exit(2);
    }
    return value;
}

// RunArgs are the options both examples take: the host options of nti and
// when to stop.
struct RunArgs {
    nti::host::CommonOptions host;
    unsigned long count = 0;                // the example's own unit; 0: no limit
    std::chrono::milliseconds duration{0};  // 0: no limit
};

// WithRunOptions appends the RunArgs options and the terminator to `own`.
inline std::vector<option> WithRunOptions(std::vector<option> own) {
    own.insert(own.end(), {{"module", required_argument, nullptr, 'M'},
                           {"trace-level", required_argument, nullptr, 'L'},
                           {"trace-file", required_argument, nullptr, 'F'},
                           {"trace-journal", no_argument, nullptr, 'J'},
                           {"state-dir", required_argument, nullptr, 'S'},
                           {"count", required_argument, nullptr, 'c'},
                           {"duration", required_argument, nullptr, 'd'},
                           {nullptr, 0, nullptr, 0}});
    return own;
}

inline const char* kRunOptionsHelp =
    "  --duration TIME      stop after this long: 500ms, 30s, 5m, 1h or seconds\n"
    "                       (default: until SIGINT/SIGTERM)\n"
    "  --module NAME|PATH   module to load (default network_traffic_interceptor)\n"
    "  --trace-level N      highest trace level written (default 300)\n"
    "  --trace-file PATH    write traces to this file, not stderr\n"
    "  --trace-journal      write traces to the systemd journal\n"
    "  --state-dir DIR      directory of the host's key-value storage\n";

// ParseRunOption handles one option of WithRunOptions; false when `opt` is
// not one of them.
inline bool ParseRunOption(int opt, const char* arg, RunArgs& args) {
    switch (opt) {
        case 'M':
            args.host.module = arg;
            return true;
        case 'L':
            args.host.traceLevel = static_cast<std::uint32_t>(ParseUnsigned("--trace-level", arg));
            return true;
        case 'F':
            args.host.traceFile = arg;
            return true;
        case 'J':
            args.host.traceJournal = true;
            return true;
        case 'S':
            args.host.stateDir = arg;
            return true;
        case 'c':
            args.count = ParseUnsigned("--count", arg);
            return true;
        case 'd':
            if (const auto duration = nti::host::ParseDuration(arg)) {
                args.duration = *duration;
                return true;
            }
            std::fprintf(stderr, "--duration: not a time (500ms, 30s, 5m, 1h): %s\n", arg);
            std::exit(2);
        default:
            return false;
    }
}

// OpenHost loads the module with the host services, the firewall ones
// included (queue numbers and rules; rules of ended runs are swept); false,
// after a message on stderr, when it cannot.
inline bool OpenHost(nti::host::HostContext& host, const nti::host::CommonOptions& options,
                     const char* program) {
    if (!QOR_SUCCEEDED(host.Open(options))) {
        std::fprintf(stderr, "%s: cannot load module: %s\n", program, host.Error().c_str());
        return false;
    }
    if (!QOR_SUCCEEDED(host.StartFirewall(nti::host::FirewallSettings{}))) {
        std::fprintf(stderr, "%s: cannot start the firewall services: %s\n", program,
                     host.Error().c_str());
        return false;
    }
    return true;
}

// CreateAs creates class `clsid` of the module and asks it for interface I;
// null, after a message on stderr, when either step fails.
template <class I>
qor::RefPtr<I> CreateAs(nti::host::HostContext& host, std::uint32_t clsid, const char* program) {
    qor::RefPtr<qor::IObject> object;
    qor::RefPtr<I> wanted;
    qor::result_t result = host.CreateObject(clsid, object.Ref());
    if (QOR_SUCCEEDED(result)) {
        result = qor::QueryInterfaceAs(object.Get(), wanted);
    }
    if (!QOR_SUCCEEDED(result)) {
        std::fprintf(stderr, "%s: cannot create class 0x%08x: %s\n", program, clsid,
                     qor::FormatResult(result).c_str());
    }
    return wanted;
}

// StopSignals blocks SIGINT and SIGTERM in this thread and every thread
// started after it (the module's threads included), so that WaitForStop
// receives them. Build it first thing in main.
class StopSignals {
public:
    StopSignals() {
        sigemptyset(&m_set);
        sigaddset(&m_set, SIGINT);
        sigaddset(&m_set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
    }

    // WaitForStop returns the signal that came (0 when none did) once a
    // signal arrives, `duration` has passed (zero: no limit) or `done`
    // answers true; `done` is asked every `tick`, so it may do small work.
    int WaitForStop(std::chrono::milliseconds duration, std::chrono::milliseconds tick,
                    const std::function<bool()>& done) const {
        const auto deadline = std::chrono::steady_clock::now() + duration;
        const timespec wait{static_cast<time_t>(tick.count() / 1000),
                            static_cast<long>(tick.count() % 1000) * 1000000};
        for (;;) {
            const int signal = sigtimedwait(&m_set, nullptr, &wait);
            if (signal > 0) {
                return signal;
            }
            if (done()) {
                return 0;
            }
            if (duration.count() > 0 && std::chrono::steady_clock::now() >= deadline) {
                return 0;
            }
        }
    }

private:
    sigset_t m_set;
};

}  // namespace example
