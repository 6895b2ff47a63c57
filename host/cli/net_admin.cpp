#include "host/cli/net_admin.h"

#include <fstream>
#include <string>

namespace nti::host {

bool HasNetAdmin() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("CapEff:", 0) == 0) {
            const unsigned long long caps = std::stoull(line.substr(7), nullptr, 16);
            constexpr int kCapNetAdmin = 12;
            return (caps >> kCapNetAdmin) & 1ull;
        }
    }
    return false;
}

}  // namespace nti::host
