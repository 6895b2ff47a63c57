// A small bounded traffic generator for the demo: echo servers and clients
// over UDP and TCP, IPv4 and IPv6.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace nti::host::demo {

// EchoServer answers every UDP datagram or TCP byte stream on one port until
// stopped. It runs on its own thread, in the network namespace of the thread
// that starts it.
class EchoServer {
public:
    enum class Proto { Udp, Tcp };
    EchoServer(Proto proto, int family, std::uint16_t port);
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    // Start binds and starts serving; false with `Error()` on failure.
    bool Start();
    // Received counts datagrams (UDP) or connections (TCP) served.
    std::uint32_t Received() const { return m_received.load(); }
    const std::string& Error() const { return m_error; }

private:
    void Serve();

    Proto m_proto;
    int m_family;
    std::uint16_t m_port;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint32_t> m_received{0};
    std::thread m_thread;
    std::string m_error;
};

// UdpExchange sends `count` datagrams of `payload` bytes to `address`:`port`
// from one socket and waits up to `timeoutMs` for each echo. Returns the
// number of echoes received, or -1 when the socket could not be made.
int UdpExchange(int family, const std::string& address, std::uint16_t port, int count,
                std::size_t payload, int timeoutMs, const std::atomic<bool>& cancel);

// TcpExchange connects, sends `messages` messages of `payload` bytes and
// reads each echo back. Returns the messages echoed, or -1 when it could not
// connect.
int TcpExchange(int family, const std::string& address, std::uint16_t port, int messages,
                std::size_t payload, int timeoutMs);

}  // namespace nti::host::demo
