// Bounded test traffic over sockets opened inside test namespaces.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/fixture/traffic.h"
#include "tests/support/netns.h"

namespace nti::test {

// Fd owns a descriptor.
class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(Fd&& o) noexcept : m_fd(std::exchange(o.m_fd, -1)) {}
    ~Fd() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

// Endpoint is an address (IPv4 or IPv6 text) and a port.
struct Endpoint {
    std::string address;
    std::uint16_t port = 0;

    int Family() const { return address.find(':') == std::string::npos ? AF_INET : AF_INET6; }
    sockaddr_storage Sockaddr(socklen_t* length) const {
        sockaddr_storage storage{};
        if (Family() == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&storage);
            in->sin_family = AF_INET;
            in->sin_port = htons(port);
            inet_pton(AF_INET, address.c_str(), &in->sin_addr);
            *length = sizeof(sockaddr_in);
        } else {
            auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
            in6->sin6_family = AF_INET6;
            in6->sin6_port = htons(port);
            inet_pton(AF_INET6, address.c_str(), &in6->sin6_addr);
            *length = sizeof(sockaddr_in6);
        }
        return storage;
    }
};

// BoundSocket opens a socket of `type` in `ns` bound to `local`.
inline Fd BoundSocket(const NetNs& ns, int type, const Endpoint& local) {
    ScopedNetNs inside(ns);
    socklen_t length = 0;
    const sockaddr_storage address = local.Sockaddr(&length);
    Fd fd(socket(address.ss_family, type | SOCK_CLOEXEC, 0));
    const int one = 1;
    const timeval timeout{2, 0};  // bounds every receive, and accept
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    if (fd.Get() < 0 || bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        throw std::runtime_error("cannot bind " + local.address + ":" + std::to_string(local.port) +
                                 ": " + std::strerror(errno));
    }
    return fd;
}

// UdpExchange sends `forth` datagrams of `forthSize` bytes from `a` (in
// `nsA`) to `b` (in `nsB`), then `back` of `backSize` bytes in return, and
// throws unless every one arrived.
inline void UdpExchange(const NetNs& nsA, const Endpoint& a, const NetNs& nsB, const Endpoint& b,
                        int forth, std::size_t forthSize, int back, std::size_t backSize) {
    host::UdpSocket socketA(nsA.Name(), a.Family(), a.address, a.port);
    host::UdpSocket socketB(nsB.Name(), b.Family(), b.address, b.port);
    const auto send = [](host::UdpSocket& from, host::UdpSocket& to, const Endpoint& at, int count,
                         std::size_t size) {
        for (int i = 0; i < count; ++i) {
            from.SendTo(at.address, at.port, std::string(size, 'x'));
        }
        int arrived = 0;
        for (std::string payload;
             arrived < count && to.Receive(payload, std::chrono::seconds(2));) {
            ++arrived;
        }
        return arrived;
    };
    const int arrived = send(socketA, socketB, b, forth, forthSize);
    const int returned = send(socketB, socketA, a, back, backSize);
    if (arrived != forth || returned != back) {
        throw std::runtime_error("udp datagrams lost: " + std::to_string(arrived) + "/" +
                                 std::to_string(forth) + " there, " + std::to_string(returned) +
                                 "/" + std::to_string(back) + " back");
    }
}

// TcpExchange connects from `client` (bound in `clientNs`) to a listener
// bound at `server` in `serverNs`, sends `up` bytes, answers `down` bytes
// and closes both sides in order (client first). Returns when both saw the
// end of the stream; throws when a receive waits longer than 2 s.
inline void TcpExchange(const NetNs& clientNs, const Endpoint& client, const NetNs& serverNs,
                        const Endpoint& server, std::size_t up, std::size_t down) {
    Fd listener = BoundSocket(serverNs, SOCK_STREAM, server);
    Fd connection = BoundSocket(clientNs, SOCK_STREAM, client);
    socklen_t length = 0;
    const sockaddr_storage address = server.Sockaddr(&length);
    if (listen(listener.Get(), 1) != 0 ||
        connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    }
    Fd accepted(accept(listener.Get(), nullptr, nullptr));
    const auto transfer = [](const Fd& from, const Fd& to, std::size_t bytes) {
        std::vector<char> data(bytes, 'y');
        if (send(from.Get(), data.data(), bytes, 0) != static_cast<ssize_t>(bytes) ||
            recv(to.Get(), data.data(), bytes, MSG_WAITALL) != static_cast<ssize_t>(bytes)) {
            throw std::runtime_error("tcp data lost or late");
        }
    };
    // The receiving side reads the end of stream (0 bytes) of the closing one.
    const auto close = [](const Fd& from, const Fd& to) {
        char byte = 0;
        shutdown(from.Get(), SHUT_WR);
        if (recv(to.Get(), &byte, 1, 0) != 0) {
            throw std::runtime_error("no end of stream");
        }
    };
    transfer(connection, accepted, up);
    transfer(accepted, connection, down);
    close(connection, accepted);
    close(accepted, connection);
}

}  // namespace nti::test
