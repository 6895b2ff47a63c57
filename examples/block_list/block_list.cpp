// block_list: intercepts all inbound and outbound IPv4/IPv6 traffic through
// the module, drops the packets whose remote end is in a list and allows the
// rest.
//
//   block_list --list blocked.txt [--json] [--count N] [--duration TIME]
//
// The list has one entry per line: "198.18.0.7", "198.18.0.7:443",
// "fd00:198:18::7", "[fd00:198:18::7]:443" or "[fd00:198:18::7]". An entry
// without a port matches every port of that address; '#' starts a comment.
// With --json each blocked packet is a packet record as `nti intercept
// --json` writes it (fields in docs/json.md).
#include <getopt.h>
#include <net/if.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <host/services/host_context.h>
#include <host/services/json_records.h>
#include <network_traffic_interceptor/network_interceptor.h>
#include <qor/object.h>
#include <qor/result.h>
#include "block_rules.h"
#include "example_run.h"

namespace {

using block_list::Endpoint;
using block_list::FindBlocked;
using block_list::ParseFlow;
using block_list::ReadList;
using block_list::ToString;
using dwi::network_interceptor::INetworkInterceptor;
using dwi::network_interceptor::IPacketEventCallback;
using dwi::network_interceptor::Packet;
using dwi::network_interceptor::Verdict;

// BlockList drops packets whose remote end is listed. It runs on the
// module's poll thread, one packet at a time.
class BlockList : public qor::object::Ifaces<IPacketEventCallback> {
public:
    BlockList(std::vector<Endpoint> list, bool json) : m_list(std::move(list)), m_json(json) {}

    [[nodiscard]] qor::result_t OnPacketReceived(Packet& packet,
                                                 Verdict& verdict) noexcept override {
        const auto flow = ParseFlow(packet.payloadBegin, packet.payloadEnd);
        if (!flow) {
            return qor::errors::kOk;
        }
        // Queue 2 holds what this machine sends.
        const bool outbound = packet.queue == 2;
        if (FindBlocked(m_list, *flow, outbound) != nullptr) {
            verdict = Verdict::DROP;
            if (m_json) {
                const nti::host::PacketContext context{std::chrono::system_clock::now(), -1,
                                                       InterfaceName(packet.indev),
                                                       InterfaceName(packet.outdev)};
                std::fputs(
                    nti::host::JsonLine(nti::host::PacketJson(packet, verdict, context)).c_str(),
                    stdout);
            } else {
                std::printf("blocked %s proto %u %s -> %s\n", outbound ? "out" : "in",
                            flow->protocol, ToString(flow->source).c_str(),
                            ToString(flow->destination).c_str());
            }
            std::fflush(stdout);
            m_blocked.fetch_add(1);
        }
        return qor::errors::kOk;
    }

    unsigned long Blocked() const { return m_blocked.load(); }

private:
    static std::string InterfaceName(std::uint32_t index) {
        char name[IF_NAMESIZE] = {};
        return index != 0 && if_indextoname(index, name) != nullptr ? name : "";
    }

    const std::vector<Endpoint> m_list;
    const bool m_json;
    std::atomic<unsigned long> m_blocked{0};
};

void Usage(FILE* out) {
    std::fprintf(out,
                 "usage: block_list --list FILE [options]\n"
                 "Drops inbound and outbound packets whose remote address[:port] is listed in\n"
                 "FILE, allows the rest and prints what it blocked. Needs CAP_NET_ADMIN.\n\n"
                 "  --list FILE          one address, address:port or [ipv6]:port per line\n"
                 "  --json               one JSON packet record per blocked packet\n"
                 "  --count N            stop after N blocked packets\n"
                 "  --print-list         print the parsed list and exit\n"
                 "%s"
                 "  --help               this text\n",
                 example::kRunOptionsHelp);
}

}  // namespace

int main(int argc, char** argv) {
    const example::StopSignals signals;
    example::RunArgs args;
    std::string listPath;
    bool printList = false;
    bool json = false;
    const std::vector<option> longOptions = example::WithRunOptions({
        {"list", required_argument, nullptr, 'l'},
        {"print-list", no_argument, nullptr, 'p'},
        {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
    });
    for (int opt; (opt = getopt_long(argc, argv, "", longOptions.data(), nullptr)) != -1;) {
        if (example::ParseRunOption(opt, optarg, args)) {
            continue;
        }
        switch (opt) {
            case 'l':
                listPath = optarg;
                break;
            case 'p':
                printList = true;
                break;
            case 'j':
                json = true;
                break;
            case 'h':
                Usage(stdout);
                return 0;
            default:
                Usage(stderr);
                return 2;
        }
    }
    if (listPath.empty() || optind != argc) {
        Usage(stderr);
        return 2;
    }

    std::vector<Endpoint> list;
    try {
        std::ifstream in(listPath);
        if (!in) {
            throw std::runtime_error("cannot read " + listPath);
        }
        list = ReadList(in, listPath);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "block_list: %s\n", e.what());
        return 1;
    }
    if (printList) {
        for (const Endpoint& entry : list) {
            std::printf("%s\n", ToString(entry).c_str());
        }
        return 0;
    }

    nti::host::HostContext host;
    if (!example::OpenHost(host, args.host, "block_list")) {
        return 1;
    }
    const auto interceptor = example::CreateAs<INetworkInterceptor>(
        host, dwi::network_interceptor::kNetworkInterceptorClassId, "block_list");
    if (!interceptor) {
        return 1;
    }
    auto blockList = qor::object::Create<BlockList>(std::move(list), json);
    dwi::firewall::Filter filter(2);
    filter[0].direction = dwi::firewall::kInbound;
    filter[1].direction = dwi::firewall::kOutbound;  // family 0: IPv4 and IPv6
    const qor::result_t started =
        interceptor->StartInterception(blockList.Get(), filter, "block_list");
    if (!QOR_SUCCEEDED(started)) {
        std::fprintf(stderr, "block_list: cannot start the interception: %s\n",
                     qor::FormatResult(started).c_str());
        return 1;
    }
    std::fprintf(stderr, "block_list: intercepting; SIGINT or SIGTERM stops\n");
    const int signal = signals.WaitForStop(args.duration, std::chrono::milliseconds(100), [&] {
        return args.count != 0 && blockList->Blocked() >= args.count;
    });
    const qor::result_t stopped = interceptor->StopInterception(blockList.Get());
    std::fprintf(stderr, "block_list: %s, %lu packets blocked\n",
                 signal != 0 ? strsignal(signal) : "done", blockList->Blocked());
    if (!QOR_SUCCEEDED(stopped)) {
        std::fprintf(stderr, "block_list: cannot stop the interception: %s\n",
                     qor::FormatResult(stopped).c_str());
        return 1;
    }
    return 0;
}
