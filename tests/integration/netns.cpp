#include "tests/integration/netns.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <thread>

#include "host/services/process.h"

extern char** environ;

namespace nti::test {

int RunIn(const std::string& ns, const std::vector<std::string>& argv, std::string* out) {
    std::vector<std::string> full = {"ip", "netns", "exec", ns};
    full.insert(full.end(), argv.begin(), argv.end());
    host::ProcessOutput output;
    if (!QOR_SUCCEEDED(host::RunProcess(full, {}, output, std::chrono::seconds(20)))) {
        return -1;
    }
    if (out != nullptr) {
        *out = output.out;
    }
    return output.exitCode;
}

namespace {

int Ip(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"ip"};
    argv.insert(argv.end(), args.begin(), args.end());
    host::ProcessOutput output;
    host::RunProcess(argv, {}, output, std::chrono::seconds(10));
    return output.exitCode;
}

socklen_t MakeAddress(int family, const std::string& address, std::uint16_t port,
                      sockaddr_storage& sa) {
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&sa);
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        inet_pton(AF_INET, address.c_str(), &in->sin_addr);
        return sizeof(*in);
    }
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&sa);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
    inet_pton(AF_INET6, address.c_str(), &in6->sin6_addr);
    return sizeof(*in6);
}

}  // namespace

NetnsPair::NetnsPair(const std::string& purpose) {
    const std::string base = "nti-" + purpose + "-" + std::to_string(::getpid());
    m_gen = base + "-gen";
    m_dut = base + "-dut";
    const std::vector<std::vector<std::string>> steps = {
        {"netns", "add", m_gen},
        {"netns", "add", m_dut},
        {"link", "add", "g0", "netns", m_gen, "type", "veth", "peer", "name", "d0", "netns", m_dut},
        {"-n", m_gen, "addr", "add", "198.18.0.1/30", "dev", "g0"},
        {"-n", m_dut, "addr", "add", "198.18.0.2/30", "dev", "d0"},
        {"-n", m_gen, "addr", "add", "fd00:198:18::1/64", "dev", "g0", "nodad"},
        {"-n", m_dut, "addr", "add", "fd00:198:18::2/64", "dev", "d0", "nodad"},
        {"-n", m_gen, "link", "set", "lo", "up"},
        {"-n", m_dut, "link", "set", "lo", "up"},
        {"-n", m_gen, "link", "set", "g0", "up"},
        {"-n", m_dut, "link", "set", "d0", "up"},
    };
    for (const auto& step : steps) {
        if (Ip(step) != 0) {
            return;
        }
    }
    // Both families answer before a test starts: neighbour entries are
    // resolved and the IPv6 link routes are in.
    for (const char* address : {kDut4, kDut6}) {
        int tries = 0;
        while (RunIn(m_gen, {"ping", "-c", "1", "-W", "1", address}) != 0) {
            if (++tries == 5) {
                return;
            }
        }
    }
    m_ok = true;
}

NetnsPair::~NetnsPair() {
    Ip({"netns", "del", m_gen});
    Ip({"netns", "del", m_dut});
}

UdpSocket::UdpSocket(const std::string& ns, int family, const std::string& address,
                     std::uint16_t port)
    : m_family(family) {
    // setns moves only the calling thread: the socket is made on a thread of
    // its own and keeps that namespace.
    std::thread maker([&] {
        const int nsFd = ::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
        if (nsFd < 0) {
            return;
        }
        const bool entered = ::setns(nsFd, CLONE_NEWNET) == 0;
        ::close(nsFd);
        if (!entered) {
            return;
        }
        const int fd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_storage sa{};
        const socklen_t length = MakeAddress(family, address, port, sa);
        if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&sa), length) == 0) {
            m_fd = fd;
        } else if (fd >= 0) {
            ::close(fd);
        }
    });
    maker.join();
}

UdpSocket::~UdpSocket() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool UdpSocket::SendTo(const std::string& address, std::uint16_t port, const std::string& payload) {
    sockaddr_storage sa{};
    const socklen_t length = MakeAddress(m_family, address, port, sa);
    return ::sendto(m_fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&sa),
                    length) == static_cast<ssize_t>(payload.size());
}

bool UdpSocket::Receive(std::string& payload, std::chrono::milliseconds timeout) {
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(timeout.count())) != 1) {
        return false;
    }
    char buffer[2048];
    const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
    if (n < 0) {
        return false;
    }
    payload.assign(buffer, static_cast<std::size_t>(n));
    return true;
}

Program::Program(const std::vector<std::string>& argv) {
    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        return;
    }
    if (::pipe2(err, O_CLOEXEC) != 0) {
        ::close(out[0]);
        ::close(out[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    if (::posix_spawnp(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        m_pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    m_out = out[0];
    m_err_fd = err[0];
}

Program::~Program() {
    if (m_pid > 0 && !m_reaped) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    for (int fd : {m_out, m_err_fd}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool Program::Pump(std::chrono::milliseconds timeout) {
    pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err_fd, POLLIN, 0}};
    if (::poll(fds, 2, static_cast<int>(timeout.count())) <= 0) {
        return false;
    }
    bool any = false;
    for (int i = 0; i < 2; ++i) {
        if (fds[i].revents == 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t n = ::read(fds[i].fd, buffer, sizeof(buffer));
        if (n > 0) {
            (i == 0 ? m_outText : m_err).append(buffer, static_cast<std::size_t>(n));
            any = true;
        } else {
            ::close(fds[i].fd);
            (i == 0 ? m_out : m_err_fd) = -1;
        }
    }
    return any;
}

bool Program::WaitForError(const std::string& text, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_err.find(text) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || (m_out < 0 && m_err_fd < 0)) {
            return false;
        }
        Pump(left);
    }
    return true;
}

void Program::Signal(int signal) {
    if (m_pid > 0 && !m_reaped) {
        ::kill(m_pid, signal);
    }
}

void Program::CloseOutput() {
    if (m_out >= 0) {
        ::close(m_out);
        m_out = -1;
    }
}

int Program::Wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_reaped && m_pid > 0) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_reaped = true;
            m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        Pump(std::chrono::milliseconds(20));
    }
    // The output ends with the program; bounded all the same.
    for (int i = 0; i < 20 && (m_out >= 0 || m_err_fd >= 0); ++i) {
        Pump(std::chrono::milliseconds(100));
    }
    return m_exit;
}

std::vector<std::string> Program::OutputLines() {
    std::vector<std::string> lines;
    std::istringstream in(m_outText);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace nti::test
