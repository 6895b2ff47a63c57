#include "host/services/storage_serializer.h"

#include <gtest/gtest.h>

#include <vector>

#include "dwi_common/blob_tools.h"
#include "host/services/allocator.h"
#include "host/services/binary_serializer.h"
#include "host/services/service_locator.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "qor/memory_io.h"
#include "qor/rtl/objclient.h"
#include "tests/fakes/check_record.h"
#include "tests/fakes/recording_tracer.h"
#include "tests/host/statistics_samples.h"

namespace nti::host {
namespace {

using dwi::network_interceptor::FindStatisticsType;
namespace stats = system_interceptors::net::statistics;
namespace data = dwi::network_interceptor::connection_counters_data;

// The host's real serialisers behind a locator, as the module sees them.
class HostSerialisersTest : public ::testing::Test {
protected:
    HostSerialisersTest() {
        m_locator->Register<qor::ITracer>(m_tracer.Get());
        m_locator->Register<qor::IAllocator>(qor::object::Create<MallocAllocator>().Get());
        m_locator->Register<qor::IBinarySerializer>(qor::object::Create<BinarySerializer>().Get());
        m_locator->Register<qor::IStorageSerializer2>(
            qor::object::Create<StorageSerializer>().Get());
        m_locator->Register<qor::IStorageFactory>(qor::object::Create<StorageFactory>().Get());
    }

    qor::AnyRef Ref(data::Collectors& collectors) {
        return {&collectors, FindStatisticsType(data::kCollectorsTypeId)};
    }

    qor::object::ImplPtr<ServiceLocator> m_locator = qor::object::Create<ServiceLocator>();
    qor::object::ImplPtr<test::RecordingTracer> m_tracer =
        qor::object::Create<test::RecordingTracer>();
};

TEST_F(HostSerialisersTest, BinaryBlobToolsRoundTripTheStoredRecord) {
    auto collectors = test::SampleCollectors();
    qor::ByteVector blob;
    ASSERT_EQ(dwi::tools::AnyToBlob(m_locator.Get(), Ref(collectors), blob), 0);
    data::Collectors back;
    ASSERT_EQ(dwi::tools::AnyFromBlob(m_locator.Get(), blob, Ref(back)), 0);
    EXPECT_EQ(back, collectors);
    EXPECT_TRUE(m_tracer->Lines().empty());

    qor::ByteVector empty;
    EXPECT_EQ(dwi::tools::AnyFromBlob(m_locator.Get(), empty, Ref(back)),
              qor::errors::kInvalidSize);
    EXPECT_TRUE(m_tracer->Contains("Cannot deserialize data"));
}

TEST_F(HostSerialisersTest, StorageBlobToolsRoundTripAndRewriteAnExistingImage) {
    auto collectors = test::SampleCollectors();
    qor::ByteVector image;
    ASSERT_EQ(dwi::tools::AnyToStorageBlob(m_locator.Get(), Ref(collectors), image), 0);
    data::Collectors back;
    ASSERT_EQ(dwi::tools::AnyFromStorageBlob(m_locator.Get(), image, Ref(back)), 0);
    EXPECT_EQ(back, collectors);

    // Writing into a buffer that holds an image opens it and replaces the root.
    data::Collectors smaller;
    smaller.collectors.resize(1);
    smaller.collectors[0].collector = 3;
    ASSERT_EQ(dwi::tools::AnyToStorageBlob(m_locator.Get(), Ref(smaller), image), 0);
    data::Collectors smallerBack = test::SampleCollectors();
    ASSERT_EQ(dwi::tools::AnyFromStorageBlob(m_locator.Get(), image, Ref(smallerBack)), 0);
    EXPECT_EQ(smallerBack, smaller);
    EXPECT_TRUE(m_tracer->Lines().empty());
}

TEST_F(HostSerialisersTest, StorageImageKeepsTheRootName) {
    auto collectors = test::SampleCollectors();
    qor::ByteVector image;
    ASSERT_EQ(dwi::tools::AnyToStorageBlob(m_locator.Get(), Ref(collectors), image), 0);
    qor::RefPtr<qor::IIo> io;
    ASSERT_EQ(
        qor::memory_io::CreateReadOnlyIo<qor::memory_io::ExternalStorageTraits>(image, io.Ref()),
        0);
    qor::RefPtr<qor::IStorageFactory> factory;
    ASSERT_EQ(qor::GetInterface(m_locator.Get(), factory.Ref()), 0);
    qor::RefPtr<qor::IStorageNode> root;
    ASSERT_EQ(factory->OpenStorage(io.Get(), 1, root.Ref()), 0);
    const char* name = nullptr;
    ASSERT_EQ(root->GetName(&name), 0);
    EXPECT_STREQ(name, "root");
    EXPECT_EQ(root->SetValue("x", 1), qor::errors::kAccessDenied);
    EXPECT_EQ(root->Flush(), qor::errors::kAccessDenied);
}

TEST_F(HostSerialisersTest, DamagedStorageImagesFail) {
    auto collectors = test::SampleCollectors();
    qor::ByteVector image;
    ASSERT_EQ(dwi::tools::AnyToStorageBlob(m_locator.Get(), Ref(collectors), image), 0);
    const std::vector<std::uint8_t> good(image.begin(), image.end());
    int failures = 0;
    for (std::size_t cut = 1; cut < good.size(); cut += 7) {
        qor::ByteVector truncated(good.data(), cut);
        data::Collectors back;
        EXPECT_FALSE(
            QOR_SUCCEEDED(dwi::tools::AnyFromStorageBlob(m_locator.Get(), truncated, Ref(back))));
    }
    for (std::size_t i = 0; i < good.size(); i += 3) {
        auto bytes = good;
        bytes[i] ^= 0x5a;
        qor::ByteVector flipped(bytes.data(), bytes.size());
        data::Collectors back;
        if (!QOR_SUCCEEDED(dwi::tools::AnyFromStorageBlob(m_locator.Get(), flipped, Ref(back)))) {
            ++failures;
        }
    }
    EXPECT_GT(failures, 0);

    // A well-formed image of another type is refused.
    stats::IntervalCounters interval;
    qor::ByteVector other;
    ASSERT_EQ(
        dwi::tools::AnyToStorageBlob(
            m_locator.Get(),
            qor::AnyRef{&interval, FindStatisticsType(stats::kIntervalCountersTypeId)}, other),
        0);
    data::Collectors back;
    m_tracer->Clear();
    EXPECT_EQ(dwi::tools::AnyFromStorageBlob(m_locator.Get(), other, Ref(back)),
              qor::errors::kInvalidType);
    const auto lines = m_tracer->Texts();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(test::WithoutLine(lines[0]),
              "dwi_common/blob_tools:#(serializer->Deserialize( data, node, "
              "qor::IStorageSerializer2::Flags::Default, nullptr)),(QOR_SUCCEEDED(_result)) "
              "failed: result = 0x8000005d (Invalid type) Cannot deserialize data");
}

TEST_F(HostSerialisersTest, StoragePairTracesMissingServices) {
    auto locator = qor::object::Create<ServiceLocator>();
    locator->Register<qor::ITracer>(m_tracer.Get());
    auto collectors = test::SampleCollectors();
    qor::ByteVector image;
    EXPECT_EQ(dwi::tools::AnyToStorageBlob(locator.Get(), Ref(collectors), image),
              qor::errors::kNoInterface);
    EXPECT_TRUE(m_tracer->Contains(
        "(qor::GetInterface(sl, factory.Ref())),(QOR_SUCCEEDED(_result)) failed: result = "
        "0x80000001 (Interface not supported) Cannot get storage factory interface"));
    locator->Register<qor::IStorageFactory>(qor::object::Create<StorageFactory>().Get());
    m_tracer->Clear();
    EXPECT_EQ(dwi::tools::AnyToStorageBlob(locator.Get(), Ref(collectors), image),
              qor::errors::kNoInterface);
    EXPECT_TRUE(m_tracer->Contains("Cannot get IStorageSerializer2 interface"));
}

}  // namespace
}  // namespace nti::host
