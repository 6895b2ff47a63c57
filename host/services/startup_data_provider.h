// The host's values fixed at start for the statistics service: the mark that
// exempts packets from NFLOG.
#pragma once

#include <cstdint>

#include "dwi/nflog/nflog.h"
#include "qor/object.h"

namespace nti::host {

// Packets carrying this mark are not logged. "NTI\0": a value other
// software is unlikely to set. 0 is no "off" switch: the rules would then
// exempt every unmarked packet.
inline constexpr std::uint32_t kDefaultNflogBypassMark = 0x4e544900;

// StartupDataProvider hands out the values fixed at start.
class StartupDataProvider : public qor::object::Ifaces<dwi::firewall::IStartupDataProvider> {
public:
    explicit StartupDataProvider(const dwi::firewall::StartupData& data) : m_data(data) {}
    [[nodiscard]] qor::result_t GetStartupData(dwi::firewall::StartupData* data) noexcept override;

private:
    dwi::firewall::StartupData m_data;
};

}  // namespace nti::host
