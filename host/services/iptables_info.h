// Host providers of the statistics service's firewall settings: whether
// ip6tables is there, and the mark that exempts packets from NFLOG.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "dwi/nflog/nflog.h"
#include "qor/object.h"

namespace nti::host {

// Packets carrying this mark are not logged. "NTI\0": a value other
// software is unlikely to set. 0 is no "off" switch: the rules would then
// exempt every unmarked packet.
inline constexpr std::uint32_t kDefaultNflogBypassMark = 0x4e544900;

// DetectIp6tables is true when an ip6tables program is on PATH and the kernel
// has IPv6 (/proc/net/if_inet6).
bool DetectIp6tables();

// IptablesInfoProvider answers bit 0 (ip6tables available) from a fixed
// setting, or from DetectIp6tables once, at the first question.
class IptablesInfoProvider : public qor::object::Ifaces<dwi::firewall::IIptablesInfoProvider> {
public:
    explicit IptablesInfoProvider(std::optional<bool> ip6tables = std::nullopt)
        : m_ip6tables(ip6tables) {}
    qor::result_t GetIptablesInfo(std::uint32_t* info) noexcept override;

private:
    std::once_flag m_detected;
    std::optional<bool> m_ip6tables;
};

// StartupDataProvider hands out the values fixed at start.
class StartupDataProvider : public qor::object::Ifaces<dwi::firewall::IStartupDataProvider> {
public:
    explicit StartupDataProvider(const dwi::firewall::StartupData& data) : m_data(data) {}
    qor::result_t GetStartupData(dwi::firewall::StartupData* data) noexcept override;

private:
    dwi::firewall::StartupData m_data;
};

}  // namespace nti::host
