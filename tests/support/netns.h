// Network namespaces for tests that touch the real kernel. Everything a test
// builds (interfaces, routes, firewall rules) lives inside a namespace it
// made and goes away with it; the machine's own namespace is never changed.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nti::test {

// Shell runs `command` with /bin/sh, returns its exit status (-1 when it did
// not exit normally) and, with `output`, its stdout and stderr.
inline int Shell(const std::string& command, std::string* output = nullptr) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    std::string text;
    std::array<char, 4096> chunk;
    while (const std::size_t n = fread(chunk.data(), 1, chunk.size(), pipe)) {
        text.append(chunk.data(), n);
    }
    const int status = pclose(pipe);
    if (output != nullptr) {
        *output = std::move(text);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// NetNs is a named namespace "nti-<purpose>-<pid>", deleted with the object.
class NetNs {
public:
    explicit NetNs(std::string_view purpose)
        : m_name("nti-" + std::string(purpose) + "-" + std::to_string(getpid())) {
        std::string output;
        if (Shell("ip netns add " + m_name, &output) != 0) {
            throw std::runtime_error("ip netns add " + m_name + ": " + output);
        }
        Must("ip link set lo up");
    }
    ~NetNs() { Shell("ip netns del " + m_name); }
    NetNs(const NetNs&) = delete;
    NetNs& operator=(const NetNs&) = delete;

    const std::string& Name() const { return m_name; }
    std::string Path() const { return "/run/netns/" + m_name; }

    // Exec runs `command` inside the namespace.
    int Exec(const std::string& command, std::string* output = nullptr) const {
        return Shell("ip netns exec " + m_name + " sh -c '" + command + "'", output);
    }
    // Must is Exec that throws with the output when the command fails.
    std::string Must(const std::string& command) const {
        std::string output;
        if (Exec(command, &output) != 0) {
            throw std::runtime_error(m_name + ": " + command + ": " + output);
        }
        return output;
    }

private:
    std::string m_name;
};

// VethEnd is one side of a veth pair: its namespace, name, MAC and addresses
// ("198.18.0.1/24", "fd00:198:18::1/64"; IPv6 ones are added without DAD).
struct VethEnd {
    const NetNs* ns;
    std::string name;
    std::string mac;
    std::vector<std::string> addresses;
};

// Veth creates the pair inside a.ns (never in the machine's namespace), moves
// the peer to b.ns, and brings both up with their addresses.
inline void Veth(const VethEnd& a, const VethEnd& b) {
    a.ns->Must("ip link add " + a.name + " address " + a.mac + " type veth peer name " + b.name +
               " address " + b.mac + " netns " + b.ns->Name());
    for (const VethEnd* end : {&a, &b}) {
        for (const auto& address : end->addresses) {
            const bool v6 = address.find(':') != std::string::npos;
            end->ns->Must("ip addr add " + address + " dev " + end->name + (v6 ? " nodad" : ""));
        }
        end->ns->Must("ip link set " + end->name + " up");
    }
}

// ScopedNetNs moves the calling thread into `ns` and back. Sockets the thread
// opens meanwhile belong to `ns`; /sys still shows the original namespace.
class ScopedNetNs {
public:
    explicit ScopedNetNs(const NetNs& ns) : m_original(open("/proc/thread-self/ns/net", O_RDONLY)) {
        const int target = open(ns.Path().c_str(), O_RDONLY);
        const bool entered = target >= 0 && m_original >= 0 && setns(target, CLONE_NEWNET) == 0;
        if (target >= 0) {
            close(target);
        }
        if (!entered) {
            if (m_original >= 0) {
                close(m_original);
            }
            throw std::runtime_error("cannot enter " + ns.Name());
        }
    }
    ~ScopedNetNs() {
        if (setns(m_original, CLONE_NEWNET) != 0) {
            std::perror("setns back");
            std::abort();  // later tests would run in the wrong namespace
        }
        close(m_original);
    }
    ScopedNetNs(const ScopedNetNs&) = delete;
    ScopedNetNs& operator=(const ScopedNetNs&) = delete;

private:
    int m_original;
};

// RunInNetNs runs `body` in a child process inside `ns` with its own mount
// namespace and a fresh /sys (as `ip netns exec` does) and returns what the
// body returned; a child that fails to set up returns "setup failed: ...".
inline std::string RunInNetNs(const NetNs& ns, const std::function<std::string()>& body) {
    std::array<int, 2> fds{};
    if (pipe(fds.data()) != 0) {
        throw std::runtime_error("pipe");
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork");
    }
    if (child == 0) {
        close(fds[0]);
        std::string result;
        const int target = open(ns.Path().c_str(), O_RDONLY);
        if (target < 0 || unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_SLAVE | MS_REC, nullptr) != 0 ||
            setns(target, CLONE_NEWNET) != 0 || umount2("/sys", MNT_DETACH) != 0 ||
            mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
            result = "setup failed: " + std::to_string(errno);
        } else {
            result = body();
        }
        std::size_t written = 0;
        while (written < result.size()) {
            const ssize_t n = write(fds[1], result.data() + written, result.size() - written);
            if (n <= 0) {
                break;
            }
            written += static_cast<std::size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string result;
    std::array<char, 4096> chunk;
    ssize_t n = 0;
    while ((n = read(fds[0], chunk.data(), chunk.size())) > 0) {
        result.append(chunk.data(), static_cast<std::size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return result;
}

}  // namespace nti::test
