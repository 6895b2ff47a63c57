// NfLogConnectionCollector: per-connection packet and byte counters fed by
// the host's NFLOG listener.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>

#include <boost/unordered_map.hpp>

#include "dwi/firewall/rules.h"
#include "dwi/firewall/services.h"
#include "dwi/nflog/nflog.h"
#include "qor/object.h"
#include "qor/rtl/providers.h"
#include "qor/service_locator.h"
#include "qor/trace/record.h"

namespace dwi::network_interceptor {

// Mac48 is a MAC-48 address in transmission order.
using Mac48 = std::array<std::uint8_t, 6>;

// IpAddress is an IPv4 or IPv6 address in network byte order; an IPv4 address
// fills the first 4 bytes and leaves the rest 0.
struct IpAddress {
    std::array<std::uint8_t, 16> bytes{};
    std::uint8_t version = 0;  // 4 or 6
    friend bool operator==(const IpAddress&, const IpAddress&) = default;
};

// ConnectionKey identifies one connection as seen from this machine. An absent
// field equals only another absent one.
struct ConnectionKey {
    std::optional<std::uint16_t> etherType;  // host order
    std::optional<Mac48> localMac;
    std::optional<Mac48> remoteMac;
    std::uint32_t ifindex = 0;  // the local side's interface
    std::optional<IpAddress> localIp;
    std::optional<IpAddress> remoteIp;
    std::optional<std::uint16_t> localPort;  // TCP and UDP only
    std::optional<std::uint16_t> remotePort;
    std::uint8_t ipProto = 255;  // 255 until a packet was parsed
    friend bool operator==(const ConnectionKey&, const ConnectionKey&) = default;
};

// ConnectionKeyHash mixes every key field, packed into 64-bit words, with a
// multiply and a shift per word.
struct ConnectionKeyHash {
    std::size_t operator()(const ConnectionKey& key) const noexcept;
};

// TrafficCounters are one connection's counters.
struct TrafficCounters {
    std::uint64_t packetsIn = 0;
    std::uint64_t bytesIn = 0;
    std::uint64_t packetsOut = 0;
    std::uint64_t bytesOut = 0;

    TrafficCounters& operator+=(const TrafficCounters& other) noexcept {
        packetsIn += other.packetsIn;
        bytesIn += other.bytesIn;
        packetsOut += other.packetsOut;
        bytesOut += other.bytesOut;
        return *this;
    }
    friend bool operator==(const TrafficCounters&, const TrafficCounters&) = default;
};

// ConnectionMap holds the counters of every connection seen in one period.
// Boost's map keeps a power-of-two bucket count (and mixes the hash itself),
// where std::unordered_map divides by a prime for every lookup.
using ConnectionMap = boost::unordered_map<ConnectionKey, TrafficCounters, ConnectionKeyHash>;

// Diagnostic dumps: {"field":value, ...} with MACs and addresses as text.
qor::trace::TraceRecord& operator<<(qor::trace::TraceRecord& r, const ConnectionKey& key) noexcept;
qor::trace::TraceRecord& operator<<(qor::trace::TraceRecord& r,
                                    const TrafficCounters& counters) noexcept;

// NfLogConnectionCollector has the host firewall copy forwarded, incoming and
// outgoing packets to one NFLOG group and counts them per connection until
// TakeStats hands the counts over.
class NfLogConnectionCollector : public qor::object::Ifaces<dwi::firewall::INflogDataCallback>,
                                 public qor::TracerProvider {
public:
    // Builds the three statistics rules and the host listener. `iptablesFlags`
    // 0 restricts the rules to IPv4. Throws CheckResultFailedException when a
    // host service is missing.
    NfLogConnectionCollector(qor::IServiceLocator* sl, qor::ITracer* tracer,
                             std::uint8_t iptablesFlags, std::uint16_t nflogGroup,
                             std::uint32_t nflogBypassMark);
    ~NfLogConnectionCollector() override;

    NfLogConnectionCollector(const NfLogConnectionCollector&) = delete;
    NfLogConnectionCollector& operator=(const NfLogConnectionCollector&) = delete;

    // Start installs the rules (tag "zolt_stats") and starts the listener.
    [[nodiscard]] qor::result_t Start() noexcept;
    // Stop removes the rules and stops the listener; a failed removal leaves
    // the listener running.
    [[nodiscard]] qor::result_t Stop() noexcept;
    // TakeStats empties `snapshot` and swaps it with the counters gathered
    // since the previous call. Constant time under the data lock.
    [[nodiscard]] qor::result_t TakeStats(ConnectionMap& snapshot) noexcept;

    // OnData counts one logged packet. Called on the listener's thread.
    void OnData(const nlmsghdr* message, const nlattr* const* attributes) noexcept override;

    // Rules returns the rules built at construction.
    const dwi::firewall::Rules& Rules() const noexcept { return m_rules; }

private:
    qor::RefPtr<dwi::firewall::IDynamicRules> m_firewall;
    qor::RefPtr<dwi::firewall::INflogListener> m_nflogListener;
    std::mutex m_startStopMutex;
    std::mutex m_dataMutex;
    ConnectionMap m_connections;
    std::uint16_t m_nflogGroup;
    dwi::firewall::Rules m_rules;
};

}  // namespace dwi::network_interceptor
