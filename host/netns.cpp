#include "host/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace nti::host {

int RunCommand(const std::vector<std::string>& argv, std::string* output) {
    if (argv.empty()) {
        return -1;
    }
    int pipeFds[2] = {-1, -1};
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return -1;
    }
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    // Built before the fork: the child may only make async-signal-safe calls.
    const std::string notFound = argv[0] + ": not found (is it installed?)\n";
    const std::string cannotRun = argv[0] + ": cannot be run\n";
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        return -1;
    }
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        const int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) {
            dup2(devnull, STDIN_FILENO);
        }
        execvp(args[0], args.data());
        // Without this the caller's message would end in an empty reason.
        const std::string& why = errno == ENOENT ? notFound : cannotRun;
        [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, why.data(), why.size());
        _exit(127);
    }
    close(pipeFds[1]);
    std::string captured;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(pipeFds[0], buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        captured.append(buf, static_cast<std::size_t>(n));
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (output != nullptr) {
        *output = std::move(captured);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool HasNetAdmin() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("CapEff:", 0) == 0) {
            const unsigned long long caps = std::stoull(line.substr(7), nullptr, 16);
            constexpr int kCapNetAdmin = 12;
            return (caps >> kCapNetAdmin) & 1ull;
        }
    }
    return false;
}

bool NetworkNamespace::Create(const std::string& name, std::string& error) {
    std::string output;
    if (RunCommand({"ip", "netns", "add", name}, &output) != 0) {
        error = "cannot create network namespace " + name + ": " + output;
        return false;
    }
    m_name = name;
    if (Ip({"link", "set", "lo", "up"}, &output) != 0) {
        error = "cannot bring up loopback in " + name + ": " + output;
        return false;
    }
    return true;
}

NetworkNamespace::~NetworkNamespace() {
    if (!m_name.empty()) {
        RunCommand({"ip", "netns", "del", m_name});
    }
}

int NetworkNamespace::Run(const std::vector<std::string>& argv, std::string* output) const {
    std::vector<std::string> full = {"ip", "netns", "exec", m_name};
    full.insert(full.end(), argv.begin(), argv.end());
    return RunCommand(full, output);
}

int NetworkNamespace::Ip(const std::vector<std::string>& args, std::string* output) const {
    std::vector<std::string> full = {"ip", "-n", m_name};
    full.insert(full.end(), args.begin(), args.end());
    return RunCommand(full, output);
}

ScopedNetnsEnter::ScopedNetnsEnter(const std::string& name) {
    m_previous = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const std::string path = "/run/netns/" + name;
    const int target = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_previous < 0 || target < 0) {
        m_error = "cannot open namespace " + path + ": " + std::strerror(errno);
    } else if (setns(target, CLONE_NEWNET) != 0) {
        m_error = "cannot enter namespace " + name + ": " + std::strerror(errno);
    } else {
        m_ok = true;
    }
    if (target >= 0) {
        close(target);
    }
}

ScopedNetnsEnter::~ScopedNetnsEnter() {
    if (m_ok) {
        setns(m_previous, CLONE_NEWNET);
    }
    if (m_previous >= 0) {
        close(m_previous);
    }
}

}  // namespace nti::host
