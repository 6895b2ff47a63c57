// The JSON lines stats_to_json writes: one object per harvested interval.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include <network_traffic_interceptor/statistics.h>

namespace stats_json {

namespace stats = system_interceptors::net::statistics;

// TicksToUtc writes a record time (100-ns ticks since 1601-01-01 UTC) in
// ISO 8601 with seven decimals; times before 1970 read as 1970.
inline std::string TicksToUtc(std::uint64_t ticks) {
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

// JsonString quotes `text` as a JSON string.
inline std::string JsonString(const std::string& text) {
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

// IpText writes the address of the family `ip` holds.
inline std::string IpText(const stats::ip_t& ip) {
    char text[INET6_ADDRSTRLEN] = {};
    if (ip.family == 4) {
        inet_ntop(AF_INET, ip.v4.bytes.data(), text, sizeof(text));
    } else {
        inet_ntop(AF_INET6, ip.v6.bytes.data(), text, sizeof(text));
    }
    return text;
}

// MacText writes "aa:bb:cc:dd:ee:ff".
inline std::string MacText(const qor::mac48_address_t& mac) {
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

// ConnectionJson writes one connection; absent fields are left out.
inline std::string ConnectionJson(const stats::ConnectionCounter& c) {
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

// IntervalJson writes interval `interval` of collector `id` as one line.
inline std::string IntervalJson(std::uint32_t id, const stats::IntervalCounters& interval) {
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

}  // namespace stats_json
