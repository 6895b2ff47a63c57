#include "host/services/iptables_info_provider.h"

#include <unistd.h>

#include "host/services/process.h"

namespace nti::host {

bool DetectIp6tables() {
    if (access("/proc/net/if_inet6", R_OK) != 0) {
        return false;
    }
    return ProgramInPath("ip6tables");
}

qor::result_t IptablesInfoProvider::GetIptablesInfo(std::uint32_t* info) noexcept {
    if (info == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    try {
        std::call_once(m_detected, [this] {
            if (!m_ip6tables) {
                m_ip6tables = DetectIp6tables();
            }
        });
    } catch (...) {
        return qor::errors::kUnspecified;
    }
    *info = *m_ip6tables ? 1u : 0u;
    return qor::errors::kOk;
}

}  // namespace nti::host
