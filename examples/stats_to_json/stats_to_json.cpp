// stats_to_json: registers a statistics collector with the module and writes
// every interval it harvests as one JSON line.
//
//   stats_to_json [--period MS] [--id N] [--count N] [--duration TIME]
//                 [--output FILE]
//
// Each line is an interval record as `nti stats --json` writes it (fields in
// docs/json.md).
#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <host/services/host_context.h>
#include <host/services/json_records.h>
#include <network_traffic_interceptor/connection_counters.h>
#include <network_traffic_interceptor/network_interceptor.h>
#include <network_traffic_interceptor/statistics.h>
#include <qor/object.h>
#include <qor/result.h>
#include "example_run.h"

namespace {

namespace stats = system_interceptors::net::statistics;

void Usage(FILE* out) {
    std::fprintf(out,
                 "usage: stats_to_json [options]\n"
                 "Registers a connection statistics collector and writes each harvested\n"
                 "interval as one JSON line. Needs CAP_NET_ADMIN.\n\n"
                 "  --period MS          harvest period in milliseconds (default 10000)\n"
                 "  --id N               collector id (default 1)\n"
                 "  --epoch-aligned      align periods to the epoch, not to the registration\n"
                 "  --count N            stop after N intervals\n"
                 "  --output FILE        append the lines to FILE, not stdout\n"
                 "  --keep               leave the collector registered (kept across restarts)\n"
                 "%s"
                 "  --help               this text\n",
                 example::kRunOptionsHelp);
}

}  // namespace

int main(int argc, char** argv) {
    const example::StopSignals signals;
    example::RunArgs args;
    std::uint32_t period = 10000;
    std::uint32_t id = 1;
    auto alignment = stats::PeriodAlignment::CollectorRegistration;
    std::string outputPath;
    bool keep = false;
    const std::vector<option> longOptions = example::WithRunOptions({
        {"period", required_argument, nullptr, 'p'},
        {"id", required_argument, nullptr, 'i'},
        {"epoch-aligned", no_argument, nullptr, 'e'},
        {"output", required_argument, nullptr, 'o'},
        {"keep", no_argument, nullptr, 'k'},
        {"help", no_argument, nullptr, 'h'},
    });
    for (int opt; (opt = getopt_long(argc, argv, "", longOptions.data(), nullptr)) != -1;) {
        if (example::ParseRunOption(opt, optarg, args)) {
            continue;
        }
        switch (opt) {
            case 'p':
                period = static_cast<std::uint32_t>(example::ParseUnsigned("--period", optarg));
                break;
            case 'i':
                id = static_cast<std::uint32_t>(example::ParseUnsigned("--id", optarg));
                break;
            case 'e':
                alignment = stats::PeriodAlignment::EpochStartDate;
                break;
            case 'o':
                outputPath = optarg;
                break;
            case 'k':
                keep = true;
                break;
            case 'h':
                Usage(stdout);
                return 0;
            default:
                Usage(stderr);
                return 2;
        }
    }
    if (optind != argc || period == 0) {
        Usage(stderr);
        return 2;
    }
    FILE* output = stdout;
    if (!outputPath.empty() && (output = std::fopen(outputPath.c_str(), "a")) == nullptr) {
        std::perror(outputPath.c_str());
        return 1;
    }

    nti::host::HostContext host;
    if (!example::OpenHost(host, args.host, "stats_to_json")) {
        return 1;
    }
    const auto counters = example::CreateAs<stats::IConnectionCounters>(
        host, dwi::network_interceptor::kConnectionCountersClassId, "stats_to_json");
    if (!counters) {
        return 1;
    }
    if (const qor::result_t result = counters->RegisterCollector(id, alignment, period);
        !QOR_SUCCEEDED(result)) {
        std::fprintf(stderr, "stats_to_json: cannot register collector %u: %s\n", id,
                     qor::FormatResult(result).c_str());
        return 1;
    }

    unsigned long written = 0;
    // Ready intervals are taken (swapped out) by every read.
    const auto drain = [&] {
        std::vector<stats::IntervalCounters> ready;
        const qor::result_t read = counters->ReadCounters(id, ready);
        if (!QOR_SUCCEEDED(read)) {
            std::fprintf(stderr, "stats_to_json: cannot read collector %u: %s\n", id,
                         qor::FormatResult(read).c_str());
            return true;
        }
        for (const auto& interval : ready) {
            if (args.count != 0 && written >= args.count) {
                break;
            }
            std::fputs(nti::host::JsonLine(nti::host::IntervalJson(id, interval)).c_str(), output);
            ++written;
        }
        std::fflush(output);
        return args.count != 0 && written >= args.count;
    };
    signals.WaitForStop(args.duration, std::chrono::milliseconds(200), drain);
    if (args.count == 0 || written < args.count) {
        drain();
    }
    if (!keep) {
        counters->UnregisterCollector(id);
    }
    if (output != stdout) {
        std::fclose(output);
    }
    return 0;
}
