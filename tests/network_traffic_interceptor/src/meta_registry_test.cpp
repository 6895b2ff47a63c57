// The serialisation metadata: which records the registry answers and the
// field order that fixes the stored bytes.
#include "network_traffic_interceptor/src/meta_registry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/src/object_factory.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "network_traffic_interceptor/statistics.h"

namespace dwi::network_interceptor {
namespace {

namespace stats = system_interceptors::net::statistics;
namespace data = connection_counters_data;

TEST(MetaRegistryTest, AnswersTheTopLevelRecordsOnly) {
    const auto before = qor::g_moduleObjectCount.load();
    {
        auto factoryObject = CreateMetaRegistryFactory();
        qor::RefPtr<qor::IObjectFactory> factory;
        ASSERT_EQ(qor::QueryInterfaceAs(factoryObject.Get(), factory), 0);
        void* refused = &factory;
        EXPECT_EQ(factory->CreateInstance(0x12345678, &refused), qor::errors::kNoInterface);
        EXPECT_EQ(refused, nullptr);
        qor::RefPtr<qor::IStructMetaInfoRegistry> registry;
        ASSERT_EQ(factory->CreateInstance(qor::IStructMetaInfoRegistry::IID, registry.RefVoid()),
                  0);
        EXPECT_EQ(qor::g_moduleObjectCount.load(), before + 2);

        std::vector<std::uint32_t> ids{7};
        ASSERT_EQ(registry->EnumerateTypes(ids), 0);
        EXPECT_EQ(ids, (std::vector<std::uint32_t>{7, 0x55afdee1, 0x792d16ae, 0x93bc078b}));
        for (const std::uint32_t id :
             {0x55afdee1u, 0x792d16aeu, 0x93bc078bu, 0x5bbcb90bu, 0xb1550054u, 0u}) {
            const qor::meta::TypeDescriptor* type = nullptr;
            const bool topLevel = id == 0x55afdee1 || id == 0x792d16ae || id == 0x93bc078b;
            EXPECT_EQ(registry->GetTypeInfo(id, &type), topLevel ? 0 : qor::errors::kNotFound);
            EXPECT_EQ(type, topLevel ? FindStatisticsType(id) : nullptr) << id;
        }
        EXPECT_EQ(registry->GetTypeInfo(0x55afdee1, nullptr), qor::errors::kInvalidArgument);
    }
    EXPECT_EQ(qor::g_moduleObjectCount.load(), before);
}

TEST(StatisticsMetaTest, FieldsInSerialisationOrder) {
    const std::pair<std::uint32_t, std::string> records[] = {
        {stats::kConnectionCounterTypeId,
         "localMac localIp localPort remoteMac remoteIp remotePort proxyDetected domain "
         "gatewayMac gatewayIp bytesSent packetsSent bytesReceived packetsReceived etherType "
         "ipProtocol payloadPrefix"},
        {stats::kIntervalCountersTypeId, "begin end counters"},
        {data::kCollectorDataTypeId, "collector period periodAlignment readyCounters"},
        {data::kCollectorsTypeId, "collectors"},
        {stats::kIpTypeId, "family v4 v6"},
    };
    for (const auto& [id, expected] : records) {
        const qor::meta::TypeDescriptor* type = FindStatisticsType(id);
        ASSERT_NE(type, nullptr) << id;
        std::string names;
        for (std::size_t i = 0; i < type->fieldCount; ++i) {
            names += (i == 0 ? "" : " ") + std::string(type->fields[i].name);
        }
        EXPECT_EQ(names, expected);
    }
    // Nested records are the same descriptors as the top-level ones.
    const auto* collectors = FindStatisticsType(data::kCollectorsTypeId);
    const auto* ready = collectors->fields[0].type->element->fields[3].type;
    EXPECT_EQ(ready->element, FindStatisticsType(stats::kIntervalCountersTypeId));
    EXPECT_EQ(ready->element->fields[2].type->element,
              FindStatisticsType(stats::kConnectionCounterTypeId));
    EXPECT_EQ(FindStatisticsType(0x12345678), nullptr);
}

}  // namespace
}  // namespace dwi::network_interceptor
