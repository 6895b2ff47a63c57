#include "host/services/startup_data_provider.h"

namespace nti::host {

qor::result_t StartupDataProvider::GetStartupData(dwi::firewall::StartupData* data) noexcept {
    if (data == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    *data = m_data;
    return qor::errors::kOk;
}

}  // namespace nti::host
