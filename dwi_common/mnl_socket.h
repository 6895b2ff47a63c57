// MnlSocket: one owner for a libmnl socket.
#pragma once

#include <libmnl/libmnl.h>

#include <memory>

namespace dwi::tools {

struct MnlSocketClose {
    void operator()(mnl_socket* socket) const noexcept { mnl_socket_close(socket); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlSocketClose>;

}  // namespace dwi::tools
