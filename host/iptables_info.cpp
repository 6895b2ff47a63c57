#include "host/iptables_info.h"

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace nti::host {

bool DetectIp6tables() {
    if (access("/proc/net/if_inet6", R_OK) != 0) {
        return false;
    }
    const char* path = std::getenv("PATH");
    std::string_view dirs = path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
    while (!dirs.empty()) {
        const auto colon = dirs.find(':');
        const std::string dir(dirs.substr(0, colon));
        if (!dir.empty() && access((dir + "/ip6tables").c_str(), X_OK) == 0) {
            return true;
        }
        dirs = colon == std::string_view::npos ? std::string_view{} : dirs.substr(colon + 1);
    }
    return false;
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

qor::result_t StartupDataProvider::GetStartupData(dwi::firewall::StartupData* data) noexcept {
    if (data == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    *data = m_data;
    return qor::errors::kOk;
}

}  // namespace nti::host
