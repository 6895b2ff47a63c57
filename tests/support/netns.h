// Network namespaces for tests that touch the real kernel, on the fixture
// library. Everything a test builds (interfaces, routes, firewall rules)
// lives inside a namespace it made and goes away with it; the machine's own
// namespace is never changed.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/fixture/netns.h"

namespace nti::test {

// Shell runs `command` with /bin/sh, returns its exit status (-1 when it did
// not exit normally) and, with `output`, its stdout and stderr.
inline int Shell(const std::string& command, std::string* output = nullptr) {
    return host::RunCommand({"sh", "-c", command}, output);
}

// NetNs is a named namespace "nti-<purpose>-<pid>" with its loopback up,
// deleted with the object; throws when it cannot be made.
class NetNs {
public:
    explicit NetNs(std::string_view purpose) {
        std::string error;
        if (!m_ns.Create("nti-" + std::string(purpose) + "-" + std::to_string(getpid()), error)) {
            throw std::runtime_error(error);
        }
    }

    const std::string& Name() const { return m_ns.Name(); }
    std::string Path() const { return "/run/netns/" + Name(); }

    // Exec runs `command` with /bin/sh inside the namespace.
    int Exec(const std::string& command, std::string* output = nullptr) const {
        return m_ns.Run({"sh", "-c", command}, output);
    }
    // Must is Exec that throws with the output when the command fails.
    std::string Must(const std::string& command) const {
        std::string output;
        if (Exec(command, &output) != 0) {
            throw std::runtime_error(Name() + ": " + command + ": " + output);
        }
        return output;
    }

private:
    host::NetworkNamespace m_ns;
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
    explicit ScopedNetNs(const NetNs& ns) : m_enter(ns.Name()) {
        if (!m_enter.Ok()) {
            throw std::runtime_error(m_enter.Error());
        }
    }

private:
    host::ScopedNetnsEnter m_enter;
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
        // A blocking pipe takes all of it (the parent reads meanwhile).
        _exit(write(fds[1], result.data(), result.size()) == static_cast<ssize_t>(result.size())
                  ? 0
                  : 1);
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
