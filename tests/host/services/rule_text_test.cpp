#include "host/services/rule_text.h"

#include <gtest/gtest.h>

#include <string>

#include "host/cli/commands/intercept_options.h"

// Records are written with designated initializers: the fields left out keep
// their defaults, which is the point of each case.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace nti::host {
namespace {

using dwi::firewall::IpNetwork;
using dwi::firewall::NflogRule;
using dwi::firewall::QueueRule;

// Net is "address/prefix" as a record.
IpNetwork Net(const char* text) {
    return *ParseNetwork(text);
}

struct RenderCase {
    const char* name;
    dwi::firewall::Rule rule;
    std::string v4;  // empty: no IPv4 rule
    std::string v6;  // empty: no IPv6 rule
    // The nftables rule for the first family that has one: the same packets.
    std::string nft;
};

const std::string kComment = " -m comment --comment \"nti:7:svc\"";
const std::string kNftComment = " comment \"nti:7:svc\"";
std::string Queue(int number) {
    return kComment + " -j NFQUEUE --queue-num " + std::to_string(number) + " --queue-bypass";
}

// What iptables-save prints for each record: the text is used for deletion,
// so it has to match byte for byte.
const RenderCase kRenderCases[] = {
    {"inbound any", QueueRule{.queueNumber = 1000}, "NTI_IN" + Queue(1000), "NTI_IN" + Queue(1000),
     "input meta nfproto ipv4 queue num 1000 bypass" + kNftComment},
    {"inbound udp with addresses and ports",
     QueueRule{.queueNumber = 1000,
               .protocol = 17,
               .localAddress = Net("198.18.0.2/32"),
               .remoteAddress = Net("198.18.7.9/15"),
               .localPorts = {5000, 5000},
               .remotePorts = {1024, 2048},
               .interfaceName = "veth0"},
     "NTI_IN -s 198.18.0.0/15 -d 198.18.0.2/32 -i veth0 -p udp -m udp --sport 1024:2048 "
     "--dport 5000" +
         Queue(1000),
     "",
     "input meta nfproto ipv4 ip saddr 198.18.0.0/15 ip daddr 198.18.0.2/32 iifname "
     "\"veth0\" meta l4proto 17 th sport 1024-2048 th dport 5000 queue num 1000 bypass" +
         kNftComment},
    {"outbound tcp: local is the source",
     QueueRule{.direction = dwi::firewall::kOutbound,
               .queueNumber = 1001,
               .protocol = 6,
               .localAddress = Net("198.18.0.2/32"),
               .localPorts = {80, 0},
               .interfaceName = "veth0"},
     "NTI_OUT -s 198.18.0.2/32 -o veth0 -p tcp -m tcp --sport 80" + Queue(1001), "",
     "output meta nfproto ipv4 ip saddr 198.18.0.2/32 oifname \"veth0\" meta l4proto 6 "
     "th sport 80 queue num 1001 bypass" +
         kNftComment},
    {"forwarded in by input interface; icmp is IPv4 only",
     QueueRule{.direction = dwi::firewall::kForwarded,
               .queueNumber = 1000,
               .protocol = 1,
               .interfaceName = "in0"},
     "NTI_FWD -i in0 -p icmp" + Queue(1000), "",
     "forward meta nfproto ipv4 iifname \"in0\" meta l4proto 1 queue num 1000 bypass" +
         kNftComment},
    {"forwarded out by output interface; ipv6-icmp is IPv6 only",
     QueueRule{.direction = dwi::firewall::kForwarded | dwi::firewall::kOutbound,
               .queueNumber = 1001,
               .protocol = 58,
               .remoteAddress = Net("fd00:198:18::99/64"),
               .interfaceName = "out0"},
     "", "NTI_FWD -d fd00:198:18::/64 -o out0 -p ipv6-icmp" + Queue(1001),
     "forward meta nfproto ipv6 ip6 daddr fd00:198:18::/64 oifname \"out0\" meta l4proto "
     "58 queue num 1001 bypass" +
         kNftComment},
    {"nflog input with every exclusion",
     NflogRule{.name = "zolt_stats_in",
               .chain = dwi::firewall::kChainInput,
               .nflogGroup = 10000,
               .bypassMark = 0x4000,
               .bypassMarkSet = true,
               .excludeLoopback = true,
               .excludeMulticast = true},
     "NTI_IN ! -i lo -m mark ! --mark 0x4000 -m addrtype ! --dst-type MULTICAST -m "
     "addrtype ! --dst-type BROADCAST" +
         kComment + " -j NFLOG --nflog-group 10000",
     "NTI_IN ! -i lo -m mark ! --mark 0x4000 -m addrtype ! --dst-type MULTICAST" + kComment +
         " -j NFLOG --nflog-group 10000",
     "input meta nfproto ipv4 iifname != \"lo\" meta mark != 0x4000 fib daddr type != { "
     "multicast, broadcast } log group 10000" +
         kNftComment},
    {"nflog forward, mark 0 still excluded when set",
     NflogRule{.chain = dwi::firewall::kChainForward, .nflogGroup = 10000, .bypassMarkSet = true},
     "NTI_FWD -m mark ! --mark 0x0" + kComment + " -j NFLOG --nflog-group 10000",
     "NTI_FWD -m mark ! --mark 0x0" + kComment + " -j NFLOG --nflog-group 10000",
     "forward meta nfproto ipv4 meta mark != 0x0 log group 10000" + kNftComment},
};

TEST(RenderRuleTest, PrintsRulesAsIptablesSaveAndNftablesWantThem) {
    for (const RenderCase& c : kRenderCases) {
        SCOPED_TRACE(c.name);
        for (auto [family, expected] :
             {std::pair{IpFamily::kIpv4, c.v4}, std::pair{IpFamily::kIpv6, c.v6}}) {
            std::optional<RuleText> text;
            ASSERT_EQ(RenderRule(c.rule, family, "nti:7:svc", false, text), 0);
            if (expected.empty()) {
                EXPECT_FALSE(text) << text->spec;
                continue;
            }
            ASSERT_TRUE(text);
            EXPECT_EQ(text->chain + " " + text->spec, expected);
        }
        const IpFamily first = !c.v4.empty() ? IpFamily::kIpv4 : IpFamily::kIpv6;
        std::optional<RuleText> nft;
        ASSERT_EQ(RenderNftRule(c.rule, first, "nti:7:svc", false, nft), 0);
        ASSERT_TRUE(nft);
        EXPECT_EQ(nft->chain + " " + nft->spec, c.nft);
    }
}

TEST(RenderRuleTest, QueueRulesAppendNflogRulesGoFirstAndFailClosedHasNoBypass) {
    std::optional<RuleText> queue;
    std::optional<RuleText> nflog;
    NflogRule log;
    log.chain = dwi::firewall::kChainInput;
    ASSERT_EQ(RenderRule(QueueRule{.queueNumber = 3}, IpFamily::kIpv4, "c", true, queue), 0);
    ASSERT_EQ(RenderRule(log, IpFamily::kIpv4, "c", false, nflog), 0);
    EXPECT_EQ(AddCommand(*queue), "-A NTI_IN -m comment --comment \"c\" -j NFQUEUE --queue-num 3");
    EXPECT_EQ(AddCommand(*nflog), "-I NTI_IN 1 " + nflog->spec);
    EXPECT_EQ(DeleteCommand(*nflog), "-D NTI_IN " + nflog->spec);
}

TEST(RenderRuleTest, RejectsRecordsNoFamilyCanTake) {
    using R = QueueRule;
    const std::pair<const char*, dwi::firewall::Rule> bad[] = {
        {"empty variant", std::monostate{}},
        {"unknown direction bit", R{.direction = 4}},
        {"ports without protocol", R{.localPorts = {53, 53}}},
        {"ports with icmp", R{.protocol = 1, .localPorts = {53, 53}}},
        {"mixed address families",
         R{.localAddress = Net("198.18.0.1/32"), .remoteAddress = Net("fd00:198:18::1/64")}},
        {"icmp on IPv6 only", R{.family = 6, .protocol = 1}},
        {"IPv4 prefix over 32", R{.localAddress = IpNetwork{4, {198, 18, 0, 1}, 33}}},
        {"reversed port range", R{.protocol = 6, .remotePorts = {90, 80}}},
        {"interface name with blanks", R{.interfaceName = "eth0 -j ACCEPT"}},
        {"nflog chain code 1", NflogRule{.chain = 1}},
    };
    for (const auto& [name, rule] : bad) {
        SCOPED_TRACE(name);
        for (IpFamily family : {IpFamily::kIpv4, IpFamily::kIpv6}) {
            std::optional<RuleText> text;
            EXPECT_EQ(RenderRule(rule, family, "c", false, text), qor::errors::kInvalidArgument);
            EXPECT_FALSE(text);
        }
    }
}

// A tag goes into iptables-restore input inside quotes.
TEST(ValidTagTest, AcceptsOnlyPlainNames) {
    for (const std::string tag : {"zolt_stats", "svc-1.a@b"}) {
        EXPECT_TRUE(ValidTag(tag)) << tag;
    }
    for (const std::string& tag :
         std::vector<std::string>{"", "two words", "quote\"", std::string(201, 'a')}) {
        EXPECT_FALSE(ValidTag(tag)) << tag;
    }
}

TEST(SetupCommandsTest, CreatesMissingChainsAndSweepsRulesOfDeadOwners) {
    const std::string save =
        "# Generated by iptables-save\n*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\n"
        ":OUTPUT ACCEPT [0:0]\n:NTI_IN - [0:0]\n-A INPUT -j NTI_IN\nCOMMIT\n";
    EXPECT_EQ(SetupCommands(save, [](pid_t) { return true; }),
              (std::vector<std::string>{":NTI_OUT - [0:0]", ":NTI_FWD - [0:0]",
                                        "-I OUTPUT 1 -j NTI_OUT", "-I FORWARD 1 -j NTI_FWD"}));

    // Only rules of dead owners in our chains are deleted.
    const std::string swept =
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
    const auto commands = SetupCommands(swept, [&](pid_t pid) {
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
