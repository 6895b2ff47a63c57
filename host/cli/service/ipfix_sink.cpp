// IPFIX export through libfixbuf.
#include "host/cli/service/ipfix_sink.h"

#include <arpa/inet.h>
#include <fixbuf/public.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <array>
#include <chrono>
#include <cstring>
#include <map>

#include "dwi_common/ticks.h"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;

constexpr std::uint64_t kTicksPerMilli = 10'000;

// FlowRecord is the in-memory record the internal template describes,
// field for field (fixbuf copies by this layout).
struct FlowRecord {
    std::uint64_t flowStartMilliseconds;
    std::uint64_t flowEndMilliseconds;
    std::uint64_t octetDeltaCount;
    std::uint64_t packetDeltaCount;
    std::uint8_t sourceIPv6Address[16];
    std::uint8_t destinationIPv6Address[16];
    std::uint32_t sourceIPv4Address;  // host byte order, as fixbuf wants
    std::uint32_t destinationIPv4Address;
    std::uint32_t ingressInterface;
    std::uint32_t egressInterface;
    std::uint16_t sourceTransportPort;
    std::uint16_t destinationTransportPort;
    std::uint8_t protocolIdentifier;
    std::uint8_t flowDirection;
    std::uint8_t sourceMacAddress[6];
    std::uint8_t destinationMacAddress[6];
    std::uint8_t padding[6];
};
static_assert(sizeof(FlowRecord) == 104);

// Spec flags choose the elements of each exported template.
constexpr std::uint32_t kV4 = 1, kV6 = 2, kMac = 4;

#define NTI_IE(name, len, flags) \
    { const_cast<char*>(name), len, flags }
fbInfoElementSpec_t kSpec[] = {NTI_IE("flowStartMilliseconds", 8, 0),
                               NTI_IE("flowEndMilliseconds", 8, 0),
                               NTI_IE("octetDeltaCount", 8, 0),
                               NTI_IE("packetDeltaCount", 8, 0),
                               NTI_IE("sourceIPv6Address", 16, kV6),
                               NTI_IE("destinationIPv6Address", 16, kV6),
                               NTI_IE("sourceIPv4Address", 4, kV4),
                               NTI_IE("destinationIPv4Address", 4, kV4),
                               NTI_IE("ingressInterface", 4, 0),
                               NTI_IE("egressInterface", 4, 0),
                               NTI_IE("sourceTransportPort", 2, 0),
                               NTI_IE("destinationTransportPort", 2, 0),
                               NTI_IE("protocolIdentifier", 1, 0),
                               NTI_IE("flowDirection", 1, 0),
                               NTI_IE("sourceMacAddress", 6, kMac),
                               NTI_IE("destinationMacAddress", 6, kMac),
                               NTI_IE("paddingOctets", 6, kV4 | kV6),  // internal template only
                               FB_IESPEC_NULL};
#undef NTI_IE

constexpr std::uint16_t kInternalTid = 0x8000;
// Exported template ids by flag set: IPv4, IPv4 + MAC, IPv6, IPv6 + MAC.
constexpr std::array<std::pair<std::uint32_t, std::uint16_t>, 4> kExportTemplates{
    {{kV4, 256}, {kV4 | kMac, 257}, {kV6, 258}, {kV6 | kMac, 259}}};

std::string Take(GError* error) {
    std::string text = error != nullptr ? error->message : "unknown error";
    g_clear_error(&error);
    return text;
}

struct ModelFree {
    void operator()(fbInfoModel_t* m) const { fbInfoModelFree(m); }
};
struct BufFree {
    void operator()(fBuf_t* b) const { fBufFree(b); }
};

// LocalInterfaces maps this machine's addresses to their interface index,
// the interface a connection with that local address used.
std::map<std::array<std::uint8_t, 16>, std::uint32_t> LocalInterfaces() {
    std::map<std::array<std::uint8_t, 16>, std::uint32_t> out;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return out;
    }
    for (const ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr) {
            continue;
        }
        std::array<std::uint8_t, 16> key{};
        if (a->ifa_addr->sa_family == AF_INET) {
            std::memcpy(key.data(), &reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr, 4);
        } else if (a->ifa_addr->sa_family == AF_INET6) {
            std::memcpy(key.data(), &reinterpret_cast<sockaddr_in6*>(a->ifa_addr)->sin6_addr, 16);
        } else {
            continue;
        }
        out.emplace(key, if_nametoindex(a->ifa_name));
    }
    freeifaddrs(list);
    return out;
}

std::array<std::uint8_t, 16> Key(const ip_t& ip) {
    std::array<std::uint8_t, 16> key{};
    ip.family == 4 ? void(std::memcpy(key.data(), ip.v4.bytes.data(), 4))
                   : void(std::memcpy(key.data(), ip.v6.bytes.data(), 16));
    return key;
}

class IpfixSink : public IIntervalSink {
public:
    IpfixSink(std::string name, IpfixSettings settings)
        : m_name(std::move(name)), m_settings(std::move(settings)) {}

    // Open builds the information model, session, templates and UDP
    // exporter; after a failed send everything but the model is rebuilt.
    std::string Open() {
        if (!m_model) {
            m_model.reset(fbInfoModelAlloc());
        }
        m_buf.reset();
        fbSession_t* session = fbSessionAlloc(m_model.get());
        GError* error = nullptr;
        if (!AddTemplate(session, true, kInternalTid, kV4 | kV6 | kMac, &error)) {
            fbSessionFree(session);
            return "internal template: " + Take(error);
        }
        fbSessionSetDomain(session, m_settings.observationDomain);
        for (const auto& [flags, tid] : kExportTemplates) {
            if (!AddTemplate(session, false, tid, flags, &error)) {
                fbSessionFree(session);
                return "template: " + Take(error);
            }
        }
        std::string port = std::to_string(m_settings.port);
        fbConnSpec_t spec = FB_CONNSPEC_INIT;
        spec.transport = FB_UDP;
        spec.host = m_settings.host.data();
        spec.svc = port.data();
        fbExporter_t* exporter = fbExporterAllocNet(&spec);
        if (exporter == nullptr) {
            fbSessionFree(session);
            return m_settings.host + ":" + port + ": cannot make the exporter";
        }
        m_buf.reset(fBufAllocForExport(session, exporter));
        m_lastTemplates = {};
        return {};
    }

    std::string Write(std::uint32_t, bool, const IntervalCounters& interval) override {
        if (!m_buf) {
            if (std::string error = Open(); !error.empty()) {
                return error;
            }
        }
        GError* error = nullptr;
        fBuf_t* buf = m_buf.get();
        const auto now = std::chrono::steady_clock::now();
        fBufSetExportTime(buf, static_cast<std::uint32_t>(time(nullptr)));
        if (m_lastTemplates == std::chrono::steady_clock::time_point{} ||
            now - m_lastTemplates >= std::chrono::seconds(m_settings.templateRefreshSeconds)) {
            if (!fbSessionExportTemplates(fBufGetSession(buf), &error)) {
                return Fail("templates", error);
            }
            m_lastTemplates = now;
        }
        if (!fBufSetInternalTemplate(buf, kInternalTid, &error)) {
            return Fail("internal template", error);
        }
        const auto interfaces = LocalInterfaces();
        FlowRecord r{};
        r.flowStartMilliseconds = Millis(interval.begin);
        r.flowEndMilliseconds = Millis(interval.end);
        for (const ConnectionCounter& c : interval.counters) {
            if (!c.localIp || !c.remoteIp) {
                continue;  // nothing a flow collector could key it by
            }
            const auto found = interfaces.find(Key(*c.localIp));
            const std::uint32_t ifindex = found != interfaces.end() ? found->second : 0;
            const bool v4 = c.localIp->family == 4;
            const bool mac = c.localMac && c.remoteMac;
            std::uint16_t tid = 0;
            for (const auto& [flags, id] : kExportTemplates) {
                if (flags == ((v4 ? kV4 : kV6) | (mac ? kMac : 0))) {
                    tid = id;
                }
            }
            if (!fBufSetExportTemplate(buf, tid, &error)) {
                return Fail("export template", error);
            }
            // Egress: local to remote with what was sent; ingress: the reverse.
            for (const bool egress : {true, false}) {
                const std::uint64_t packets = egress ? c.packetsSent : c.packetsReceived;
                if (packets == 0) {
                    continue;
                }
                const ip_t& src = egress ? *c.localIp : *c.remoteIp;
                const ip_t& dst = egress ? *c.remoteIp : *c.localIp;
                if (v4) {
                    r.sourceIPv4Address = ntohl(Word(src));
                    r.destinationIPv4Address = ntohl(Word(dst));
                } else {
                    std::memcpy(r.sourceIPv6Address, src.v6.bytes.data(), 16);
                    std::memcpy(r.destinationIPv6Address, dst.v6.bytes.data(), 16);
                }
                const std::uint16_t local = c.localPort.value_or(0);
                const std::uint16_t remote = c.remotePort.value_or(0);
                r.sourceTransportPort = egress ? local : remote;
                r.destinationTransportPort = egress ? remote : local;
                r.protocolIdentifier = c.ipProtocol.value_or(0);
                r.flowDirection = egress ? 1 : 0;
                r.ingressInterface = egress ? 0 : ifindex;
                r.egressInterface = egress ? ifindex : 0;
                r.octetDeltaCount = egress ? c.bytesSent : c.bytesReceived;
                r.packetDeltaCount = packets;
                if (mac) {
                    const auto& s = egress ? *c.localMac : *c.remoteMac;
                    const auto& d = egress ? *c.remoteMac : *c.localMac;
                    std::memcpy(r.sourceMacAddress, s.bytes.data(), 6);
                    std::memcpy(r.destinationMacAddress, d.bytes.data(), 6);
                }
                if (!fBufAppend(buf, reinterpret_cast<std::uint8_t*>(&r), sizeof(r), &error)) {
                    return Fail("append", error);
                }
            }
        }
        if (!fBufEmit(buf, &error)) {
            return Fail("send", error);
        }
        return {};
    }
    const std::string& Name() const override { return m_name; }

private:
    bool AddTemplate(fbSession_t* session, bool internal, std::uint16_t tid, std::uint32_t flags,
                     GError** error) {
        fbTemplate_t* t = fbTemplateAlloc(m_model.get());
        if (!fbTemplateAppendSpecArray(t, kSpec, internal ? UINT32_MAX : flags, error) ||
            fbSessionAddTemplate(session, internal, tid, t, error) == 0) {
            fbTemplateFreeUnused(t);
            return false;
        }
        return true;
    }
    // Fail drops the exporter so that the next interval starts a fresh
    // message with its templates, whatever state the failure left.
    std::string Fail(const char* what, GError* error) {
        m_buf.reset();
        return m_settings.host + ":" + std::to_string(m_settings.port) + ": " + what + ": " +
               Take(error);
    }
    static std::uint64_t Millis(std::uint64_t ticks) {
        return dwi::ticks::SinceUnixEpoch(ticks) / kTicksPerMilli;
    }
    static std::uint32_t Word(const ip_t& ip) {
        std::uint32_t word = 0;
        std::memcpy(&word, ip.v4.bytes.data(), 4);
        return word;
    }

    std::string m_name;
    IpfixSettings m_settings;
    std::unique_ptr<fbInfoModel_t, ModelFree> m_model;
    std::unique_ptr<fBuf_t, BufFree> m_buf;
    std::chrono::steady_clock::time_point m_lastTemplates{};
};

}  // namespace

std::unique_ptr<IIntervalSink> OpenIpfixSink(const std::string& name, const IpfixSettings& settings,
                                             std::string& error) {
    auto sink = std::make_unique<IpfixSink>(name, settings);
    error = sink->Open();
    if (!error.empty()) {
        return nullptr;
    }
    return sink;
}

}  // namespace nti::host
