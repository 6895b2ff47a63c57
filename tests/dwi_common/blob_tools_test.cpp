#include "dwi_common/blob_tools.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/services/service_locator.h"
#include "qor/exception.h"
#include "tests/fakes/check_record.h"
#include "tests/fakes/fake_allocator.h"
#include "tests/fakes/fake_binary_serializer.h"
#include "tests/fakes/recording_tracer.h"

namespace dwi::tools {
namespace {

using nti::test::FakeAllocator;
using nti::test::FakeBinarySerializer;
using nti::test::RecordingTracer;

constexpr qor::meta::TypeDescriptor kOpaque{
    .typeId = 1, .name = "opaque", .size = 4, .kind = qor::meta::Kind::UInt32};

class BlobToolsTest : public ::testing::Test {
protected:
    BlobToolsTest() {
        m_locator->Register(m_tracer.Get());
        m_locator->Register(static_cast<qor::IBinarySerializer*>(m_serializer.Get()));
        m_locator->Register(static_cast<qor::IAllocator*>(m_allocator.Get()));
    }

    qor::AnyRef Data() { return qor::AnyRef{&m_value, &kOpaque}; }

    // ExpectOnlyRecord checks the single record written, at level 300.
    void ExpectOnlyRecord(const std::string& text) {
        const auto lines = m_tracer->Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, 300u);
        EXPECT_EQ(nti::test::WithoutLine(lines[0].text), text);
    }

    qor::object::ImplPtr<nti::host::ServiceLocator> m_locator =
        qor::object::Create<nti::host::ServiceLocator>();
    qor::object::ImplPtr<RecordingTracer> m_tracer = qor::object::Create<RecordingTracer>();
    qor::object::ImplPtr<FakeBinarySerializer> m_serializer =
        qor::object::Create<FakeBinarySerializer>();
    qor::object::ImplPtr<FakeAllocator> m_allocator = qor::object::Create<FakeAllocator>();
    std::uint32_t m_value = 0;
};

constexpr const char* kHead = "dwi_common/blob_tools:#(";

TEST_F(BlobToolsTest, InvalidDataIsRefusedWithoutTouchingTheSerialiser) {
    const qor::AnyRef invalid[] = {{nullptr, &kOpaque}, {&m_value, nullptr}, {}};
    for (const auto& data : invalid) {
        qor::ByteVector blob;
        m_tracer->Clear();
        EXPECT_EQ(AnyToBlob(m_locator.Get(), data, blob), qor::errors::kInvalidArgument);
        ExpectOnlyRecord(std::string(kHead) +
                         R"(data.IsValid()),(bool) failed: result = false Data refers to nullptr)");
        m_tracer->Clear();
        EXPECT_EQ(AnyFromBlob(m_locator.Get(), blob, data), qor::errors::kInvalidArgument);
        ExpectOnlyRecord(std::string(kHead) +
                         R"(data.IsValid()),(bool) failed: result = false Data refers to nullptr)");
    }
    EXPECT_TRUE(m_serializer->Calls().empty());
    EXPECT_EQ(m_allocator->Allocations(), 0);
}

TEST_F(BlobToolsTest, MissingServicesAreTracedAndReturned) {
    struct Case {
        qor::iid_t missing;
        bool toBlob;
        const char* record;
    };
    const Case cases[] = {
        {qor::IBinarySerializer::IID, true,
         R"(qor::GetInterface(sl, serializer.Ref())),(QOR_SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not supported) Cannot get IBinarySerializer interface)"},
        {qor::IBinarySerializer::IID, false,
         R"(qor::GetInterface(sl, serializer.Ref())),(QOR_SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not supported) Cannot get IBinarySerializer interface)"},
        {qor::IAllocator::IID, true,
         R"(qor::GetInterface(sl, alloc.Ref())),(QOR_SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not supported) Cannot get IAllocator interface)"},
    };
    for (const auto& c : cases) {
        auto locator = qor::object::Create<nti::host::ServiceLocator>();
        locator->Register(m_tracer.Get());
        if (c.missing != qor::IBinarySerializer::IID) {
            locator->Register(static_cast<qor::IBinarySerializer*>(m_serializer.Get()));
        }
        if (c.missing != qor::IAllocator::IID) {
            locator->Register(static_cast<qor::IAllocator*>(m_allocator.Get()));
        }
        m_tracer->Clear();
        qor::ByteVector blob;
        const int result = c.toBlob ? AnyToBlob(locator.Get(), Data(), blob)
                                    : AnyFromBlob(locator.Get(), blob, Data());
        EXPECT_EQ(result, qor::errors::kNoInterface);
        ExpectOnlyRecord(std::string(kHead) + c.record);
    }
    EXPECT_TRUE(m_serializer->Calls().empty());
}

TEST_F(BlobToolsTest, SerialisesWithModeZeroAndReleasesTheOutputBuffer) {
    m_serializer->SetOutput({1, 2, 3, 4, 5, 6});
    qor::ByteVector blob;
    ASSERT_EQ(AnyToBlob(m_locator.Get(), Data(), blob), 0);
    EXPECT_EQ(blob, qor::ByteVector(std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6}.data(), 6));
    const auto calls = m_serializer->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(calls[0].serialize);
    EXPECT_EQ(calls[0].data.object, &m_value);
    EXPECT_EQ(calls[0].mode, 0u);
    EXPECT_EQ(m_allocator->Outstanding(), 0);
    EXPECT_TRUE(m_tracer->Lines().empty());
}

TEST_F(BlobToolsTest, LargerBlobIsReusedAndEmptyBlobGetsAtLeastFourBytes) {
    const std::vector<std::uint8_t> old(64, 0xEE);
    qor::ByteVector large(old.data(), old.size());
    const std::uint8_t* storage = large.data();
    m_serializer->SetOutput({9, 8});
    ASSERT_EQ(AnyToBlob(m_locator.Get(), Data(), large), 0);
    EXPECT_EQ(large.data(), storage);
    EXPECT_EQ(large.capacity(), 64u);
    EXPECT_EQ(large.size(), 2u);

    auto blobAllocator = qor::object::Create<FakeAllocator>();
    qor::ByteVector empty(blobAllocator.Get());
    ASSERT_EQ(AnyToBlob(m_locator.Get(), Data(), empty), 0);
    EXPECT_EQ(blobAllocator->Allocations(), 1);
    EXPECT_EQ(blobAllocator->LastSize(), 4u);
    EXPECT_EQ(empty.capacity(), 4u);
    ASSERT_EQ(empty.size(), 2u);
    EXPECT_EQ(empty.data()[0], 9);
    EXPECT_EQ(empty.data()[1], 8);
}

TEST_F(BlobToolsTest, SerialiseFailureKeepsTheBlobAndIsTraced) {
    const std::uint8_t bytes[] = {7, 7, 7};
    qor::ByteVector blob(bytes, sizeof(bytes));
    m_serializer->FailSerialize(qor::errors::kInvalidType);
    EXPECT_EQ(AnyToBlob(m_locator.Get(), Data(), blob), qor::errors::kInvalidType);
    EXPECT_EQ(blob, qor::ByteVector(bytes, sizeof(bytes)));
    EXPECT_EQ(m_allocator->Outstanding(), 0);
    ExpectOnlyRecord(
        std::string(kHead) +
        R"(serializer->Serialize(data, alloc, &ptr, len, SerMode)),(QOR_SUCCEEDED(_result)) failed: result = 0x8000005d (Invalid type) Cannot serialize data)");
}

TEST_F(BlobToolsTest, BlobAllocationFailureThrowsAndReleasesTheOutput) {
    auto blobAllocator = qor::object::Create<FakeAllocator>();
    blobAllocator->FailAllocations(true);
    qor::ByteVector blob(blobAllocator.Get());
    m_serializer->SetOutput({1, 2, 3});
    EXPECT_THROW(AnyToBlob(m_locator.Get(), Data(), blob), std::bad_alloc);
    EXPECT_EQ(m_allocator->Outstanding(), 0);
}

TEST_F(BlobToolsTest, EmptyBlobIsHandedToTheSerialiserAndItsFailureReturned) {
    m_serializer->FailDeserialize(qor::errors::kInvalidSize);
    qor::ByteVector empty;
    EXPECT_EQ(AnyFromBlob(m_locator.Get(), empty, Data()), qor::errors::kInvalidSize);
    const auto calls = m_serializer->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_FALSE(calls[0].serialize);
    EXPECT_EQ(calls[0].len, 0u);
    EXPECT_EQ(calls[0].mode, 0u);
    ExpectOnlyRecord(
        std::string(kHead) +
        R"(serializer->Deserialize(blob, data, len, SerMode)),(QOR_SUCCEEDED(_result)) failed: result = 0x8000005c (Invalid size) Cannot deserialize data)");
}

TEST_F(BlobToolsTest, DeserialisesTheBlobBytes) {
    const std::uint8_t bytes[] = {1, 2, 3};
    qor::ByteVector blob(bytes, sizeof(bytes));
    EXPECT_EQ(AnyFromBlob(m_locator.Get(), blob, Data()), 0);
    const auto calls = m_serializer->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].blob, blob.data());
    EXPECT_EQ(calls[0].input, (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(calls[0].data.type, &kOpaque);
}

TEST_F(BlobToolsTest, WithoutTracerTheBinaryPairStillWorks) {
    auto locator = qor::object::Create<nti::host::ServiceLocator>();
    locator->Register(static_cast<qor::IBinarySerializer*>(m_serializer.Get()));
    locator->Register(static_cast<qor::IAllocator*>(m_allocator.Get()));
    m_serializer->SetOutput({5});
    qor::ByteVector blob;
    EXPECT_EQ(AnyToBlob(locator.Get(), Data(), blob), 0);
    EXPECT_EQ(AnyFromBlob(locator.Get(), blob, qor::AnyRef{}), qor::errors::kInvalidArgument);
    EXPECT_EQ(AnyToBlob(nullptr, Data(), blob), qor::errors::kInvalidArgument);
}

TEST_F(BlobToolsTest, StoragePairNeedsATracer) {
    auto locator = qor::object::Create<nti::host::ServiceLocator>();
    qor::ByteVector blob;
    for (int direction = 0; direction < 2; ++direction) {
        try {
            if (direction == 0) {
                AnyToStorageBlob(locator.Get(), Data(), blob);
            } else {
                AnyFromStorageBlob(locator.Get(), blob, Data());
            }
            ADD_FAILURE() << "no exception";
        } catch (const qor::GetInterfaceException& e) {
            EXPECT_EQ(e.Message(), "Can't get interface");
            const auto* iid = e.FindProperty(qor::kPropIid);
            ASSERT_NE(iid, nullptr);
            EXPECT_EQ(qor::FormatPropertyValue(*iid), "0x000000006ef3329b");
            const auto* result = e.FindProperty(qor::kPropResult);
            ASSERT_NE(result, nullptr);
            EXPECT_EQ(qor::FormatPropertyValue(*result), "0x80000001");
        }
    }
}

}  // namespace
}  // namespace dwi::tools
