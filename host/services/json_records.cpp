#include "host/services/json_records.h"

#include <arpa/inet.h>

#include <cstdio>
#include <ctime>

#include "dwi_common/ip_protocol.h"
#include "dwi_common/ip_text.h"
#include "dwi_common/ticks.h"
#include "host/services/packet_summary.h"

namespace nti::host {

using dwi::network::ProtocolName;
using dwi::network_interceptor::Packet;
using dwi::network_interceptor::Verdict;
using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;

namespace {

using dwi::ticks::kTicksPerSecond;

std::string UtcText(std::time_t seconds, unsigned micros) {
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[80];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%06uZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, micros);
    return text;
}

std::string HexText(const std::vector<std::uint8_t>& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t b : bytes) {
        text.push_back(kDigits[b >> 4]);
        text.push_back(kDigits[b & 0xF]);
    }
    return text;
}

template <class T, class F>
void PutIf(JsonRecord& o, const char* name, const std::optional<T>& value, F&& render) {
    if (value) {
        o[name] = render(*value);
    }
}

}  // namespace

std::string IpText(const ip_t& ip) {
    return dwi::network::IpText(ip.family == 4 ? 4 : 6,
                                ip.family == 4 ? ip.v4.bytes.data() : ip.v6.bytes.data());
}

std::string MacText(const qor::mac48_address_t& mac) {
    char text[18];
    const auto& b = mac.bytes;
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                  b[5]);
    return text;
}

std::string TicksToIso8601(std::uint64_t ticks) {
    const std::uint64_t unixTicks = dwi::ticks::SinceUnixEpoch(ticks);
    return UtcText(static_cast<std::time_t>(unixTicks / kTicksPerSecond),
                   static_cast<unsigned>(unixTicks % kTicksPerSecond / 10));
}

std::string TimeToIso8601(std::chrono::system_clock::time_point time) {
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    if (micros < 0) {
        return UtcText(0, 0);
    }
    return UtcText(static_cast<std::time_t>(micros / 1'000'000),
                   static_cast<unsigned>(micros % 1'000'000));
}

JsonRecord ConnectionJson(const ConnectionCounter& c) {
    const auto self = [](auto v) { return v; };
    JsonRecord o = JsonRecord::object();
    o["etherType"] = c.etherType;
    if (c.ipProtocol) {
        o["ipProtocol"] = *c.ipProtocol;
        o["protocol"] = ProtocolName(*c.ipProtocol);
    }
    PutIf(o, "localIp", c.localIp, IpText);
    PutIf(o, "localPort", c.localPort, self);
    PutIf(o, "localMac", c.localMac, MacText);
    PutIf(o, "remoteIp", c.remoteIp, IpText);
    PutIf(o, "remotePort", c.remotePort, self);
    PutIf(o, "remoteMac", c.remoteMac, MacText);
    PutIf(o, "gatewayIp", c.gatewayIp, IpText);
    PutIf(o, "gatewayMac", c.gatewayMac, MacText);
    PutIf(o, "domain", c.domain, self);
    o["proxyDetected"] = c.proxyDetected;
    o["packetsSent"] = c.packetsSent;
    o["bytesSent"] = c.bytesSent;
    o["packetsReceived"] = c.packetsReceived;
    o["bytesReceived"] = c.bytesReceived;
    if (!c.payloadPrefix.empty()) {
        o["payloadPrefix"] = HexText(c.payloadPrefix);
    }
    return o;
}

JsonRecord IntervalJson(std::uint32_t collector, const IntervalCounters& interval, bool restored) {
    JsonRecord connections = JsonRecord::array();
    for (const auto& c : interval.counters) {
        connections.push_back(ConnectionJson(c));
    }
    JsonRecord o = JsonRecord::object();
    o["collector"] = collector;
    o["begin"] = TicksToIso8601(interval.begin);
    o["end"] = TicksToIso8601(interval.end);
    o["restored"] = restored;
    o["connections"] = std::move(connections);
    return o;
}

JsonRecord PacketJson(const Packet& packet, Verdict verdict, const PacketContext& context) {
    const auto length = static_cast<std::size_t>(packet.payloadEnd - packet.payloadBegin);
    const PacketSummary s = Summarize(packet.payloadBegin, length);
    JsonRecord o = JsonRecord::object();
    o["time"] = TimeToIso8601(context.time);
    o["queue"] = packet.queue == 1 ? "in" : packet.queue == 2 ? "out" : "unknown";
    if (context.queueNumber >= 0) {
        o["queueNumber"] = context.queueNumber;
    }
    o["id"] = packet.id;
    if (!context.indev.empty()) {
        o["indev"] = context.indev;
    }
    if (!context.outdev.empty()) {
        o["outdev"] = context.outdev;
    }
    o["mark"] = packet.mark;
    if (s.version != 0) {
        o["family"] = s.version;
        o["src"] = s.source;
        o["dst"] = s.destination;
    }
    if (s.protocol) {
        o["ipProtocol"] = *s.protocol;
        o["protocol"] = ProtocolName(*s.protocol);
    }
    if (s.sourcePort) {
        o["srcPort"] = *s.sourcePort;
        o["dstPort"] = *s.destinationPort;
    }
    o["length"] = length;
    o["verdict"] = dwi::network_interceptor::VerdictName(static_cast<std::uint32_t>(verdict));
    return o;
}

std::string JsonLine(const JsonRecord& record) {
    return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

}  // namespace nti::host
