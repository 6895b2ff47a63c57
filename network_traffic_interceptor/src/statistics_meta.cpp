#include "network_traffic_interceptor/src/statistics_meta.h"

#include <array>
#include <cstddef>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/statistics.h"

namespace dwi::network_interceptor {
namespace {

using qor::meta::FieldDescriptor;
using qor::meta::Kind;
using qor::meta::TypeDescriptor;
namespace stats = system_interceptors::net::statistics;
namespace data = connection_counters_data;

// The host walks the records through these tables only, so every container
// access it needs is instantiated here, in the module that owns the types.
template <class T>
struct VectorAccess {
    static std::size_t Size(const void* v) { return static_cast<const std::vector<T>*>(v)->size(); }
    static const void* At(const void* v, std::size_t i) {
        return &(*static_cast<const std::vector<T>*>(v))[i];
    }
    static bool Resize(void* v, std::size_t count) noexcept {
        try {
            static_cast<std::vector<T>*>(v)->resize(count);
            return true;
        } catch (...) {
            return false;
        }
    }
    static void* MutableAt(void* v, std::size_t i) {
        return &(*static_cast<std::vector<T>*>(v))[i];
    }
    static constexpr qor::meta::VectorOps kOps{&Size, &At, &Resize, &MutableAt};
};

template <class T>
struct OptionalAccess {
    static bool HasValue(const void* o) {
        return static_cast<const std::optional<T>*>(o)->has_value();
    }
    static const void* Value(const void* o) { return &**static_cast<const std::optional<T>*>(o); }
    static void* Emplace(void* o) noexcept {
        try {
            return &static_cast<std::optional<T>*>(o)->emplace();
        } catch (...) {
            return nullptr;
        }
    }
    static void Reset(void* o) { static_cast<std::optional<T>*>(o)->reset(); }
    static constexpr qor::meta::OptionalOps kOps{&HasValue, &Value, &Emplace, &Reset};
};

template <class T>
constexpr TypeDescriptor Primitive(const char* name, Kind kind) {
    return TypeDescriptor{.typeId = 0, .name = name, .size = sizeof(T), .kind = kind};
}

template <class T>
constexpr TypeDescriptor VectorOf(const char* name, const TypeDescriptor& element) {
    return TypeDescriptor{.typeId = 0,
                          .name = name,
                          .size = sizeof(std::vector<T>),
                          .kind = Kind::Vector,
                          .element = &element,
                          .vectorOps = &VectorAccess<T>::kOps};
}

template <class T>
constexpr TypeDescriptor OptionalOf(const char* name, const TypeDescriptor& element) {
    return TypeDescriptor{.typeId = 0,
                          .name = name,
                          .size = sizeof(std::optional<T>),
                          .kind = Kind::Optional,
                          .element = &element,
                          .optionalOps = &OptionalAccess<T>::kOps};
}

template <class T, std::size_t N>
constexpr TypeDescriptor Record(std::uint32_t typeId, const char* name, Kind kind,
                                const FieldDescriptor (&fields)[N]) {
    return TypeDescriptor{.typeId = typeId,
                          .name = name,
                          .size = sizeof(T),
                          .kind = kind,
                          .fields = fields,
                          .fieldCount = N};
}

static_assert(std::is_standard_layout_v<stats::ConnectionCounter>);
static_assert(std::is_standard_layout_v<stats::IntervalCounters>);
static_assert(std::is_standard_layout_v<data::CollectorData>);
static_assert(std::is_standard_layout_v<data::Collectors>);

constexpr TypeDescriptor kUInt8 = Primitive<std::uint8_t>("uint8", Kind::UInt8);
constexpr TypeDescriptor kUInt16 = Primitive<std::uint16_t>("uint16", Kind::UInt16);
constexpr TypeDescriptor kUInt32 = Primitive<std::uint32_t>("uint32", Kind::UInt32);
constexpr TypeDescriptor kUInt64 = Primitive<std::uint64_t>("uint64", Kind::UInt64);
constexpr TypeDescriptor kBool = Primitive<bool>("bool", Kind::Bool);
constexpr TypeDescriptor kString = Primitive<std::string>("string", Kind::String);
constexpr TypeDescriptor kBytes = Primitive<std::vector<std::uint8_t>>("bytes", Kind::ByteVector);
constexpr TypeDescriptor kBytes4 =
    Primitive<std::array<std::uint8_t, 4>>("uint8[4]", Kind::FixedBytes);
constexpr TypeDescriptor kBytes6 =
    Primitive<std::array<std::uint8_t, 6>>("uint8[6]", Kind::FixedBytes);
constexpr TypeDescriptor kBytes16 =
    Primitive<std::array<std::uint8_t, 16>>("uint8[16]", Kind::FixedBytes);

constexpr FieldDescriptor kMacFields[] = {
    {"bytes", offsetof(qor::mac48_address_t, bytes), &kBytes6}};
constexpr TypeDescriptor kMac48 =
    Record<qor::mac48_address_t>(0, "mac48_address_t", Kind::Mac48, kMacFields);

constexpr FieldDescriptor kIpv4Fields[] = {{"bytes", offsetof(stats::ipv4_t, bytes), &kBytes4}};
constexpr TypeDescriptor kIpv4 =
    Record<stats::ipv4_t>(stats::kIpv4TypeId, "ipv4_t", Kind::Ipv4, kIpv4Fields);

constexpr FieldDescriptor kIpv6Fields[] = {{"bytes", offsetof(stats::ipv6_t, bytes), &kBytes16}};
constexpr TypeDescriptor kIpv6 =
    Record<stats::ipv6_t>(stats::kIpv6TypeId, "ipv6_t", Kind::Ipv6, kIpv6Fields);

constexpr FieldDescriptor kIpFields[] = {
    {"family", offsetof(stats::ip_t, family), &kUInt8},
    {"v4", offsetof(stats::ip_t, v4), &kIpv4},
    {"v6", offsetof(stats::ip_t, v6), &kIpv6},
};
constexpr TypeDescriptor kIp =
    Record<stats::ip_t>(stats::kIpTypeId, "ip_t", Kind::IpAddress, kIpFields);

constexpr TypeDescriptor kOptMac =
    OptionalOf<qor::mac48_address_t>("optional<mac48_address_t>", kMac48);
constexpr TypeDescriptor kOptIp = OptionalOf<stats::ip_t>("optional<ip_t>", kIp);
constexpr TypeDescriptor kOptUInt16 = OptionalOf<std::uint16_t>("optional<uint16>", kUInt16);
constexpr TypeDescriptor kOptUInt8 = OptionalOf<std::uint8_t>("optional<uint8>", kUInt8);
constexpr TypeDescriptor kOptString = OptionalOf<std::string>("optional<string>", kString);

using CC = stats::ConnectionCounter;
constexpr FieldDescriptor kConnectionCounterFields[] = {
    {"localMac", offsetof(CC, localMac), &kOptMac},
    {"localIp", offsetof(CC, localIp), &kOptIp},
    {"localPort", offsetof(CC, localPort), &kOptUInt16},
    {"remoteMac", offsetof(CC, remoteMac), &kOptMac},
    {"remoteIp", offsetof(CC, remoteIp), &kOptIp},
    {"remotePort", offsetof(CC, remotePort), &kOptUInt16},
    {"proxyDetected", offsetof(CC, proxyDetected), &kBool},
    {"domain", offsetof(CC, domain), &kOptString},
    {"gatewayMac", offsetof(CC, gatewayMac), &kOptMac},
    {"gatewayIp", offsetof(CC, gatewayIp), &kOptIp},
    {"bytesSent", offsetof(CC, bytesSent), &kUInt64},
    {"packetsSent", offsetof(CC, packetsSent), &kUInt64},
    {"bytesReceived", offsetof(CC, bytesReceived), &kUInt64},
    {"packetsReceived", offsetof(CC, packetsReceived), &kUInt64},
    {"etherType", offsetof(CC, etherType), &kUInt16},
    {"ipProtocol", offsetof(CC, ipProtocol), &kOptUInt8},
    {"payloadPrefix", offsetof(CC, payloadPrefix), &kBytes},
};
constexpr TypeDescriptor kConnectionCounter = Record<CC>(
    stats::kConnectionCounterTypeId, "ConnectionCounter", Kind::Struct, kConnectionCounterFields);
constexpr TypeDescriptor kConnectionCounterVector =
    VectorOf<CC>("vector<ConnectionCounter>", kConnectionCounter);

using IC = stats::IntervalCounters;
constexpr FieldDescriptor kIntervalCountersFields[] = {
    {"begin", offsetof(IC, begin), &kUInt64},
    {"end", offsetof(IC, end), &kUInt64},
    {"counters", offsetof(IC, counters), &kConnectionCounterVector},
};
constexpr TypeDescriptor kIntervalCounters = Record<IC>(
    stats::kIntervalCountersTypeId, "IntervalCounters", Kind::Struct, kIntervalCountersFields);
constexpr TypeDescriptor kIntervalCountersVector =
    VectorOf<IC>("vector<IntervalCounters>", kIntervalCounters);

using CD = data::CollectorData;
constexpr FieldDescriptor kCollectorDataFields[] = {
    {"collector", offsetof(CD, collector), &kUInt32},
    {"period", offsetof(CD, period), &kUInt32},
    {"periodAlignment", offsetof(CD, periodAlignment), &kUInt8},
    {"readyCounters", offsetof(CD, readyCounters), &kIntervalCountersVector},
};
constexpr TypeDescriptor kCollectorData =
    Record<CD>(data::kCollectorDataTypeId, "CollectorData", Kind::Struct, kCollectorDataFields);
constexpr TypeDescriptor kCollectorDataVector =
    VectorOf<CD>("vector<CollectorData>", kCollectorData);

constexpr FieldDescriptor kCollectorsFields[] = {
    {"collectors", offsetof(data::Collectors, collectors), &kCollectorDataVector},
};
constexpr TypeDescriptor kCollectors = Record<data::Collectors>(
    data::kCollectorsTypeId, "Collectors", Kind::Struct, kCollectorsFields);

constexpr const TypeDescriptor* kAllTypes[] = {
    &kIntervalCounters, &kConnectionCounter, &kIp, &kIpv6, &kIpv4, &kCollectors, &kCollectorData};

}  // namespace

const TypeDescriptor* FindStatisticsType(std::uint32_t typeId) noexcept {
    for (const TypeDescriptor* type : kAllTypes) {
        if (type->typeId == typeId) {
            return type;
        }
    }
    return nullptr;
}

}  // namespace dwi::network_interceptor
