// IPFIX (RFC 7011) export of closed intervals over UDP, through libfixbuf.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/cli/service/interval_sink.h"

namespace nti::host {

// IpfixSettings: where the flow records go.
struct IpfixSettings {
    std::string host;
    std::uint16_t port = 4739;
    std::uint32_t templateRefreshSeconds = 60;  // UDP has no session: templates are resent
    std::uint32_t observationDomain = 0;
};

// OpenIpfixSink makes the exporter. Each connection of an interval becomes
// up to two flow records, one per direction that carried packets: local to
// remote with the sent counters (flowDirection egress) and remote to local
// with the received ones (ingress). Null with `error` set when the
// collector's address cannot be resolved or the templates not built.
[[nodiscard]] std::unique_ptr<IIntervalSink> OpenIpfixSink(const std::string& name,
                                                           const IpfixSettings& settings,
                                                           std::string& error);

}  // namespace nti::host
