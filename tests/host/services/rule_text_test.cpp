#include "host/services/rule_text.h"

#include <gtest/gtest.h>

#include <string>

namespace nti::host {
namespace {

using dwi::firewall::IpNetwork;
using dwi::firewall::NflogRule;
using dwi::firewall::QueueRule;

IpNetwork V4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d, std::uint8_t prefix) {
    IpNetwork n;
    n.family = 4;
    n.address = {a, b, c, d};
    n.prefixLength = prefix;
    return n;
}

IpNetwork V6Net(std::uint8_t last, std::uint8_t prefix) {
    IpNetwork n;
    n.family = 6;
    n.address = {0xfd, 0x00, 0x01, 0x98, 0x00, 0x18};
    n.address[15] = last;
    n.prefixLength = prefix;
    return n;
}

QueueRule Queue(std::uint32_t direction, std::uint16_t queue) {
    QueueRule r;
    r.direction = direction;
    r.queueNumber = queue;
    return r;
}

struct RenderCase {
    const char* name;
    dwi::firewall::Rule rule;
    const char* v4;  // nullptr: no IPv4 rule
    const char* v6;  // nullptr: no IPv6 rule
    // The nftables rule for the first family that has one: the same packets.
    const char* nft;
};

// What iptables-save prints for each record: the text is used for deletion,
// so it has to match byte for byte.
std::vector<RenderCase> RenderCases() {
    std::vector<RenderCase> cases;
    const auto add = [&](const char* name, dwi::firewall::Rule rule, const char* v4, const char* v6,
                         const char* nft) {
        cases.push_back({name, std::move(rule), v4, v6, nft});
    };

    add("inbound any", Queue(0, 1000),
        "NTI_IN -m comment --comment \"nti:7:svc\" -j NFQUEUE --queue-num 1000 --queue-bypass",
        "NTI_IN -m comment --comment \"nti:7:svc\" -j NFQUEUE --queue-num 1000 --queue-bypass",
        "input meta nfproto ipv4 queue num 1000 bypass comment \"nti:7:svc\"");
    {
        QueueRule r = Queue(0, 1000);
        r.protocol = 17;
        r.localAddress = V4(198, 18, 0, 2, 32);
        r.remoteAddress = V4(198, 18, 7, 9, 15);
        r.localPorts = {5000, 5000};
        r.remotePorts = {1024, 2048};
        r.interfaceName = "veth0";
        add("inbound udp with addresses and ports", r,
            "NTI_IN -s 198.18.0.0/15 -d 198.18.0.2/32 -i veth0 -p udp -m udp --sport 1024:2048 "
            "--dport 5000 -m comment --comment \"nti:7:svc\" -j NFQUEUE --queue-num 1000 "
            "--queue-bypass",
            nullptr,
            "input meta nfproto ipv4 ip saddr 198.18.0.0/15 ip daddr 198.18.0.2/32 iifname "
            "\"veth0\" meta l4proto 17 th sport 1024-2048 th dport 5000 queue num 1000 bypass "
            "comment \"nti:7:svc\"");
    }
    {
        QueueRule r = Queue(dwi::firewall::kOutbound, 1001);
        r.protocol = 6;
        r.localAddress = V4(198, 18, 0, 2, 32);
        r.localPorts = {80, 0};
        r.interfaceName = "veth0";
        add("outbound tcp: local is the source", r,
            "NTI_OUT -s 198.18.0.2/32 -o veth0 -p tcp -m tcp --sport 80 -m comment --comment "
            "\"nti:7:svc\" -j NFQUEUE --queue-num 1001 --queue-bypass",
            nullptr,
            "output meta nfproto ipv4 ip saddr 198.18.0.2/32 oifname \"veth0\" meta l4proto 6 "
            "th sport 80 queue num 1001 bypass comment \"nti:7:svc\"");
    }
    {
        QueueRule r = Queue(dwi::firewall::kForwarded, 1000);
        r.interfaceName = "in0";
        r.protocol = 1;
        add("forwarded in by input interface; icmp is IPv4 only", r,
            "NTI_FWD -i in0 -p icmp -m comment --comment \"nti:7:svc\" -j NFQUEUE --queue-num "
            "1000 --queue-bypass",
            nullptr,
            "forward meta nfproto ipv4 iifname \"in0\" meta l4proto 1 queue num 1000 bypass "
            "comment \"nti:7:svc\"");
    }
    {
        QueueRule r = Queue(dwi::firewall::kForwarded | dwi::firewall::kOutbound, 1001);
        r.interfaceName = "out0";
        r.protocol = 58;
        r.remoteAddress = V6Net(0x99, 64);
        add("forwarded out by output interface; ipv6-icmp is IPv6 only", r, nullptr,
            "NTI_FWD -d fd00:198:18::/64 -o out0 -p ipv6-icmp -m comment --comment \"nti:7:svc\" "
            "-j NFQUEUE --queue-num 1001 --queue-bypass",
            "forward meta nfproto ipv6 ip6 daddr fd00:198:18::/64 oifname \"out0\" meta l4proto "
            "58 queue num 1001 bypass comment \"nti:7:svc\"");
    }
    {
        QueueRule r = Queue(0, 1000);
        r.family = 4;
        r.protocol = 47;
        add("family 4 and a numeric protocol", r,
            "NTI_IN -p 47 -m comment --comment \"nti:7:svc\" -j NFQUEUE --queue-num 1000 "
            "--queue-bypass",
            nullptr,
            "input meta nfproto ipv4 meta l4proto 47 queue num 1000 bypass comment \"nti:7:svc\"");
    }
    {
        QueueRule r = Queue(0, 1000);
        r.family = 6;
        r.localAddress = V6Net(2, 128);
        add("family 6 host address", r, nullptr,
            "NTI_IN -d fd00:198:18::2/128 -m comment --comment \"nti:7:svc\" -j NFQUEUE "
            "--queue-num 1000 --queue-bypass",
            "input meta nfproto ipv6 ip6 daddr fd00:198:18::2/128 queue num 1000 bypass comment "
            "\"nti:7:svc\"");
    }
    {
        NflogRule r;
        r.name = "zolt_stats_in";
        r.chain = dwi::firewall::kChainInput;
        r.nflogGroup = 10000;
        r.bypassMark = 0x4000;
        r.bypassMarkSet = true;
        r.excludeLoopback = true;
        r.excludeMulticast = true;
        add("nflog input with every exclusion", r,
            "NTI_IN ! -i lo -m mark ! --mark 0x4000 -m addrtype ! --dst-type MULTICAST -m "
            "addrtype ! --dst-type BROADCAST -m comment --comment \"nti:7:svc\" -j NFLOG "
            "--nflog-group 10000",
            "NTI_IN ! -i lo -m mark ! --mark 0x4000 -m addrtype ! --dst-type MULTICAST -m comment "
            "--comment \"nti:7:svc\" -j NFLOG --nflog-group 10000",
            "input meta nfproto ipv4 iifname != \"lo\" meta mark != 0x4000 fib daddr type != { "
            "multicast, broadcast } log group 10000 comment \"nti:7:svc\"");
    }
    {
        NflogRule r;
        r.chain = dwi::firewall::kChainOutput;
        r.nflogGroup = 5;
        r.excludeLoopback = true;
        r.ipVersion = 4;
        add("nflog output, IPv4 only", r,
            "NTI_OUT ! -o lo -m comment --comment \"nti:7:svc\" -j NFLOG --nflog-group 5", nullptr,
            "output meta nfproto ipv4 oifname != \"lo\" log group 5 comment \"nti:7:svc\"");
    }
    {
        NflogRule r;
        r.chain = dwi::firewall::kChainForward;
        r.nflogGroup = 10000;
        r.bypassMark = 0;
        r.bypassMarkSet = true;
        add("nflog forward, mark 0 still excluded when set", r,
            "NTI_FWD -m mark ! --mark 0x0 -m comment --comment \"nti:7:svc\" -j NFLOG "
            "--nflog-group 10000",
            "NTI_FWD -m mark ! --mark 0x0 -m comment --comment \"nti:7:svc\" -j NFLOG "
            "--nflog-group 10000",
            "forward meta nfproto ipv4 meta mark != 0x0 log group 10000 comment \"nti:7:svc\"");
    }
    return cases;
}

TEST(RenderRuleTest, PrintsRulesAsIptablesSaveAndNftablesWantThem) {
    for (const RenderCase& c : RenderCases()) {
        SCOPED_TRACE(c.name);
        for (auto [family, expected] :
             {std::pair{IpFamily::kIpv4, c.v4}, std::pair{IpFamily::kIpv6, c.v6}}) {
            std::optional<RuleText> text;
            ASSERT_EQ(RenderRule(c.rule, family, "nti:7:svc", false, text), 0);
            if (expected == nullptr) {
                EXPECT_FALSE(text) << text->spec;
                continue;
            }
            ASSERT_TRUE(text);
            EXPECT_EQ(text->chain + " " + text->spec, expected);
        }
        const IpFamily first = c.v4 != nullptr ? IpFamily::kIpv4 : IpFamily::kIpv6;
        std::optional<RuleText> nft;
        ASSERT_EQ(RenderNftRule(c.rule, first, "nti:7:svc", false, nft), 0);
        ASSERT_TRUE(nft);
        EXPECT_EQ(nft->chain + " " + nft->spec, c.nft);
    }
}

TEST(RenderRuleTest, FailClosedLeavesOutBypass) {
    std::optional<RuleText> text;
    ASSERT_EQ(RenderRule(Queue(0, 3), IpFamily::kIpv4, "c", true, text), 0);
    ASSERT_TRUE(text);
    EXPECT_EQ(text->spec, "-m comment --comment \"c\" -j NFQUEUE --queue-num 3");
}

TEST(RenderRuleTest, QueueRulesAppendAndNflogRulesGoFirst) {
    std::optional<RuleText> queue;
    std::optional<RuleText> nflog;
    NflogRule log;
    log.chain = dwi::firewall::kChainInput;
    ASSERT_EQ(RenderRule(Queue(0, 3), IpFamily::kIpv4, "c", false, queue), 0);
    ASSERT_EQ(RenderRule(log, IpFamily::kIpv4, "c", false, nflog), 0);
    EXPECT_EQ(AddCommand(*queue), "-A NTI_IN " + queue->spec);
    EXPECT_EQ(AddCommand(*nflog), "-I NTI_IN 1 " + nflog->spec);
    EXPECT_EQ(DeleteCommand(*nflog), "-D NTI_IN " + nflog->spec);
}

TEST(RenderRuleTest, RejectsRecordsNoFamilyCanTake) {
    std::vector<std::pair<const char*, dwi::firewall::Rule>> bad;
    bad.emplace_back("empty variant", std::monostate{});
    bad.emplace_back("unknown direction bit", Queue(4, 1));
    {
        QueueRule r = Queue(0, 1);
        r.localPorts = {53, 53};
        bad.emplace_back("ports without protocol", r);
        r.protocol = 1;
        bad.emplace_back("ports with icmp", r);
    }
    {
        QueueRule r = Queue(0, 1);
        r.localAddress = V4(198, 18, 0, 1, 32);
        r.remoteAddress = V6Net(1, 64);
        bad.emplace_back("mixed address families", r);
    }
    {
        QueueRule r = Queue(0, 1);
        r.family = 6;
        r.protocol = 1;
        bad.emplace_back("icmp on IPv6 only", r);
    }
    {
        QueueRule r = Queue(0, 1);
        r.localAddress = V4(198, 18, 0, 1, 33);
        bad.emplace_back("IPv4 prefix over 32", r);
    }
    {
        QueueRule r = Queue(0, 1);
        r.family = 5;
        bad.emplace_back("family 5", r);
    }
    {
        QueueRule r = Queue(0, 1);
        r.protocol = 6;
        r.remotePorts = {90, 80};
        bad.emplace_back("reversed port range", r);
    }
    {
        QueueRule r = Queue(0, 1);
        r.interfaceName = "eth0 -j ACCEPT";
        bad.emplace_back("interface name with blanks", r);
        r.interfaceName = "sixteen-chars-xx";
        bad.emplace_back("interface name too long", r);
    }
    {
        NflogRule r;
        r.chain = 1;
        bad.emplace_back("nflog chain code 1", r);
        r.chain = dwi::firewall::kChainInput;
        r.ipVersion = 5;
        bad.emplace_back("nflog ipVersion 5", r);
    }
    for (const auto& [name, rule] : bad) {
        SCOPED_TRACE(name);
        for (IpFamily family : {IpFamily::kIpv4, IpFamily::kIpv6}) {
            std::optional<RuleText> text;
            EXPECT_EQ(RenderRule(rule, family, "c", false, text), qor::errors::kInvalidArgument);
            EXPECT_FALSE(text);
        }
    }
}

TEST(RuleCommentTest, CarriesOwnerTagAndName) {
    EXPECT_EQ(RuleComment(42, "svc"), "nti:42:svc");
    EXPECT_EQ(RuleComment(42, "zolt_stats", "zolt_stats_in"), "nti:42:zolt_stats:zolt_stats_in");
}

TEST(ValidTagTest, AcceptsOnlyPlainNames) {
    EXPECT_TRUE(ValidTag("zolt_stats"));
    EXPECT_TRUE(ValidTag("svc-1.a@b"));
    EXPECT_FALSE(ValidTag(""));
    EXPECT_FALSE(ValidTag("two words"));
    EXPECT_FALSE(ValidTag("quote\""));
    EXPECT_FALSE(ValidTag(std::string(201, 'a')));
}

TEST(RestoreScriptTest, WrapsCommandsInFilterTable) {
    EXPECT_EQ(RestoreScript({"-A NTI_IN x", "-D NTI_IN y"}),
              "*filter\n-A NTI_IN x\n-D NTI_IN y\nCOMMIT\n");
}

TEST(SetupCommandsTest, CreatesMissingChainsAndJumps) {
    const std::string save =
        "# Generated by iptables-save\n*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n"
        ":OUTPUT ACCEPT [0:0]\n:NTI_IN - [0:0]\n-A INPUT -j NTI_IN\nCOMMIT\n";
    EXPECT_EQ(SetupCommands(save, [](pid_t) { return true; }),
              (std::vector<std::string>{":NTI_OUT - [0:0]", ":NTI_FWD - [0:0]",
                                        "-I OUTPUT 1 -j NTI_OUT", "-I FORWARD 1 -j NTI_FWD"}));
}

TEST(SetupCommandsTest, DeletesOnlyRulesOfDeadOwnersInOurChains) {
    const std::string save =
        "*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n:OUTPUT ACCEPT [0:0]\n"
        ":NTI_FWD - [0:0]\n:NTI_IN - [0:0]\n:NTI_OUT - [0:0]\n"
        "-A INPUT -j NTI_IN\n-A FORWARD -j NTI_FWD\n-A OUTPUT -j NTI_OUT\n"
        "-A INPUT -m comment --comment \"nti:100:x\" -j ACCEPT\n"
        "-A NTI_IN -m comment --comment \"nti:100:a\" -j NFQUEUE --queue-num 1\n"
        "-A NTI_IN -m comment --comment \"nti:200:b\" -j NFQUEUE --queue-num 2\n"
        "-A NTI_OUT -m comment --comment nti:100:c:n -j NFLOG --nflog-group 3\n"
        "-A NTI_OUT -m comment --comment \"other\" -j ACCEPT\n"
        "-A NTI_FWD -m comment --comment \"nti:notapid:x\" -j ACCEPT\n"
        "COMMIT\n";
    std::vector<pid_t> asked;
    const auto commands = SetupCommands(save, [&](pid_t pid) {
        asked.push_back(pid);
        return pid == 200;
    });
    EXPECT_EQ(commands,
              (std::vector<std::string>{
                  "-D NTI_IN -m comment --comment \"nti:100:a\" -j NFQUEUE --queue-num 1",
                  "-D NTI_OUT -m comment --comment nti:100:c:n -j NFLOG --nflog-group 3"}));
    EXPECT_EQ(asked, (std::vector<pid_t>{100, 200, 100}));
}

}  // namespace
}  // namespace nti::host
