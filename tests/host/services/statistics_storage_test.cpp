#include "host/services/host_context.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "dwi_common/blob_tools.h"
#include "qor/rtl/objclient.h"
#include "qor/serializer.h"
#include "qor/storage.h"
#include "tests/host/statistics_samples.h"

namespace nti::host {
namespace {

namespace data = dwi::network_interceptor::connection_counters_data;

class StatisticsStorageTest : public ::testing::Test {
protected:
    StatisticsStorageTest() {
        char pattern[] = "/tmp/nti_host_XXXXXX";
        m_dir = mkdtemp(pattern);
        const char* module = std::getenv("NTI_MODULE");
        m_options.module = module != nullptr ? module : ModuleLoader::kDefaultModule;
        m_options.stateDir = m_dir + "/state";
        m_options.traceFile = m_dir + "/trace.log";
    }
    ~StatisticsStorageTest() override { std::filesystem::remove_all(m_dir); }

    std::string m_dir;
    CommonOptions m_options;
};

// The module's stored record goes through every host service it uses:
// metadata, serialiser, allocator and storage, and survives a new host.
TEST_F(StatisticsStorageTest, StoredRecordSurvivesANewHost) {
    auto collectors = test::SampleCollectors();
    for (int run = 0; run < 2; ++run) {
        HostContext host;
        ASSERT_EQ(host.Open(m_options), 0) << host.Error();
        auto* sl = &host.Locator();
        auto meta = qor::GetMandatoryInterface<qor::IMetaInfoProvider>(sl);
        auto storage = qor::GetMandatoryInterface<app_core::component::IKeyValueStorage>(sl);
        const qor::meta::TypeDescriptor* type = nullptr;
        ASSERT_EQ(meta->GetTypeInfo(data::kCollectorsTypeId, &type), 0);
        qor::ByteVector blob;
        if (run == 0) {
            ASSERT_EQ(dwi::tools::AnyToBlob(sl, qor::AnyRef{&collectors, type}, blob), 0);
            ASSERT_EQ(storage->SetValue("Collectors", blob), 0);
        } else {
            ASSERT_EQ(storage->GetValue("Collectors", blob), 0);
            data::Collectors back;
            ASSERT_EQ(dwi::tools::AnyFromBlob(sl, blob, qor::AnyRef{&back, type}), 0);
            EXPECT_EQ(back, collectors);
        }
        meta.Reset();
        storage.Reset();
        EXPECT_EQ(host.Shutdown(), 0);  // the registry does not pin the module
    }
    EXPECT_TRUE(std::filesystem::exists(m_options.stateDir + "/state.db"));
}

TEST_F(StatisticsStorageTest, EveryServiceIsRegistered) {
    HostContext host;
    ASSERT_EQ(host.Open(m_options), 0) << host.Error();
    auto* sl = &host.Locator();
    EXPECT_NO_THROW(qor::GetMandatoryInterface<qor::IAllocator>(sl));
    EXPECT_NO_THROW(qor::GetMandatoryInterface<qor::IBinarySerializer>(sl));
    EXPECT_NO_THROW(qor::GetMandatoryInterface<qor::IMetaInfoProvider>(sl));
    EXPECT_NO_THROW(qor::GetMandatoryInterface<app_core::component::IKeyValueStorage>(sl));
    // Nothing is written before the storage is used.
    EXPECT_FALSE(std::filesystem::exists(m_options.stateDir));
}

}  // namespace
}  // namespace nti::host
