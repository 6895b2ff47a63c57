// IptablesRules against the real iptables, each test in a network namespace
// of its own (the test process leaves its namespace by unshare).
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "host/services/iptables_rules.h"
#include "host/services/process.h"

namespace nti::host {
namespace {

using dwi::firewall::NflogRule;
using dwi::firewall::QueueRule;

std::string Save(const char* program) {
    ProcessOutput out;
    EXPECT_EQ(RunProcess({program, "-t", "filter"}, {}, out), 0);
    EXPECT_EQ(out.exitCode, 0) << out.err;
    return out.out;
}

// Lines of the save output in our chains and jumps, in order.
std::vector<std::string> OurLines(const char* program) {
    std::vector<std::string> lines;
    std::istringstream in(Save(program));
    for (std::string line; std::getline(in, line);) {
        if (line.find("NTI_") != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

class DynamicRulesNetnsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << "needs CAP_SYS_ADMIN"; }

    static QueueRule Udp(std::uint32_t direction, std::uint16_t queue, std::uint16_t port) {
        QueueRule r;
        r.direction = direction;
        r.queueNumber = queue;
        r.protocol = 17;
        r.localPorts = {port, port};
        return r;
    }
    static NflogRule Log(std::uint8_t chain, const char* name) {
        NflogRule r;
        r.name = name;
        r.chain = chain;
        r.nflogGroup = 10000;
        r.bypassMark = 0x10;
        r.bypassMarkSet = true;
        return r;
    }
    qor::object::ImplPtr<IptablesRules> Make(FirewallOptions options = {}) {
        auto rules = qor::object::Create<IptablesRules>(std::move(options), nullptr);
        EXPECT_EQ(rules->Initialize(), 0);
        return rules;
    }
    const std::string m_me = std::to_string(::getpid());
};

TEST_F(DynamicRulesNetnsTest, ChainsLiveWhileAnyRunHasARuleInThem) {
    auto first = Make();
    auto second = Make();
    const std::vector<std::string> expected = {":NTI_FWD - [0:0]",      ":NTI_IN - [0:0]",
                                               ":NTI_OUT - [0:0]",      "-A INPUT -j NTI_IN",
                                               "-A FORWARD -j NTI_FWD", "-A OUTPUT -j NTI_OUT"};
    EXPECT_EQ(OurLines("iptables-save"), expected);
    EXPECT_EQ(OurLines("ip6tables-save"), expected);

    ASSERT_EQ(second->AddRules({Udp(0, 7, 9)}, "x"), 0);
    first = nullptr;
    const std::string rule =
        "-A NTI_IN -p udp -m udp --dport 9 -m comment --comment \"nti:" + m_me +
        ":x\" -j NFQUEUE --queue-num 7 --queue-bypass";
    const std::vector<std::string> inOnly = {":NTI_IN - [0:0]", "-A INPUT -j NTI_IN", rule};
    EXPECT_EQ(OurLines("iptables-save"), inOnly);
    // The chains the first run removed come back for the next rule.
    ASSERT_EQ(second->AddRules({Udp(dwi::firewall::kOutbound, 7, 9)}, "x"), 0);
    EXPECT_EQ(OurLines("iptables-save").size(), 8u);
    second = nullptr;
    EXPECT_EQ(OurLines("iptables-save"), std::vector<std::string>{});
    EXPECT_EQ(OurLines("ip6tables-save"), std::vector<std::string>{});
}

TEST_F(DynamicRulesNetnsTest, AddsAndRemovesExactlyTheNamedRecords) {
    auto rules = Make();
    const dwi::firewall::Rules a = {Udp(0, 1000, 53), Log(dwi::firewall::kChainInput, "log_in")};
    const dwi::firewall::Rules b = {Udp(dwi::firewall::kOutbound, 1001, 53)};
    ASSERT_EQ(rules->AddRules(a, "svc_a"), 0);
    ASSERT_EQ(rules->AddRules(b, "svc_b"), 0);
    const std::string c = "\"nti:" + m_me;
    const std::vector<std::string> both = {
        "-A INPUT -j NTI_IN",
        "-A FORWARD -j NTI_FWD",
        "-A OUTPUT -j NTI_OUT",
        "-A NTI_IN -m mark ! --mark 0x10 -m comment --comment " + c +
            ":svc_a:log_in\" -j NFLOG --nflog-group 10000",
        "-A NTI_IN -p udp -m udp --dport 53 -m comment --comment " + c +
            ":svc_a\" -j NFQUEUE --queue-num 1000 --queue-bypass",
        "-A NTI_OUT -p udp -m udp --sport 53 -m comment --comment " + c +
            ":svc_b\" -j NFQUEUE --queue-num 1001 --queue-bypass"};
    auto withoutChains = [](std::vector<std::string> lines) {
        std::erase_if(lines, [](const std::string& l) { return l.starts_with(":"); });
        return lines;
    };
    EXPECT_EQ(withoutChains(OurLines("iptables-save")), both);
    EXPECT_EQ(withoutChains(OurLines("ip6tables-save")), both);
    EXPECT_EQ(rules->InstalledCount(), 3u);

    // Only the queue rule of svc_a goes; the same record again is not there.
    ASSERT_EQ(rules->RemoveRules({a[0]}), 0);
    EXPECT_EQ(rules->RemoveRules({a[0]}), qor::errors::kFalse);
    std::vector<std::string> left = both;
    left.erase(left.begin() + 4);
    EXPECT_EQ(withoutChains(OurLines("iptables-save")), left);

    // Identical records of two calls are removed one at a time.
    ASSERT_EQ(rules->AddRules({a[0]}, "svc_a"), 0);
    ASSERT_EQ(rules->AddRules({a[0]}, "svc_a"), 0);
    ASSERT_EQ(rules->RemoveRules({a[0]}), 0);
    EXPECT_EQ(withoutChains(OurLines("iptables-save")), both);
    EXPECT_EQ(rules->InstalledCount(), 3u);

    // Destruction removes what is still installed, then the chains and jumps.
    rules = nullptr;
    EXPECT_EQ(OurLines("iptables-save"), std::vector<std::string>{});
    EXPECT_EQ(OurLines("ip6tables-save"), std::vector<std::string>{});
}

// After each failure only the chains and jumps are there.
TEST_F(DynamicRulesNetnsTest, FailuresLeaveNoRuleBehind) {
    auto rules = Make();
    QueueRule portsWithoutProtocol;
    portsWithoutProtocol.localPorts = {1, 1};
    EXPECT_EQ(rules->AddRules({Udp(0, 1, 1), portsWithoutProtocol}, "x"),
              qor::errors::kInvalidArgument);
    EXPECT_EQ(rules->InstalledCount(), 0u);
    EXPECT_EQ(OurLines("iptables-save").size(), 6u);

    // A rule deleted behind its back does not keep the others.
    const dwi::firewall::Rules r = {Udp(0, 7, 9), Udp(0, 7, 10)};
    ASSERT_EQ(rules->AddRules(r, "x"), 0);
    ProcessOutput out;
    ASSERT_EQ(RunProcess({"iptables-restore", "--noflush"},
                         "*filter\n-D NTI_IN -p udp -m udp --dport 9 -m comment --comment \"nti:" +
                             m_me + ":x\" -j NFQUEUE --queue-num 7 --queue-bypass\nCOMMIT\n",
                         out),
              0);
    ASSERT_EQ(out.exitCode, 0) << out.err;
    EXPECT_EQ(rules->RemoveRules(r), qor::errors::kUnspecified);
    EXPECT_EQ(OurLines("iptables-save").size(), 6u);
    EXPECT_EQ(OurLines("ip6tables-save").size(), 6u);
    EXPECT_EQ(rules->InstalledCount(), 0u);

    // A rule whose deletion failed is deleted again on the way out.
    const std::string gate = "/tmp/nti-restore-gate-" + m_me;
    FirewallOptions gated;
    {
        std::ofstream(gate + ".sh")
            << "#!/bin/sh\n[ -e " << gate << " ] && exit 1; exec ip6tables-restore \"$@\"\n";
        gated.ipv6Restore = gate + ".sh";
        ::chmod(gated.ipv6Restore.c_str(), 0755);
        auto later = Make(gated);
        ASSERT_EQ(later->AddRules({Udp(0, 7, 11)}, "x"), 0);
        std::ofstream{gate};
        EXPECT_EQ(later->RemoveRules({Udp(0, 7, 11)}), qor::errors::kUnspecified);
        EXPECT_EQ(later->InstalledCount(), 0u);
        EXPECT_EQ(OurLines("ip6tables-save").size(), 7u);
        std::filesystem::remove(gate);
    }
    std::filesystem::remove(gate + ".sh");
    EXPECT_EQ(OurLines("ip6tables-save"), std::vector<std::string>{});

    // A failed IPv6 run takes its IPv4 rules back out.
    FirewallOptions options;
    options.ipv6Restore = "false";
    auto failing = qor::object::Create<IptablesRules>(options, nullptr);
    EXPECT_EQ(failing->AddRules({Udp(0, 7, 9)}, "x"), qor::errors::kUnspecified);
    EXPECT_EQ(failing->InstalledCount(), 0u);
    EXPECT_EQ(OurLines("iptables-save").size(), 6u);
    // IPv4-only records never run the IPv6 program.
    NflogRule v4 = Log(dwi::firewall::kChainForward, "fwd");
    v4.ipVersion = 4;
    EXPECT_EQ(failing->AddRules({v4}, "x"), 0);
    EXPECT_EQ(OurLines("iptables-save").size(), 7u);
}

TEST_F(DynamicRulesNetnsTest, ExceptionEscapingAThreadRemovesRulesAndChainsBeforeTheAbort) {
    const pid_t child = ::fork();
    if (child == 0) {
        InstallTerminateCleanup();
        auto rules = qor::object::Create<IptablesRules>(FirewallOptions{}, nullptr);
        if (rules->Initialize() != 0 || rules->AddRules({Udp(0, 7, 9)}, "x") != 0) {
            ::_exit(3);
        }
        std::thread([] { throw std::runtime_error("escaped"); }).join();
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_EQ(OurLines("iptables-save"), std::vector<std::string>{});
    EXPECT_EQ(OurLines("ip6tables-save"), std::vector<std::string>{});
}

}  // namespace
}  // namespace nti::host
