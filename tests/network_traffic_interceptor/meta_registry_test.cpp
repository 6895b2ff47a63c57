#include "network_traffic_interceptor/src/meta_registry.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/src/object_factory.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "network_traffic_interceptor/statistics.h"

namespace dwi::network_interceptor {
namespace {

using qor::meta::Kind;
using qor::meta::TypeDescriptor;
namespace stats = system_interceptors::net::statistics;
namespace data = connection_counters_data;

qor::RefPtr<qor::IStructMetaInfoRegistry> MakeRegistry() {
    auto factoryObject = CreateMetaRegistryFactory();
    qor::RefPtr<qor::IObjectFactory> factory;
    EXPECT_EQ(qor::QueryInterfaceAs(factoryObject.Get(), factory), 0);
    qor::RefPtr<qor::IStructMetaInfoRegistry> registry;
    EXPECT_EQ(factory->CreateInstance(qor::IStructMetaInfoRegistry::IID, registry.RefVoid()), 0);
    return registry;
}

TEST(MetaRegistryTest, EnumeratesTheThreeTopLevelIdsInOrderAfterExistingOnes) {
    auto registry = MakeRegistry();
    std::vector<std::uint32_t> ids{7};
    ASSERT_EQ(registry->EnumerateTypes(ids), 0);
    EXPECT_EQ(ids, (std::vector<std::uint32_t>{7, 0x55afdee1, 0x792d16ae, 0x93bc078b}));
}

TEST(MetaRegistryTest, LookupAnswersTopLevelIdsOnly) {
    auto registry = MakeRegistry();
    qor::RefPtr<qor::IMetaInfoProvider> provider;
    ASSERT_EQ(qor::QueryInterfaceAs(registry.Get(), provider), 0);
    struct Case {
        std::uint32_t id;
        qor::result_t result;
        const char* name;
    };
    const Case cases[] = {
        {0x55afdee1, 0, "Collectors"},
        {0x792d16ae, 0, "IntervalCounters"},
        {0x93bc078b, 0, "ConnectionCounter"},
        {0x5bbcb90b, qor::errors::kNotFound, nullptr},  // nested: reached through fields
        {0xb1550054, qor::errors::kNotFound, nullptr},
        {0x00000000, qor::errors::kNotFound, nullptr},
        {0xFFFFFFFF, qor::errors::kNotFound, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        const TypeDescriptor* fromRegistry = nullptr;
        const TypeDescriptor* fromProvider = nullptr;
        EXPECT_EQ(registry->GetTypeInfo(c.id, &fromRegistry), c.result);
        EXPECT_EQ(provider->GetTypeInfo(c.id, &fromProvider), c.result);
        EXPECT_EQ(fromRegistry, fromProvider);
        if (c.name != nullptr) {
            ASSERT_NE(fromRegistry, nullptr);
            EXPECT_STREQ(fromRegistry->name, c.name);
            EXPECT_EQ(fromRegistry->typeId, c.id);
        } else {
            EXPECT_EQ(fromRegistry, nullptr);
        }
    }
    EXPECT_EQ(registry->GetTypeInfo(0x55afdee1, nullptr), qor::errors::kInvalidArgument);
}

TEST(MetaRegistryTest, FactoryAndRegistryHoldTheModuleLock) {
    const auto before = qor::g_moduleObjectCount.load();
    {
        auto registry = MakeRegistry();
        EXPECT_EQ(qor::g_moduleObjectCount.load(), before + 1);  // its factory is gone
        auto factoryObject = CreateMetaRegistryFactory();
        EXPECT_EQ(qor::g_moduleObjectCount.load(), before + 2);
    }
    EXPECT_EQ(qor::g_moduleObjectCount.load(), before);
}

TEST(MetaRegistryTest, FactoryRefusesUnknownInterfaces) {
    auto factoryObject = CreateMetaRegistryFactory();
    qor::RefPtr<qor::IObjectFactory> factory;
    ASSERT_EQ(qor::QueryInterfaceAs(factoryObject.Get(), factory), 0);
    void* out = &factory;
    EXPECT_EQ(factory->CreateInstance(0x12345678, &out), qor::errors::kNoInterface);
    EXPECT_EQ(out, nullptr);
}

struct ExpectedField {
    const char* name;
    std::size_t offset;
    Kind kind;
};

void ExpectRecord(std::uint32_t typeId, const char* name, std::size_t size, Kind kind,
                  const std::vector<ExpectedField>& fields) {
    SCOPED_TRACE(name);
    const TypeDescriptor* type = FindStatisticsType(typeId);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->typeId, typeId);
    EXPECT_STREQ(type->name, name);
    EXPECT_EQ(type->size, size);
    EXPECT_EQ(type->kind, kind);
    ASSERT_EQ(type->fieldCount, fields.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
        SCOPED_TRACE(fields[i].name);
        EXPECT_STREQ(type->fields[i].name, fields[i].name);
        EXPECT_EQ(type->fields[i].offset, fields[i].offset);
        ASSERT_NE(type->fields[i].type, nullptr);
        EXPECT_EQ(type->fields[i].type->kind, fields[i].kind);
    }
}

TEST(StatisticsMetaTest, DescribesEveryRecordWithFieldsInSerialisationOrder) {
    using CC = stats::ConnectionCounter;
    ExpectRecord(stats::kConnectionCounterTypeId, "ConnectionCounter", sizeof(CC), Kind::Struct,
                 {
                     {"localMac", offsetof(CC, localMac), Kind::Optional},
                     {"localIp", offsetof(CC, localIp), Kind::Optional},
                     {"localPort", offsetof(CC, localPort), Kind::Optional},
                     {"remoteMac", offsetof(CC, remoteMac), Kind::Optional},
                     {"remoteIp", offsetof(CC, remoteIp), Kind::Optional},
                     {"remotePort", offsetof(CC, remotePort), Kind::Optional},
                     {"proxyDetected", offsetof(CC, proxyDetected), Kind::Bool},
                     {"domain", offsetof(CC, domain), Kind::Optional},
                     {"gatewayMac", offsetof(CC, gatewayMac), Kind::Optional},
                     {"gatewayIp", offsetof(CC, gatewayIp), Kind::Optional},
                     {"bytesSent", offsetof(CC, bytesSent), Kind::UInt64},
                     {"packetsSent", offsetof(CC, packetsSent), Kind::UInt64},
                     {"bytesReceived", offsetof(CC, bytesReceived), Kind::UInt64},
                     {"packetsReceived", offsetof(CC, packetsReceived), Kind::UInt64},
                     {"etherType", offsetof(CC, etherType), Kind::UInt16},
                     {"ipProtocol", offsetof(CC, ipProtocol), Kind::Optional},
                     {"payloadPrefix", offsetof(CC, payloadPrefix), Kind::ByteVector},
                 });
    using IC = stats::IntervalCounters;
    ExpectRecord(stats::kIntervalCountersTypeId, "IntervalCounters", sizeof(IC), Kind::Struct,
                 {{"begin", offsetof(IC, begin), Kind::UInt64},
                  {"end", offsetof(IC, end), Kind::UInt64},
                  {"counters", offsetof(IC, counters), Kind::Vector}});
    using CD = data::CollectorData;
    ExpectRecord(data::kCollectorDataTypeId, "CollectorData", sizeof(CD), Kind::Struct,
                 {{"collector", offsetof(CD, collector), Kind::UInt32},
                  {"period", offsetof(CD, period), Kind::UInt32},
                  {"periodAlignment", offsetof(CD, periodAlignment), Kind::UInt8},
                  {"readyCounters", offsetof(CD, readyCounters), Kind::Vector}});
    ExpectRecord(data::kCollectorsTypeId, "Collectors", sizeof(data::Collectors), Kind::Struct,
                 {{"collectors", offsetof(data::Collectors, collectors), Kind::Vector}});
    ExpectRecord(stats::kIpTypeId, "ip_t", sizeof(stats::ip_t), Kind::IpAddress,
                 {{"family", offsetof(stats::ip_t, family), Kind::UInt8},
                  {"v4", offsetof(stats::ip_t, v4), Kind::Ipv4},
                  {"v6", offsetof(stats::ip_t, v6), Kind::Ipv6}});
    ExpectRecord(stats::kIpv4TypeId, "ipv4_t", 4, Kind::Ipv4, {{"bytes", 0, Kind::FixedBytes}});
    ExpectRecord(stats::kIpv6TypeId, "ipv6_t", 16, Kind::Ipv6, {{"bytes", 0, Kind::FixedBytes}});
    EXPECT_EQ(FindStatisticsType(0), nullptr);
    EXPECT_EQ(FindStatisticsType(0x12345678), nullptr);
}

TEST(StatisticsMetaTest, NestedTypesAreReachedThroughTheTopLevelOnes) {
    const TypeDescriptor* collectors = FindStatisticsType(data::kCollectorsTypeId);
    const TypeDescriptor* vector = collectors->fields[0].type;
    ASSERT_NE(vector->vectorOps, nullptr);
    EXPECT_EQ(vector->element, FindStatisticsType(data::kCollectorDataTypeId));
    const TypeDescriptor* ready = vector->element->fields[3].type;
    EXPECT_EQ(ready->element, FindStatisticsType(stats::kIntervalCountersTypeId));
    EXPECT_EQ(ready->element->fields[2].type->element,
              FindStatisticsType(stats::kConnectionCounterTypeId));
    const TypeDescriptor* localIp =
        FindStatisticsType(stats::kConnectionCounterTypeId)->fields[1].type;
    ASSERT_NE(localIp->optionalOps, nullptr);
    EXPECT_EQ(localIp->element, FindStatisticsType(stats::kIpTypeId));
    const TypeDescriptor* localMac =
        FindStatisticsType(stats::kConnectionCounterTypeId)->fields[0].type;
    EXPECT_EQ(localMac->element->kind, Kind::Mac48);
    EXPECT_EQ(localMac->element->size, 6u);
}

TEST(StatisticsMetaTest, ContainerHelpersReachTheRecords) {
    data::Collectors collectors;
    const TypeDescriptor* vector = FindStatisticsType(data::kCollectorsTypeId)->fields[0].type;
    ASSERT_TRUE(vector->vectorOps->resize(&collectors.collectors, 2));
    EXPECT_EQ(vector->vectorOps->size(&collectors.collectors), 2u);
    static_cast<data::CollectorData*>(vector->vectorOps->mutableAt(&collectors.collectors, 1))
        ->collector = 9;
    EXPECT_EQ(collectors.collectors[1].collector, 9u);
    EXPECT_EQ(vector->vectorOps->at(&collectors.collectors, 0), &collectors.collectors[0]);

    stats::ConnectionCounter counter;
    const auto* optional = FindStatisticsType(stats::kConnectionCounterTypeId)->fields[2].type;
    EXPECT_FALSE(optional->optionalOps->hasValue(&counter.localPort));
    *static_cast<std::uint16_t*>(optional->optionalOps->emplace(&counter.localPort)) = 443;
    EXPECT_EQ(counter.localPort, 443);
    EXPECT_EQ(optional->optionalOps->value(&counter.localPort), &*counter.localPort);
    optional->optionalOps->reset(&counter.localPort);
    EXPECT_FALSE(counter.localPort.has_value());
}

}  // namespace
}  // namespace dwi::network_interceptor
