#include "host/services/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <pthread.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <utility>

extern char** environ;

namespace nti::host {

bool ProgramInPath(std::string_view name) {
    // nti never changes its environment: reading it is safe from any thread.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* path = std::getenv("PATH");
    std::string_view dirs = path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
    while (!dirs.empty()) {
        const auto colon = dirs.find(':');
        const std::string dir(dirs.substr(0, colon));
        if (!dir.empty() && access((dir + "/" + std::string(name)).c_str(), X_OK) == 0) {
            return true;
        }
        dirs = colon == std::string_view::npos ? std::string_view{} : dirs.substr(colon + 1);
    }
    return false;
}

namespace {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(Fd&& o) noexcept : m_fd(std::exchange(o.m_fd, -1)) {}
    Fd& operator=(Fd&& o) noexcept {
        Reset(std::exchange(o.m_fd, -1));
        return *this;
    }
    ~Fd() { Reset(); }
    void Reset(int fd = -1) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }
    int Get() const { return m_fd; }

private:
    int m_fd = -1;
};

struct Pipe {
    Fd read;
    Fd write;
};

[[nodiscard]] qor::result_t MakePipe(Pipe& p) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return qor::ErrnoToResult(errno);
    }
    p.read.Reset(fds[0]);
    p.write.Reset(fds[1]);
    return qor::errors::kOk;
}

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* Get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

// WriteNoSigpipe writes like write(2), but a reader that has gone away gives
// EPIPE instead of killing the process.
ssize_t WriteNoSigpipe(int fd, const char* data, std::size_t size) {
    sigset_t pipeSet;
    sigset_t old;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EPIPE) {
        const timespec zero{};
        while (::sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
        }
        errno = EPIPE;
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return n;
}

int ExitCodeOf(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

}  // namespace

[[nodiscard]] qor::result_t RunProcess(const std::vector<std::string>& argv, std::string_view input,
                                       ProcessOutput& output, std::chrono::milliseconds timeout) {
    output = {};
    if (argv.empty()) {
        return qor::errors::kInvalidArgument;
    }
    std::array<Pipe, 3> pipes;
    for (Pipe& p : pipes) {
        if (const qor::result_t r = MakePipe(p); !QOR_SUCCEEDED(r)) {
            return r;
        }
    }
    SpawnActions actions;
    posix_spawn_file_actions_adddup2(actions.Get(), pipes[0].read.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(actions.Get(), pipes[1].write.Get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.Get(), pipes[2].write.Get(), STDERR_FILENO);
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    if (const int e = ::posix_spawnp(&pid, args[0], actions.Get(), nullptr, args.data(), environ);
        e != 0) {
        return qor::ErrnoToResult(e);
    }
    pipes[0].read.Reset();
    pipes[1].write.Reset();
    pipes[2].write.Reset();
    ::fcntl(pipes[0].write.Get(), F_SETFL, O_NONBLOCK);

    // A child that never reads its input must not block us: the three pipes
    // are served together until both outputs reach EOF.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::size_t written = 0;
    if (input.empty()) {
        pipes[0].write.Reset();
    }
    bool timedOut = false;
    std::array<char, 4096> buffer;
    while (pipes[1].read.Get() >= 0 || pipes[2].read.Get() >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd fds[3] = {{pipes[0].write.Get(), POLLOUT, 0},
                         {pipes[1].read.Get(), POLLIN, 0},
                         {pipes[2].read.Get(), POLLIN, 0}};
        if (::poll(fds, 3, static_cast<int>(left.count())) < 0) {
            if (errno == EINTR) {
                continue;
            }
            ::kill(pid, SIGKILL);
            break;
        }
        if (fds[0].revents != 0) {
            const ssize_t n = WriteNoSigpipe(pipes[0].write.Get(), input.data() + written,
                                             input.size() - written);
            if (n > 0) {
                written += static_cast<std::size_t>(n);
            }
            if ((n < 0 && errno != EAGAIN && errno != EINTR) || written == input.size()) {
                pipes[0].write.Reset();
            }
        }
        for (int i = 1; i <= 2; ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            const ssize_t n = ::read(fds[i].fd, buffer.data(), buffer.size());
            if (n > 0) {
                (i == 1 ? output.out : output.err)
                    .append(buffer.data(), static_cast<std::size_t>(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                pipes[i].read.Reset();
            }
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    output.exitCode = ExitCodeOf(status);
    return timedOut ? qor::errors::kOperationTimeout : qor::errors::kOk;
}

}  // namespace nti::host
