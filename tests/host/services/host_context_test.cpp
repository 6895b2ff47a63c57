#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "host/services/host_context.h"

namespace nti::host {
namespace {

TEST(HostContextTest, HandsTheModuleItsSettingsAndWritesNothingUnasked) {
    const char* module = std::getenv("NTI_MODULE");
    if (module == nullptr) {
        GTEST_SKIP() << "NTI_MODULE not set (run through ctest)";
    }
    CommonOptions options;
    options.module = module;
    options.ip6tables = false;
    options.nflogBypassMark = 0x1234;
    options.stateDir = "/tmp/nti-host-services-test-" + std::to_string(getpid());
    HostContext host;
    ASSERT_EQ(host.Open(options), 0) << host.Error();

    qor::RefPtr<dwi::firewall::IStartupDataProvider> startup;
    ASSERT_EQ(
        host.Locator().GetInterface(dwi::firewall::IStartupDataProvider::IID, 0, startup.RefVoid()),
        0);
    dwi::firewall::StartupData data;
    EXPECT_EQ(startup->GetStartupData(&data), 0);
    EXPECT_EQ(data.nflogBypassMark, 0x1234u);
    // Nothing is written before the storage is used.
    EXPECT_FALSE(std::filesystem::exists(options.stateDir));
    startup.Reset();
    EXPECT_EQ(host.Shutdown(), 0);  // nothing of the module is held
}

}  // namespace
}  // namespace nti::host
