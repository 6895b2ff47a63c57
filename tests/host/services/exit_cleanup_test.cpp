// An exception that reaches nti's command runner, against the real iptables
// in a network namespace of the test's own.
#include "host/services/exit_cleanup.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <stdexcept>

#include "host/services/iptables_rules.h"
#include "host/services/process.h"

namespace nti::host {
namespace {

// The rules of an object the unwinding does not release (held past the run,
// as by a thread or a reference cycle) are removed, with their chains and
// jumps, and the run ends with the failure status and the exception's text.
TEST(ExitCleanupTest, ExceptionLeavingTheRunRemovesTheRulesOfObjectsStillAlive) {
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << "needs CAP_SYS_ADMIN";
    struct Case {
        void (*raise)();
        const char* message;
    };
    const Case cases[] = {
        {[] { throw std::runtime_error("lost"); }, "nti: lost\n"},
        {[] { throw 7; }, "nti: unknown exception\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        qor::RefPtr<IptablesRules> kept;
        dwi::firewall::QueueRule rule;
        rule.queueNumber = 7;
        ::testing::internal::CaptureStderr();
        const int status = RunCleaningUp(
            [&] {
                kept = qor::object::Create<IptablesRules>(FirewallOptions{}, nullptr);
                if (kept->Initialize() == 0 && kept->AddRules({rule}, "x") == 0) {
                    c.raise();
                }
                return 0;
            },
            1);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.message);
        EXPECT_EQ(status, 1);
        for (const char* save : {"iptables-save", "ip6tables-save"}) {
            ProcessOutput out;
            ASSERT_EQ(RunProcess({save}, {}, out), 0);
            EXPECT_EQ(out.out.find("NTI_"), std::string::npos) << out.out;
        }
    }
}

}  // namespace
}  // namespace nti::host
