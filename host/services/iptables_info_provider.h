// The host's answer to whether ip6tables is there, for the statistics
// service's firewall rules.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "dwi/nflog/nflog.h"
#include "qor/object.h"

namespace nti::host {

// DetectIp6tables is true when an ip6tables program is on PATH and the kernel
// has IPv6 (/proc/net/if_inet6).
bool DetectIp6tables();

// IptablesInfoProvider answers bit 0 (ip6tables available) from a fixed
// setting, or from DetectIp6tables once, at the first question.
class IptablesInfoProvider : public qor::object::Ifaces<dwi::firewall::IIptablesInfoProvider> {
public:
    explicit IptablesInfoProvider(std::optional<bool> ip6tables = std::nullopt)
        : m_ip6tables(ip6tables) {}
    [[nodiscard]] qor::result_t GetIptablesInfo(std::uint32_t* info) noexcept override;

private:
    std::once_flag m_detected;
    std::optional<bool> m_ip6tables;
};

}  // namespace nti::host
