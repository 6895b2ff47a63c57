#include "host/demo/traffic.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace nti::host::demo {
namespace {

// Fd closes a socket at scope end.
struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

bool MakeAddress(int family, const std::string& address, std::uint16_t port, sockaddr_storage& out,
                 socklen_t& length) {
    std::memset(&out, 0, sizeof(out));
    if (family == AF_INET) {
        auto* a = reinterpret_cast<sockaddr_in*>(&out);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        length = sizeof(sockaddr_in);
        return address.empty() || inet_pton(AF_INET, address.c_str(), &a->sin_addr) == 1;
    }
    auto* a = reinterpret_cast<sockaddr_in6*>(&out);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(port);
    length = sizeof(sockaddr_in6);
    return address.empty() || inet_pton(AF_INET6, address.c_str(), &a->sin6_addr) == 1;
}

bool WaitReadable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    int r = 0;
    do {
        r = poll(&p, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    return r > 0 && (p.revents & POLLIN) != 0;
}

}  // namespace

EchoServer::EchoServer(Proto proto, int family, std::uint16_t port)
    : m_proto(proto), m_family(family), m_port(port) {}

EchoServer::~EchoServer() {
    m_stop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool EchoServer::Start() {
    const int type = m_proto == Proto::Udp ? SOCK_DGRAM : SOCK_STREAM;
    m_fd = socket(m_family, type | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        m_error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const int one = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (m_family == AF_INET6) {
        setsockopt(m_fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
    }
    sockaddr_storage address{};
    socklen_t length = 0;
    MakeAddress(m_family, "", m_port, address, length);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        (m_proto == Proto::Tcp && listen(m_fd, 16) != 0)) {
        m_error = "bind port " + std::to_string(m_port) + ": " + std::strerror(errno);
        return false;
    }
    m_thread = std::thread([this] { Serve(); });
    return true;
}

void EchoServer::Serve() {
    std::vector<char> buf(65536);
    while (!m_stop) {
        if (!WaitReadable(m_fd, 100)) {
            continue;
        }
        if (m_proto == Proto::Udp) {
            sockaddr_storage from{};
            socklen_t fromLength = sizeof(from);
            const ssize_t n = recvfrom(m_fd, buf.data(), buf.size(), 0,
                                       reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (n >= 0) {
                ++m_received;
                sendto(m_fd, buf.data(), static_cast<std::size_t>(n), 0,
                       reinterpret_cast<sockaddr*>(&from), fromLength);
            }
            continue;
        }
        Fd connection{accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC)};
        if (connection.fd < 0) {
            continue;
        }
        ++m_received;
        // One connection at a time is enough for the demo's client.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!m_stop && std::chrono::steady_clock::now() < deadline) {
            if (!WaitReadable(connection.fd, 100)) {
                continue;
            }
            const ssize_t n = recv(connection.fd, buf.data(), buf.size(), 0);
            if (n <= 0) {
                break;
            }
            send(connection.fd, buf.data(), static_cast<std::size_t>(n), MSG_NOSIGNAL);
        }
    }
}

int UdpExchange(int family, const std::string& address, std::uint16_t port, int count,
                std::size_t payload, int timeoutMs, const std::atomic<bool>& cancel) {
    Fd s{socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_storage to{};
    socklen_t length = 0;
    if (s.fd < 0 || !MakeAddress(family, address, port, to, length) ||
        connect(s.fd, reinterpret_cast<sockaddr*>(&to), length) != 0) {
        return -1;
    }
    std::vector<char> message(payload, 'n');
    std::vector<char> reply(payload + 16);
    int echoed = 0;
    for (int i = 0; i < count && !cancel; ++i) {
        if (send(s.fd, message.data(), message.size(), 0) < 0) {
            continue;
        }
        if (WaitReadable(s.fd, timeoutMs) && recv(s.fd, reply.data(), reply.size(), 0) >= 0) {
            ++echoed;
        }
    }
    return echoed;
}

int TcpExchange(int family, const std::string& address, std::uint16_t port, int messages,
                std::size_t payload, int timeoutMs) {
    Fd s{socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_storage to{};
    socklen_t length = 0;
    if (s.fd < 0 || !MakeAddress(family, address, port, to, length)) {
        return -1;
    }
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    setsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    if (connect(s.fd, reinterpret_cast<sockaddr*>(&to), length) != 0) {
        return -1;
    }
    std::vector<char> message(payload, 't');
    std::vector<char> reply(payload);
    int echoed = 0;
    for (int i = 0; i < messages; ++i) {
        if (send(s.fd, message.data(), message.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(message.size())) {
            break;
        }
        std::size_t got = 0;
        while (got < payload && WaitReadable(s.fd, timeoutMs)) {
            const ssize_t n = recv(s.fd, reply.data() + got, payload - got, 0);
            if (n <= 0) {
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        if (got != payload) {
            break;
        }
        ++echoed;
    }
    return echoed;
}

}  // namespace nti::host::demo
