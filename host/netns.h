// Network namespaces for the demo and tests: made, entered and removed by
// the process that needs them.
#pragma once

#include <string>
#include <vector>

namespace nti::host {

// RunCommand runs `argv` (no shell) and waits. Returns the exit status, or -1
// when it could not run; `output` receives stdout and stderr when given.
int RunCommand(const std::vector<std::string>& argv, std::string* output = nullptr);

// HasNetAdmin is true when the process may change network configuration
// (effective CAP_NET_ADMIN).
bool HasNetAdmin();

// NetworkNamespace owns a named namespace (`ip netns add`); the destructor
// deletes it, which also removes its interfaces and firewall rules.
class NetworkNamespace {
public:
    // Create makes namespace `name` with its loopback up. On failure returns
    // false and says why in `error`.
    bool Create(const std::string& name, std::string& error);
    ~NetworkNamespace();
    NetworkNamespace() = default;
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    const std::string& Name() const { return m_name; }
    // Run runs `argv` inside the namespace (`ip netns exec`).
    int Run(const std::vector<std::string>& argv, std::string* output = nullptr) const;
    // Ip runs `ip -n <name> args...`.
    int Ip(const std::vector<std::string>& args, std::string* output = nullptr) const;

private:
    std::string m_name;
};

// ScopedNetnsEnter moves the calling thread into a named namespace and back
// into its previous one on destruction. Threads and child processes created
// meanwhile stay in the entered namespace.
class ScopedNetnsEnter {
public:
    explicit ScopedNetnsEnter(const std::string& name);
    ~ScopedNetnsEnter();
    ScopedNetnsEnter(const ScopedNetnsEnter&) = delete;
    ScopedNetnsEnter& operator=(const ScopedNetnsEnter&) = delete;

    bool Ok() const { return m_ok; }
    const std::string& Error() const { return m_error; }

private:
    int m_previous = -1;
    bool m_ok = false;
    std::string m_error;
};

}  // namespace nti::host
