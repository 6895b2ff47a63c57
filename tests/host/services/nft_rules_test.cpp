// NftRules against the kernel's nftables, in a network namespace of the test
// process's own. Only NFLOG rules: queue rules need the kernel's nft_queue.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "host/services/nft_rules.h"
#include "host/services/process.h"

namespace nti::host {
namespace {

// Count counts the lines of `text` that contain `what`.
std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

std::string Ruleset() {
    ProcessOutput out;
    EXPECT_EQ(RunProcess({"nft", "list", "ruleset"}, {}, out), 0);
    EXPECT_EQ(out.exitCode, 0) << out.err;
    return out.out;
}

dwi::firewall::NflogRule Log(std::uint8_t chain, const char* name) {
    dwi::firewall::NflogRule r;
    r.name = name;
    r.chain = chain;
    r.nflogGroup = 10000;
    return r;
}

TEST(NftRulesNetnsTest, RemovedRulesLeaveTheOwnedTableAtOnceAndTheTableGoesWithTheObject) {
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << "needs CAP_SYS_ADMIN";
    auto rules = qor::object::Create<NftRules>(false, nullptr);
    ASSERT_EQ(rules->Initialize(), 0);
    const std::string comment = "comment \"nti:" + std::to_string(::getpid()) + ":svc:";
    const dwi::firewall::Rules both = {Log(dwi::firewall::kChainInput, "log_in"),
                                       Log(dwi::firewall::kChainOutput, "log_out")};
    ASSERT_EQ(rules->AddRules(both, "svc"), 0);
    std::string listed = Ruleset();
    EXPECT_EQ(Count(listed, "table inet " + rules->Table() + " {"), 1u) << listed;
    EXPECT_EQ(Count(listed, "\tflags owner\n"), 1u) << listed;
    // One rule per family for each record.
    EXPECT_EQ(Count(listed, "log group 10000 " + comment + "log_in\"\n"), 2u) << listed;
    EXPECT_EQ(Count(listed, "log group 10000 " + comment + "log_out\"\n"), 2u) << listed;

    ASSERT_EQ(rules->RemoveRules({both[0]}), 0);
    EXPECT_EQ(rules->RemoveRules({both[0]}), qor::errors::kFalse);
    listed = Ruleset();
    EXPECT_EQ(Count(listed, "log_in"), 0u) << listed;
    EXPECT_EQ(Count(listed, "log_out"), 2u) << listed;
    EXPECT_EQ(rules->InstalledCount(), 1u);

    rules = nullptr;
    EXPECT_EQ(Ruleset().find("nti_"), std::string::npos);
}

}  // namespace
}  // namespace nti::host
