// Reading the statistics service's configuration file.
#include "host/cli/service/service_config.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <charconv>
#include <fstream>
#include <set>
#include <sstream>

#include "host/cli/commands/stats_format.h"
#include "host/services/duration.h"

namespace nti::host {
namespace {

namespace pt = boost::property_tree;

// kMinPeriodMs: a harvest of 100,000 connections into all three sinks takes
// seconds on a loaded machine (bench/README.md); intervals stay ten times longer.
constexpr std::uint32_t kMinPeriodMs = 60'000;

template <typename T>
std::optional<T> ParseNumber(std::string_view text, int base = 10) {
    T value{};
    if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) {
        text.remove_prefix(2);
    }
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// Section reads one section's keys and remembers the first error.
class Section {
public:
    Section(const std::string& name, const pt::ptree& tree, std::string& error)
        : m_name(name), m_tree(tree), m_error(error) {}

    std::optional<std::string> Text(const std::string& key) {
        m_known.insert(key);
        const auto child = m_tree.get_child_optional(pt::ptree::path_type(key, '\0'));
        if (!child) {
            return std::nullopt;
        }
        return child->data();
    }
    void Fail(const std::string& key, const std::string& value, const std::string& expected) {
        if (m_error.empty()) {
            m_error = "[" + m_name + "] " + key + " = " + value + ": expected " + expected;
        }
    }
    // Finish reports the first key nobody asked for.
    void Finish() {
        for (const auto& [key, value] : m_tree) {
            if (!m_known.contains(key) && m_error.empty()) {
                m_error = "[" + m_name + "] " + key + ": unknown key";
            }
        }
    }

private:
    const std::string& m_name;
    const pt::ptree& m_tree;
    std::string& m_error;
    std::set<std::string> m_known;
};

void ReadCollector(Section& s, ServiceConfig& c) {
    if (const auto v = s.Text("id")) {
        const auto id = ParseNumber<std::uint32_t>(*v);
        id ? void(c.collectorId = *id) : s.Fail("id", *v, "a 32-bit number");
    }
    if (const auto v = s.Text("period")) {
        const auto period = ParseDuration(*v);
        if (!period || period->count() < kMinPeriodMs || *period > std::chrono::hours(24)) {
            s.Fail("period", *v, "60s to 24h (60, 60s, 5m, 1h)");
        } else {
            c.periodMs = static_cast<std::uint32_t>(period->count());
        }
    }
    if (const auto v = s.Text("alignment")) {
        const auto a = ParseAlignment(*v);
        a ? void(c.alignment = *a) : s.Fail("alignment", *v, "epoch or registration");
    }
    if (const auto v = s.Text("ip6tables")) {
        if (*v == "yes" || *v == "no") {
            c.ip6tables = *v == "yes";
        } else if (*v != "auto") {
            s.Fail("ip6tables", *v, "auto, yes or no");
        }
    }
    if (const auto v = s.Text("nflog_bypass_mark")) {
        const auto mark = v->starts_with("0x") ? ParseNumber<std::uint32_t>(*v, 16)
                                               : ParseNumber<std::uint32_t>(*v);
        mark&&* mark != 0 ? void(c.nflogBypassMark = *mark)
                          : s.Fail("nflog_bypass_mark", *v, "a non-zero 32-bit number");
    }
}

void ReadSink(Section& s, SinkConfig& sink) {
    using Kind = SinkConfig::Kind;
    const auto path = s.Text("path");
    if (sink.kind != Kind::Ipfix) {
        if (!path || path->empty()) {
            s.Fail(
                "path", "",
                sink.kind == Kind::Json ? "a file, or - for standard output" : "a database file");
        } else {
            sink.path = *path;
        }
    }
    if (sink.kind == Kind::Sqlite) {
        if (const auto v = s.Text("retention")) {
            const auto seconds = ParseDurationSeconds(*v);
            seconds ? void(sink.retentionSeconds = *seconds)
                    : s.Fail("retention", *v, "a duration (30d, 12h, 0 keeps everything)");
        }
    }
    if (sink.kind != Kind::Ipfix) {
        return;
    }
    const auto host = s.Text("host");
    host && !host->empty() ? void(sink.host = *host)
                           : s.Fail("host", "", "the collector's address or name");
    if (const auto v = s.Text("port")) {
        const auto port = ParseNumber<std::uint16_t>(*v);
        port&&* port != 0 ? void(sink.port = *port) : s.Fail("port", *v, "1 to 65535");
    }
    if (const auto v = s.Text("template_refresh")) {
        const auto seconds = ParseDurationSeconds(*v);
        seconds&&* seconds != 0 && *seconds <= 86400
            ? void(sink.templateRefreshSeconds = static_cast<std::uint32_t>(*seconds))
            : s.Fail("template_refresh", *v, "1s to 1d");
    }
    if (const auto v = s.Text("observation_domain")) {
        const auto domain = ParseNumber<std::uint32_t>(*v);
        domain ? void(sink.observationDomain = *domain)
               : s.Fail("observation_domain", *v, "a 32-bit number");
    }
}

}  // namespace

bool ServiceConfig::SameCollector(const ServiceConfig& o) const {
    return collectorId == o.collectorId && periodMs == o.periodMs && alignment == o.alignment &&
           ip6tables == o.ip6tables && nflogBypassMark == o.nflogBypassMark;
}

std::optional<std::uint64_t> ParseDurationSeconds(std::string_view text) {
    std::uint64_t unit = 1;
    if (!text.empty()) {
        switch (text.back()) {
            case 's':
                unit = 1;
                break;
            case 'm':
                unit = 60;
                break;
            case 'h':
                unit = 3600;
                break;
            case 'd':
                unit = 86400;
                break;
            default:
                unit = 0;
                break;
        }
        if (unit != 0) {
            text.remove_suffix(1);
        } else {
            unit = 1;
        }
    }
    const auto value = ParseNumber<std::uint64_t>(text);
    if (!value || *value > UINT64_MAX / unit / 10'000'000) {
        return std::nullopt;
    }
    return *value * unit;
}

std::optional<ServiceConfig> ParseServiceConfig(const std::string& text, std::string& error) {
    error.clear();
    pt::ptree tree;
    try {
        std::istringstream in(text);
        pt::read_ini(in, tree);
    } catch (const pt::ini_parser_error& e) {
        error = "line " + std::to_string(e.line()) + ": " + e.message();
        return std::nullopt;
    }
    // read_ini drops sections without keys; they still count, as an empty
    // [json] is a sink without its path.
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto first = line.find_first_not_of(" \t");
        const auto last = line.find_last_not_of(" \t\r");
        if (first != std::string::npos && line[first] == '[' && line[last] == ']') {
            const std::string name = line.substr(first + 1, last - first - 1);
            if (tree.find(name) == tree.not_found()) {
                tree.push_back({name, pt::ptree()});
            }
        }
    }
    ServiceConfig config;
    for (const auto& [name, body] : tree) {
        if (body.empty() && !body.data().empty()) {
            error = name + ": key outside a section";
            return std::nullopt;
        }
        Section section(name, body, error);
        const std::string kind = name.substr(0, name.find(':'));
        if (name == "collector") {
            ReadCollector(section, config);
        } else if (kind == "json" || kind == "sqlite" || kind == "ipfix") {
            SinkConfig sink;
            sink.kind = kind == "json"     ? SinkConfig::Kind::Json
                        : kind == "sqlite" ? SinkConfig::Kind::Sqlite
                                           : SinkConfig::Kind::Ipfix;
            sink.name = name;
            ReadSink(section, sink);
            config.sinks.push_back(std::move(sink));
        } else {
            error = "[" + name + "]: unknown section (collector, json, sqlite, ipfix)";
            return std::nullopt;
        }
        section.Finish();
        if (!error.empty()) {
            return std::nullopt;
        }
    }
    return config;
}

std::optional<ServiceConfig> LoadServiceConfig(const std::string& path, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = path + ": cannot open";
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    auto config = ParseServiceConfig(text.str(), error);
    if (!config) {
        error = path + ": " + error;
    }
    return config;
}

}  // namespace nti::host
