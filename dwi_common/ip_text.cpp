#include "dwi_common/ip_text.h"

#include <arpa/inet.h>

namespace dwi::network {

const char* FormatIp(std::uint8_t version, const std::uint8_t* bytes, IpTextBuffer& text) noexcept {
    if (version != 4 && version != 6) {
        return nullptr;
    }
    return inet_ntop(version == 4 ? AF_INET : AF_INET6, bytes, text.data(),
                     static_cast<socklen_t>(text.size()));
}

std::string IpText(std::uint8_t version, const std::uint8_t* bytes) {
    IpTextBuffer text{};
    const char* written = FormatIp(version, bytes, text);
    return written != nullptr ? written : "";
}

}  // namespace dwi::network
