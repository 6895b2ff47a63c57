#include "host/services/meta_info_provider.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "host/services/service_locator.h"

namespace nti::host {
namespace {

TEST(MetaInfoProviderTest, AnswersTheModulesTypesFromItsRegistry) {
    const char* path = std::getenv("NTI_MODULE");
    ModuleLoader module;
    ASSERT_EQ(module.Load(path != nullptr ? path : ModuleLoader::kDefaultModule), 0)
        << module.Error();
    auto locator = qor::object::Create<ServiceLocator>();
    auto provider = qor::object::Create<MetaInfoProvider>();
    provider->AttachModule(&module, locator.Get());
    EXPECT_EQ(module.CanUnloadModule(), 0);  // nothing created before the first lookup

    struct Case {
        std::uint32_t id;
        qor::result_t result;
        const char* name;
    };
    const Case cases[] = {{0x55afdee1, 0, "Collectors"},
                          {0x792d16ae, 0, "IntervalCounters"},
                          {0x93bc078b, 0, "ConnectionCounter"},
                          {0x5bbcb90b, qor::errors::kNotFound, nullptr},
                          {0, qor::errors::kNotFound, nullptr}};
    for (const auto& c : cases) {
        const qor::meta::TypeDescriptor* type = nullptr;
        EXPECT_EQ(provider->GetTypeInfo(c.id, &type), c.result);
        if (c.name != nullptr) {
            ASSERT_NE(type, nullptr);
            EXPECT_STREQ(type->name, c.name);
        }
    }
    EXPECT_EQ(module.CanUnloadModule(), 1);  // the registry lives in the provider
    provider->DropRegistries();
    EXPECT_EQ(module.CanUnloadModule(), 0);
    const qor::meta::TypeDescriptor* type = nullptr;
    EXPECT_EQ(provider->GetTypeInfo(0x55afdee1, &type), qor::errors::kNotFound);
    EXPECT_EQ(module.Unload(), 0);
}

}  // namespace
}  // namespace nti::host
