// stats_to_json: registers a statistics collector with the module and writes
// every interval it harvests as one JSON line.
//
//   stats_to_json [--period MS] [--id N] [--count N] [--duration SECONDS]
//                 [--output FILE]
//
// A line: {"collector":1,"begin":"2026-11-21T21:00:00.0000000Z","end":"...",
// "connections":[{"ipProtocol":6,"localIp":"198.18.0.1","localPort":40000,
// "remoteIp":"198.18.0.2","remotePort":80,"packetsSent":3,"bytesSent":180,...}]}
#include <arpa/inet.h>
#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <host/host_context.h>
#include <network_traffic_interceptor/connection_counters.h>
#include <network_traffic_interceptor/network_interceptor.h>
#include <network_traffic_interceptor/statistics.h>
#include <qor/object.h>
#include <qor/result.h>
#include "example_run.h"

namespace {

namespace stats = system_interceptors::net::statistics;

// Times in the records are 100-ns ticks since 1601-01-01 UTC.
std::string TicksToUtc(std::uint64_t ticks) {
    constexpr std::uint64_t kUnixEpochTicks = 116444736000000000ULL;
    if (ticks < kUnixEpochTicks) {
        return "1970-01-01T00:00:00.0000000Z";
    }
    const std::uint64_t sinceUnix = ticks - kUnixEpochTicks;
    const std::time_t seconds = static_cast<std::time_t>(sinceUnix / 10000000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[96];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%07lluZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<unsigned long long>(sinceUnix % 10000000));
    return text;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string IpText(const stats::ip_t& ip) {
    char text[INET6_ADDRSTRLEN] = {};
    if (ip.family == 4) {
        inet_ntop(AF_INET, ip.v4.bytes.data(), text, sizeof(text));
    } else {
        inet_ntop(AF_INET6, ip.v6.bytes.data(), text, sizeof(text));
    }
    return text;
}

std::string MacText(const qor::mac48_address_t& mac) {
    char text[18];
    const auto& b = mac.bytes;
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                  b[5]);
    return text;
}

// JsonObject writes members in order, leaving absent ones out.
class JsonObject {
public:
    void Raw(const char* name, const std::string& json) {
        m_text += m_text.size() > 1 ? ",\"" : "\"";
        m_text += name;
        m_text += "\":";
        m_text += json;
    }
    void Number(const char* name, std::uint64_t value) { Raw(name, std::to_string(value)); }
    template <class T, class F>
    void Optional(const char* name, const std::optional<T>& value, F&& format) {
        if (value) {
            Raw(name, format(*value));
        }
    }
    std::string Close() { return m_text + "}"; }

private:
    std::string m_text = "{";
};

std::string ConnectionJson(const stats::ConnectionCounter& c) {
    const auto ip = [](const stats::ip_t& v) { return JsonString(IpText(v)); };
    const auto mac = [](const qor::mac48_address_t& v) { return JsonString(MacText(v)); };
    const auto number = [](auto v) { return std::to_string(v); };
    JsonObject o;
    o.Number("etherType", c.etherType);
    o.Optional("ipProtocol", c.ipProtocol, number);
    o.Optional("localIp", c.localIp, ip);
    o.Optional("localPort", c.localPort, number);
    o.Optional("localMac", c.localMac, mac);
    o.Optional("remoteIp", c.remoteIp, ip);
    o.Optional("remotePort", c.remotePort, number);
    o.Optional("remoteMac", c.remoteMac, mac);
    o.Optional("gatewayIp", c.gatewayIp, ip);
    o.Optional("gatewayMac", c.gatewayMac, mac);
    o.Optional("domain", c.domain, JsonString);
    o.Raw("proxyDetected", c.proxyDetected ? "true" : "false");
    o.Number("packetsSent", c.packetsSent);
    o.Number("bytesSent", c.bytesSent);
    o.Number("packetsReceived", c.packetsReceived);
    o.Number("bytesReceived", c.bytesReceived);
    return o.Close();
}

std::string IntervalJson(std::uint32_t id, const stats::IntervalCounters& interval) {
    std::string connections = "[";
    for (const auto& c : interval.counters) {
        connections += connections.size() > 1 ? "," : "";
        connections += ConnectionJson(c);
    }
    JsonObject o;
    o.Number("collector", id);
    o.Raw("begin", JsonString(TicksToUtc(interval.begin)));
    o.Raw("end", JsonString(TicksToUtc(interval.end)));
    o.Raw("connections", connections + "]");
    return o.Close();
}

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
            std::fprintf(output, "%s\n", IntervalJson(id, interval).c_str());
            ++written;
        }
        std::fflush(output);
        return args.count != 0 && written >= args.count;
    };
    signals.WaitForStop(std::chrono::seconds(args.duration), std::chrono::milliseconds(200), drain);
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
