// Real packets: a forked child makes a network namespace of its own, sends
// UDP, TCP and ICMP over its loopback between 198.18.0.1 and 198.18.0.2 (and
// fd00:198:18::1 and ::2), captures what the kernel built with an AF_PACKET
// socket and hands the bytes to the parent, which parses them.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "network_traffic_interceptor/packet.h"
#include "qor/result.h"

namespace dwi::network_interceptor {
namespace {

// What the child captured; one packet each.
enum class Capture : std::uint8_t {
    kUdp4 = 1,
    kUdp4IpOptions,
    kUdp4FirstFragment,
    kUdp4LaterFragment,
    kTcp4Syn,
    kIcmp4Echo,
    kUdp6,
    kUdp6HopByHop,
    kUdp6FirstFragment,
    kTcp6Syn,
    kIcmp6Echo,
};

// Child exit codes besides 0.
constexpr int kNoNamespace = 77;
constexpr int kSetupFailed = 78;
constexpr int kNotCaptured = 79;

constexpr std::uint16_t kUdpClientPort = 40001;
constexpr std::uint16_t kServerPort = 40002;
constexpr std::uint16_t kTcpClientPort = 40004;
constexpr std::uint16_t kOptionsClientPort = 40005;
constexpr std::uint16_t kHopByHopClientPort = 40006;
constexpr std::size_t kFragmentedSize = 3000;

constexpr unsigned __int128 kV4Client = 0xC6120001u;  // 198.18.0.1
constexpr unsigned __int128 kV4Server = 0xC6120002u;  // 198.18.0.2
constexpr unsigned __int128 kV6Prefix = static_cast<unsigned __int128>(0xFD00019800180000u) << 64;
constexpr unsigned __int128 kV6Client = kV6Prefix | 1u;  // fd00:198:18::1
constexpr unsigned __int128 kV6Server = kV6Prefix | 2u;  // fd00:198:18::2

// ---- child side: plain system calls only, no gtest ----

class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

[[noreturn]] void Fail(int code) {
    _exit(code);
}

void Require(bool ok) {
    if (!ok) {
        Fail(kSetupFailed);
    }
}

sockaddr_in V4(const char* address, std::uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    Require(inet_pton(AF_INET, address, &sa.sin_addr) == 1);
    return sa;
}

sockaddr_in6 V6(const char* address, std::uint16_t port) {
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(port);
    Require(inet_pton(AF_INET6, address, &sa.sin6_addr) == 1);
    return sa;
}

template <class Address>
int Socket(int type, int protocol, const Address* bindTo) {
    const int fd = socket(std::is_same_v<Address, sockaddr_in> ? AF_INET : AF_INET6,
                          type | SOCK_CLOEXEC, protocol);
    Require(fd >= 0);
    if (bindTo != nullptr) {
        Require(bind(fd, reinterpret_cast<const sockaddr*>(bindTo), sizeof(*bindTo)) == 0);
    }
    return fd;
}

template <class Address>
void SendTo(int fd, const void* data, std::size_t size, const Address& to) {
    Require(sendto(fd, data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
            static_cast<ssize_t>(size));
}

class Capturer {
public:
    Capturer(int packetSocket, int out) : m_socket(packetSocket), m_out(out) {}

    // Take reads packets until `match` accepts one (bounded by count and
    // time) and writes it to the parent as tag, length, bytes.
    void Take(Capture tag, const std::function<bool(const std::uint8_t*, std::size_t)>& match) {
        for (int i = 0; i < 64; ++i) {
            pollfd pfd{m_socket, POLLIN, 0};
            if (poll(&pfd, 1, 2000) != 1) {
                break;
            }
            sockaddr_ll from{};
            socklen_t fromLength = sizeof(from);
            const ssize_t n = recvfrom(m_socket, m_buffer.data(), m_buffer.size(), 0,
                                       reinterpret_cast<sockaddr*>(&from), &fromLength);
            Require(n >= 0);
            // Loopback shows each packet twice; keep the received copy.
            if (from.sll_pkttype == PACKET_OUTGOING || !match(m_buffer.data(), n)) {
                continue;
            }
            const std::uint8_t tagByte = static_cast<std::uint8_t>(tag);
            const std::uint32_t size = static_cast<std::uint32_t>(n);
            Require(write(m_out, &tagByte, 1) == 1);
            Require(write(m_out, &size, sizeof(size)) == sizeof(size));
            Require(write(m_out, m_buffer.data(), size) == static_cast<ssize_t>(size));
            return;
        }
        Fail(kNotCaptured);
    }

private:
    int m_socket;
    int m_out;
    std::array<std::uint8_t, 65536> m_buffer{};
};

bool V4Protocol(const std::uint8_t* p, std::size_t n, std::uint8_t protocol) {
    return n >= 20 && p[0] >> 4 == 4 && p[9] == protocol;
}
std::uint16_t V4FragmentField(const std::uint8_t* p) {
    return static_cast<std::uint16_t>((p[6] << 8 | p[7]) & 0x3FFF);
}
bool V6Next(const std::uint8_t* p, std::size_t n, std::uint8_t next) {
    return n >= 48 && p[0] >> 4 == 6 && p[6] == next;
}

// UdpSender sends from a bound client address to the server.
template <class Address>
struct UdpSender {
    UdpSender(const Address& client, const Address& server)
        : socket(Socket(SOCK_DGRAM, 0, &client)), to(server) {}
    void Send(const void* data, std::size_t size) const { SendTo(socket.Get(), data, size, to); }

    Fd socket;
    Address to;
};

// TcpPair starts a connection: its SYN is on the wire once built.
template <class Address>
struct TcpPair {
    TcpPair(const Address& client, const Address& server)
        : listener(Socket(SOCK_STREAM, 0, &server)),
          connector(Socket(SOCK_STREAM | SOCK_NONBLOCK, 0, &client)) {
        Require(listen(listener.Get(), 1) == 0);
        Require(connect(connector.Get(), reinterpret_cast<const sockaddr*>(&server),
                        sizeof(server)) == 0 ||
                errno == EINPROGRESS);
    }

    Fd listener;
    Fd connector;
};

// SendRaw sends `message` over a raw socket of `protocol` bound to `client`.
template <class Address>
void SendRaw(int protocol, const Address& client, const Address& server,
             std::initializer_list<std::uint8_t> message) {
    const Fd fd(Socket(SOCK_RAW, protocol, &client));
    SendTo(fd.Get(), message.begin(), message.size(), server);
}

void SendAndCaptureV4(Capturer& capture) {
    const sockaddr_in server = V4("198.18.0.2", kServerPort);
    const Fd receiver(Socket(SOCK_DGRAM, 0, &server));  // no port-unreachable answers
    const UdpSender udp(V4("198.18.0.1", kUdpClientPort), server);
    udp.Send("kernel", 6);
    capture.Take(Capture::kUdp4, [](const std::uint8_t* p, std::size_t n) {
        return V4Protocol(p, n, IPPROTO_UDP) && V4FragmentField(p) == 0 && (p[0] & 0x0F) == 5;
    });

    // NOP, NOP, NOP, end of options: a 24-byte header.
    const UdpSender withOptions(V4("198.18.0.1", kOptionsClientPort), server);
    const std::uint8_t options[] = {1, 1, 1, 0};
    Require(setsockopt(withOptions.socket.Get(), IPPROTO_IP, IP_OPTIONS, options,
                       sizeof(options)) == 0);
    withOptions.Send("opts", 4);
    capture.Take(Capture::kUdp4IpOptions, [](const std::uint8_t* p, std::size_t n) {
        return V4Protocol(p, n, IPPROTO_UDP) && (p[0] & 0x0F) == 6;
    });

    // Larger than the 1500-byte MTU: the kernel fragments it.
    const int dontProbe = IP_PMTUDISC_DONT;
    Require(setsockopt(udp.socket.Get(), IPPROTO_IP, IP_MTU_DISCOVER, &dontProbe,
                       sizeof(dontProbe)) == 0);
    const std::vector<char> big(kFragmentedSize, 'f');
    udp.Send(big.data(), big.size());
    capture.Take(Capture::kUdp4FirstFragment, [](const std::uint8_t* p, std::size_t n) {
        return V4Protocol(p, n, IPPROTO_UDP) && V4FragmentField(p) == 0x2000;
    });
    capture.Take(Capture::kUdp4LaterFragment, [](const std::uint8_t* p, std::size_t n) {
        return V4Protocol(p, n, IPPROTO_UDP) && (V4FragmentField(p) & 0x1FFF) != 0;
    });

    const TcpPair tcp(V4("198.18.0.1", kTcpClientPort), server);
    capture.Take(Capture::kTcp4Syn, [](const std::uint8_t* p, std::size_t n) {
        return V4Protocol(p, n, IPPROTO_TCP) && n >= 40 && p[20 + 13] == 0x02;
    });

    // Echo request, identifier 0x4e54, sequence 1, with its checksum.
    SendRaw(IPPROTO_ICMP, V4("198.18.0.1", 0), V4("198.18.0.2", 0),
            {ICMP_ECHO, 0, 0xA9, 0xAA, 0x4E, 0x54, 0, 1});
    capture.Take(Capture::kIcmp4Echo, [](const std::uint8_t* p, std::size_t n) {
        return V4Protocol(p, n, IPPROTO_ICMP) && p[20] == ICMP_ECHO;
    });
}

void SendAndCaptureV6(Capturer& capture) {
    const sockaddr_in6 server = V6("fd00:198:18::2", kServerPort);
    const Fd receiver(Socket(SOCK_DGRAM, 0, &server));
    const UdpSender udp(V6("fd00:198:18::1", kUdpClientPort), server);
    udp.Send("kernel", 6);
    capture.Take(Capture::kUdp6,
                 [](const std::uint8_t* p, std::size_t n) { return V6Next(p, n, IPPROTO_UDP); });

    // An 8-byte hop-by-hop header: next header (the kernel fills it), length
    // 0, PadN over the other 6 bytes.
    const UdpSender withHopByHop(V6("fd00:198:18::1", kHopByHopClientPort), server);
    const std::uint8_t hopByHop[] = {0, 0, 1, 4, 0, 0, 0, 0};
    Require(setsockopt(withHopByHop.socket.Get(), IPPROTO_IPV6, IPV6_HOPOPTS, hopByHop,
                       sizeof(hopByHop)) == 0);
    withHopByHop.Send("hbh", 3);
    capture.Take(Capture::kUdp6HopByHop, [](const std::uint8_t* p, std::size_t n) {
        return V6Next(p, n, IPPROTO_HOPOPTS);
    });

    const std::vector<char> big(kFragmentedSize, 'f');
    udp.Send(big.data(), big.size());
    capture.Take(Capture::kUdp6FirstFragment, [](const std::uint8_t* p, std::size_t n) {
        return V6Next(p, n, IPPROTO_FRAGMENT) && ((p[42] << 8 | p[43]) & 0xFFF8) == 0;
    });

    const TcpPair tcp(V6("fd00:198:18::1", kTcpClientPort), server);
    capture.Take(Capture::kTcp6Syn, [](const std::uint8_t* p, std::size_t n) {
        return V6Next(p, n, IPPROTO_TCP) && n >= 60 && p[40 + 13] == 0x02;
    });

    // The kernel fills in the checksum of ICMPv6 raw sockets.
    SendRaw(IPPROTO_ICMPV6, V6("fd00:198:18::1", 0), V6("fd00:198:18::2", 0),
            {ICMP6_ECHO_REQUEST, 0, 0, 0, 0x4E, 0x54, 0, 1});
    capture.Take(Capture::kIcmp6Echo, [](const std::uint8_t* p, std::size_t n) {
        return V6Next(p, n, IPPROTO_ICMPV6) && p[40] == ICMP6_ECHO_REQUEST;
    });
}

[[noreturn]] void RunChild(int out) {
    alarm(30);  // never outlive a stuck capture
    if (unshare(CLONE_NEWNET) != 0) {
        Fail(kNoNamespace);
    }
    // Only this namespace's loopback changes; it goes away with the child.
    Require(std::system("ip link set lo up mtu 1500 && "
                        "ip addr add 198.18.0.1/32 dev lo && ip addr add 198.18.0.2/32 dev lo && "
                        "ip -6 addr add fd00:198:18::1/128 dev lo nodad && "
                        "ip -6 addr add fd00:198:18::2/128 dev lo nodad") == 0);
    const int loopback = static_cast<int>(if_nametoindex("lo"));
    Require(loopback > 0);
    Fd packets(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_ALL)));
    Require(packets.Get() >= 0);
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_ALL);
    link.sll_ifindex = loopback;
    Require(bind(packets.Get(), reinterpret_cast<const sockaddr*>(&link), sizeof(link)) == 0);

    Capturer capture(packets.Get(), out);
    SendAndCaptureV4(capture);
    SendAndCaptureV6(capture);
    Fail(0);
}

// ---- parent side ----

struct Captured {
    int childStatus = -1;
    std::map<Capture, std::vector<std::uint8_t>> packets;
};

bool ReadExactly(int fd, void* data, std::size_t size) {
    auto* p = static_cast<std::uint8_t*>(data);
    while (size > 0) {
        const ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

Captured CaptureInChild() {
    Captured result;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return result;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        RunChild(fds[1]);
    }
    close(fds[1]);
    if (child < 0) {
        close(fds[0]);
        return result;
    }
    // The child's alarm bounds this loop: its exit closes the pipe.
    std::uint8_t tag = 0;
    while (ReadExactly(fds[0], &tag, 1)) {
        std::uint32_t size = 0;
        if (!ReadExactly(fds[0], &size, sizeof(size)) || size > 65536) {
            break;
        }
        std::vector<std::uint8_t> bytes(size);
        if (!ReadExactly(fds[0], bytes.data(), size)) {
            break;
        }
        result.packets[static_cast<Capture>(tag)] = std::move(bytes);
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.childStatus = status;
    return result;
}

class PacketCaptureTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_captured = new Captured(CaptureInChild()); }
    static void TearDownTestSuite() {
        delete s_captured;
        s_captured = nullptr;
    }

    void SetUp() override {
        const int status = s_captured->childStatus;
        if (WIFEXITED(status) && WEXITSTATUS(status) == kNoNamespace) {
            GTEST_SKIP() << "cannot create a network namespace here";
        }
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "capture child ended with status " << status << " (exit code " << WEXITSTATUS(status)
            << ")";
    }

    // Packet returns the captured bytes of `tag`.
    static const std::vector<std::uint8_t>& Packet(Capture tag) {
        return s_captured->packets.at(tag);
    }
    static ByteRange Range(const std::vector<std::uint8_t>& bytes) {
        return {bytes.data(), bytes.data() + bytes.size()};
    }
    // NetworkLength is the packet length its IP header states.
    static std::size_t NetworkLength(const ParsedPacket& packet) {
        return packet.Ipv4() ? packet.Ipv4()->TotalLength()
                             : packet.Ipv6()->PayloadLength() + Ipv6Header::kSize;
    }

    static Captured* s_captured;
};

Captured* PacketCaptureTest::s_captured = nullptr;

TEST_F(PacketCaptureTest, UdpDatagrams) {
    struct Case {
        Capture tag;
        std::ptrdiff_t transport;
        PacketEndpoint source;
        PacketEndpoint destination;
        std::string_view data;
    };
    const Case cases[] = {
        {Capture::kUdp4, 20, {kV4Client, kUdpClientPort, 4}, {kV4Server, kServerPort, 4}, "kernel"},
        {Capture::kUdp4IpOptions,
         24,
         {kV4Client, kOptionsClientPort, 4},
         {kV4Server, kServerPort, 4},
         "opts"},
        {Capture::kUdp6, 40, {kV6Client, kUdpClientPort, 6}, {kV6Server, kServerPort, 6}, "kernel"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.tag));
        const auto& bytes = Packet(c.tag);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), IPPROTO_UDP);
        EXPECT_EQ(NetworkLength(packet), bytes.size());
        EXPECT_EQ(packet.Transport().begin, bytes.data() + c.transport);
        ASSERT_NE(packet.Udp(), nullptr);
        EXPECT_EQ(packet.Udp()->Length(), 8 + c.data.size());
        EXPECT_EQ(packet.Source(), c.source);
        EXPECT_EQ(packet.Destination(), c.destination);
        const ByteRange data = packet.ApplicationPayload();
        EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(data.begin), data.Size()), c.data);
    }
}

TEST_F(PacketCaptureTest, FirstFragmentsAreParsedLaterIpv4FragmentsAreNot) {
    struct Case {
        Capture tag;
        std::ptrdiff_t transport;
        PacketEndpoint source;
        PacketEndpoint destination;
    };
    // The fragment header's fixed 8 bytes agree with the wire here.
    const Case cases[] = {
        {Capture::kUdp4FirstFragment,
         20,
         {kV4Client, kUdpClientPort, 4},
         {kV4Server, kServerPort, 4}},
        {Capture::kUdp6FirstFragment,
         48,
         {kV6Client, kUdpClientPort, 6},
         {kV6Server, kServerPort, 6}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.tag));
        const auto& bytes = Packet(c.tag);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), IPPROTO_UDP);
        EXPECT_EQ(packet.Transport().begin, bytes.data() + c.transport);
        ASSERT_NE(packet.Udp(), nullptr);
        EXPECT_EQ(packet.Udp()->Length(), 8 + kFragmentedSize);
        EXPECT_EQ(packet.Source(), c.source);
        EXPECT_EQ(packet.Destination(), c.destination);
    }

    const auto& later = Packet(Capture::kUdp4LaterFragment);
    ParsedPacket packet;
    EXPECT_EQ(packet.Parse(Range(later), true), qor::errors::kFalse);
    ASSERT_NE(packet.Ipv4(), nullptr);
    EXPECT_NE(packet.Ipv4()->FragmentOffset(), 0);
    EXPECT_EQ(packet.Udp(), nullptr);
    EXPECT_EQ(packet.Source(), PacketEndpoint{});
}

TEST_F(PacketCaptureTest, TcpSynWithOptionsHasEmptyApplicationPayloadAtTheEnd) {
    struct Case {
        Capture tag;
        std::size_t networkHeader;
        PacketEndpoint source;
        PacketEndpoint destination;
    };
    const Case cases[] = {
        {Capture::kTcp4Syn, 20, {kV4Client, kTcpClientPort, 4}, {kV4Server, kServerPort, 4}},
        {Capture::kTcp6Syn, 40, {kV6Client, kTcpClientPort, 6}, {kV6Server, kServerPort, 6}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.tag));
        const auto& bytes = Packet(c.tag);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), IPPROTO_TCP);
        EXPECT_EQ(NetworkLength(packet), bytes.size());
        ASSERT_NE(packet.Tcp(), nullptr);
        EXPECT_EQ(packet.Tcp()->Flags(), 0x02);
        EXPECT_GT(packet.Tcp()->DataOffset(), TcpHeader::kSize);  // MSS and friends
        EXPECT_EQ(packet.Tcp()->DataOffset(), bytes.size() - c.networkHeader);
        EXPECT_FALSE(packet.ApplicationPayload().IsNull());
        EXPECT_EQ(packet.ApplicationPayload().begin, bytes.data() + bytes.size());
        EXPECT_EQ(packet.ApplicationPayload().end, bytes.data() + bytes.size());
        EXPECT_EQ(packet.Source(), c.source);
        EXPECT_EQ(packet.Destination(), c.destination);
    }
}

TEST_F(PacketCaptureTest, IcmpEchoHasNoPorts) {
    struct Case {
        Capture tag;
        std::uint8_t protocol;
        PacketEndpoint source;
        PacketEndpoint destination;
    };
    const Case cases[] = {
        {Capture::kIcmp4Echo, IPPROTO_ICMP, {kV4Client, 0, 4}, {kV4Server, 0, 4}},
        {Capture::kIcmp6Echo, IPPROTO_ICMPV6, {kV6Client, 0, 6}, {kV6Server, 0, 6}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.tag));
        const auto& bytes = Packet(c.tag);
        ParsedPacket packet;
        ASSERT_EQ(packet.Parse(Range(bytes), false), qor::errors::kOk);
        EXPECT_EQ(packet.Protocol(), c.protocol);
        EXPECT_EQ(packet.Source(), c.source);
        EXPECT_EQ(packet.Destination(), c.destination);
        EXPECT_EQ(packet.Parse(Range(bytes), true), qor::errors::kInvalidArgument);
    }
}

TEST_F(PacketCaptureTest, Udp6HopByHopFollowsTheKeptLengthRule) {
    const auto& bytes = Packet(Capture::kUdp6HopByHop);
    // The kernel's layout: an 8-byte hop-by-hop header, UDP at 48.
    ASSERT_EQ(bytes.size(), 40u + 8 + 8 + 3);
    EXPECT_EQ(bytes[40], IPPROTO_UDP);
    const UdpHeader wire(bytes.data() + 48);
    EXPECT_EQ(wire.SourcePort(), kHopByHopClientPort);
    EXPECT_EQ(wire.DestinationPort(), kServerPort);

    // Parsing advances 0 * 8 + 1 bytes and reads the ports from the option
    // bytes: 00 01 | 04 00.
    ParsedPacket packet;
    ASSERT_EQ(packet.Parse(Range(bytes), true), qor::errors::kOk);
    EXPECT_EQ(packet.Protocol(), IPPROTO_UDP);
    EXPECT_EQ(packet.Transport().begin, bytes.data() + 41);
    EXPECT_EQ(packet.Source(), (PacketEndpoint{kV6Client, 0x0001, 6}));
    EXPECT_EQ(packet.Destination(), (PacketEndpoint{kV6Server, 0x0400, 6}));
}

}  // namespace
}  // namespace dwi::network_interceptor
