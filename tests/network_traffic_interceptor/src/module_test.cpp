// The built module as a host sees it: loaded with dlopen, three exports and
// nothing else, the module lock and the class that crashes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "host/services/module_loader.h"
#include "host/services/service_locator.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "tests/fakes/fake_key_value_storage.h"
#include "tests/fakes/fake_meta_info_provider.h"
#include "tests/fakes/fake_timer.h"
#include "tests/support/recording_tracer.h"

namespace {

using nti::host::ModuleLoader;
using nti::host::ServiceLocator;
using nti::test::RecordingTracer;
namespace ni = dwi::network_interceptor;

std::string ModulePath() {
    const char* path = std::getenv("NTI_MODULE");
    return path != nullptr ? path : "libnetwork_traffic_interceptor.so";
}

// DefinedDynamicSymbols lists the defined dynamic symbols of a shared object.
std::set<std::string> DefinedDynamicSymbols(const std::string& path) {
    std::set<std::string> names;
    FILE* nm = popen(("nm -D --defined-only --format=just-symbols " + path).c_str(), "r");
    char line[512];
    while (nm != nullptr && std::fgets(line, sizeof(line), nm) != nullptr) {
        names.insert(std::string(line, std::strcspn(line, "\n")));
    }
    EXPECT_TRUE(nm != nullptr && pclose(nm) == 0) << "nm failed on " << path;
    return names;
}

TEST(ModuleExportsTest, ExactlyThreeDefinedExports) {
    EXPECT_THAT(DefinedDynamicSymbols(ModulePath()),
                testing::UnorderedElementsAre("qorCreateObject", "qorGetObjectFactory",
                                              "qorCanUnloadModule"));
}

class ModuleTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(m_module.Load(ModulePath()), 0) << m_module.Error();
        m_locator = qor::object::Create<ServiceLocator>();
        m_tracer = qor::object::Create<RecordingTracer>();
    }
    void TearDown() override { m_locator->Clear(); }

    qor::result_t Create(std::uint32_t clsid, qor::RefPtr<qor::IObject>& out) {
        qor::CreationContext context;
        context.locator = m_locator.Get();
        return m_module.CreateObject(clsid, context, out.Ref());
    }

    ModuleLoader m_module;
    qor::object::ImplPtr<ServiceLocator> m_locator;
    qor::object::ImplPtr<RecordingTracer> m_tracer;
};

TEST_F(ModuleTest, ModuleLockCountsLiveObjects) {
    ASSERT_EQ(m_locator->Register(m_tracer.Get()), 0);
    // The statistics service needs its storage, timer and metadata services.
    m_locator->Add(app_core::component::IKeyValueStorage::IID,
                   qor::object::Create<nti::test::FakeKeyValueStorage>().Get());
    m_locator->Add(qor::ITimer::IID, qor::object::Create<nti::test::FakeTimer>().Get());
    m_locator->Add(qor::IMetaInfoProvider::IID,
                   qor::object::Create<nti::test::FakeMetaInfoProvider>().Get());
    EXPECT_EQ(m_module.CanUnloadModule(), 0);
    qor::RefPtr<qor::IObject> facade;
    ASSERT_EQ(Create(ni::kNetworkInterceptorClassId, facade), 0);
    EXPECT_EQ(m_module.CanUnloadModule(), 1);
    qor::RefPtr<qor::IObject> counters;
    ASSERT_EQ(Create(ni::kConnectionCountersClassId, counters), 0);
    qor::RefPtr<qor::IObject> factory;
    ASSERT_EQ(
        m_module.GetObjectFactory(m_locator.Get(), ni::kMetaRegistryFactoryClassId, factory.Ref()),
        0);
    facade.Reset();
    counters.Reset();
    EXPECT_EQ(m_module.CanUnloadModule(), 1);  // the factory still lives
    factory.Reset();
    EXPECT_EQ(m_module.CanUnloadModule(), 0);
}

using ModuleDeathTest = ModuleTest;

TEST_F(ModuleDeathTest, CrashClassTerminates) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    qor::CreationContext context{m_locator.Get(), nullptr};
    qor::IObject* out = nullptr;
    // Neither returns: the class crashes the process.
    EXPECT_DEATH(static_cast<void>(m_module.CreateObject(ni::kCrashClassId, context, &out)), "");
    EXPECT_DEATH(
        static_cast<void>(m_module.GetObjectFactory(m_locator.Get(), ni::kCrashClassId, &out)), "");
}

}  // namespace
