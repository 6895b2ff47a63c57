// Test network namespaces and the programs run in them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace nti::test {

// RunIn runs a program in network namespace `ns` and returns its exit code;
// its output goes to `out` when given.
int RunIn(const std::string& ns, const std::vector<std::string>& argv, std::string* out = nullptr);

// NetnsPair makes the namespaces "<prefix>-gen" and "<prefix>-dut" joined by a
// veth pair g0/d0: gen 198.18.<n>.1/30 and fd00:198:18::1/64, dut
// 198.18.<n>.2/30 and fd00:198:18::2/64. Both go away with the object.
class NetnsPair {
public:
    explicit NetnsPair(const std::string& purpose);
    ~NetnsPair();
    NetnsPair(const NetnsPair&) = delete;
    NetnsPair& operator=(const NetnsPair&) = delete;

    bool Ok() const { return m_ok; }
    const std::string& Gen() const { return m_gen; }
    const std::string& Dut() const { return m_dut; }
    static constexpr const char* kGen4 = "198.18.0.1";
    static constexpr const char* kDut4 = "198.18.0.2";
    static constexpr const char* kGen6 = "fd00:198:18::1";
    static constexpr const char* kDut6 = "fd00:198:18::2";

private:
    std::string m_gen;
    std::string m_dut;
    bool m_ok = false;
};

// UdpSocket is a UDP socket made inside a namespace; it stays there.
class UdpSocket {
public:
    UdpSocket(const std::string& ns, int family, const std::string& address, std::uint16_t port);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool Ok() const { return m_fd >= 0; }
    bool SendTo(const std::string& address, std::uint16_t port, const std::string& payload);
    // Receive waits up to `timeout` for one datagram; false when none came.
    bool Receive(std::string& payload, std::chrono::milliseconds timeout);

private:
    int m_fd = -1;
    int m_family;
};

// Program is a child process with its output read through pipes; killed
// and reaped with the object when still running.
class Program {
public:
    explicit Program(const std::vector<std::string>& argv);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t Pid() const { return m_pid; }
    // WaitForError reads standard error until a line contains `text`.
    bool WaitForError(const std::string& text, std::chrono::milliseconds timeout);
    void Signal(int signal);
    // CloseOutput closes the reading end of the program's standard output.
    void CloseOutput();
    // Wait reaps the program; -1 when it is still running at the timeout.
    int Wait(std::chrono::milliseconds timeout);
    // Lines of standard output so far (all of it after Wait).
    std::vector<std::string> OutputLines();
    const std::string& Error() const { return m_err; }

private:
    bool Pump(std::chrono::milliseconds timeout);

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err_fd = -1;
    std::string m_outText;
    std::string m_err;
    bool m_reaped = false;
    int m_exit = -1;
};

}  // namespace nti::test
