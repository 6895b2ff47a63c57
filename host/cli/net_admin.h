// Whether nti may change the firewall and network configuration.
#pragma once

namespace nti::host {

// HasNetAdmin is true when the process may change network configuration
// (effective CAP_NET_ADMIN).
[[nodiscard]] bool HasNetAdmin();

}  // namespace nti::host
