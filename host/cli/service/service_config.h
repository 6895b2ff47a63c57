// The statistics service's configuration file (INI, read by
// Boost.PropertyTree).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "network_traffic_interceptor/connection_counters.h"

namespace nti::host {

// SinkConfig is one [json...], [sqlite...] or [ipfix...] section.
struct SinkConfig {
    enum class Kind { Json, Sqlite, Ipfix };
    Kind kind = Kind::Json;
    std::string name;                    // the section name, e.g. "ipfix:pmacct"
    std::string path;                    // json: file or "-"; sqlite: database file
    std::uint64_t retentionSeconds = 0;  // sqlite: 0 keeps everything
    std::string host;                    // ipfix: collector address or name
    std::uint16_t port = 4739;
    std::uint32_t templateRefreshSeconds = 60;
    std::uint32_t observationDomain = 0;
    friend bool operator==(const SinkConfig&, const SinkConfig&) = default;
};

// ServiceConfig is the whole file.
struct ServiceConfig {
    std::uint32_t collectorId = 1;
    std::uint32_t periodMs = 60'000;
    system_interceptors::net::statistics::PeriodAlignment alignment =
        system_interceptors::net::statistics::PeriodAlignment::EpochStartDate;
    std::optional<bool> ip6tables;  // unset: detect
    std::optional<std::uint32_t> nflogBypassMark;
    std::vector<SinkConfig> sinks;
    // SameCollector: the [collector] sections agree (those settings need a
    // restart; sinks are replaced on reload).
    [[nodiscard]] bool SameCollector(const ServiceConfig& other) const;
};

inline constexpr const char* kDefaultServiceConfig = "/etc/nti/stats.conf";

// ParseServiceConfig reads INI text. Returns the configuration, or nullopt
// with `error` naming the section, key and what is expected.
[[nodiscard]] std::optional<ServiceConfig> ParseServiceConfig(const std::string& text,
                                                              std::string& error);
// LoadServiceConfig reads and parses a file; errors begin with the path.
[[nodiscard]] std::optional<ServiceConfig> LoadServiceConfig(const std::string& path,
                                                             std::string& error);

// ParseDuration: "<n>" seconds or "<n>s|m|h|d"; nullopt for junk.
[[nodiscard]] std::optional<std::uint64_t> ParseDurationSeconds(std::string_view text);

}  // namespace nti::host
