// The JSON records nti and the examples write: one object per statistics
// interval and one per intercepted packet (fields in docs/json.md).
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "network_traffic_interceptor/statistics.h"
#include "network_traffic_interceptor/verdict.h"

namespace nti::host {

// JsonRecord keeps members in the order they were written.
using JsonRecord = nlohmann::ordered_json;

// TicksToIso8601 writes 100-ns ticks since 1601-01-01 UTC as
// "YYYY-MM-DDTHH:MM:SS.ffffffZ"; times before 1970 read as 1970.
std::string TicksToIso8601(std::uint64_t ticks);
// TimeToIso8601 writes a system clock time the same way.
std::string TimeToIso8601(std::chrono::system_clock::time_point time);

// IpText writes an address in its usual text form, MacText
// "aa:bb:cc:dd:ee:ff": the forms records and tables share.
std::string IpText(const system_interceptors::net::statistics::ip_t& ip);
std::string MacText(const qor::mac48_address_t& mac);

// ConnectionJson: one connection of an interval; absent fields are left out.
JsonRecord ConnectionJson(const system_interceptors::net::statistics::ConnectionCounter& c);

// IntervalJson: interval `interval` of collector `collector`, connections in
// the given order; `restored`: saved by an earlier run.
JsonRecord IntervalJson(std::uint32_t collector,
                        const system_interceptors::net::statistics::IntervalCounters& interval,
                        bool restored = false);

// PacketContext is what a packet record holds besides the packet.
struct PacketContext {
    std::chrono::system_clock::time_point time;
    int queueNumber = -1;  // -1: unknown
    std::string indev;     // interface names, empty when none
    std::string outdev;
};

// PacketJson: one packet as delivered (addresses and ports read from its
// header) with the verdict it got.
JsonRecord PacketJson(const dwi::network_interceptor::Packet& packet,
                      dwi::network_interceptor::Verdict verdict, const PacketContext& context);

// JsonLine writes `record` on one line ending in '\n'. Bytes that are not
// UTF-8 (interface names and domains are bytes) become U+FFFD; it never
// throws for them.
std::string JsonLine(const JsonRecord& record);

}  // namespace nti::host
