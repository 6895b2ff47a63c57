#include "dwi_common/blob_tools.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "host/services/service_locator.h"
#include "tests/fakes/fake_allocator.h"
#include "tests/fakes/fake_binary_serializer.h"
#include "tests/support/recording_tracer.h"

namespace dwi::tools {
namespace {

using nti::test::FakeAllocator;
using nti::test::FakeBinarySerializer;
using nti::test::RecordingTracer;

constexpr qor::meta::TypeDescriptor kOpaque{
    .typeId = 1, .name = "opaque", .size = 4, .kind = qor::meta::Kind::UInt32};

class BlobToolsTest : public ::testing::Test {
protected:
    // Locator offers the services of this fixture but those of `missing`.
    qor::object::ImplPtr<nti::host::ServiceLocator> Locator(qor::iid_t missing = 0) {
        auto locator = qor::object::Create<nti::host::ServiceLocator>();
        locator->Add(m_tracer.Get());
        if (missing != qor::IBinarySerializer::IID) {
            locator->Add(static_cast<qor::IBinarySerializer*>(m_serializer.Get()));
        }
        if (missing != qor::IAllocator::IID) {
            locator->Add(static_cast<qor::IAllocator*>(m_allocator.Get()));
        }
        return locator;
    }
    qor::AnyRef Data() { return qor::AnyRef{&m_value, &kOpaque}; }
    std::vector<std::string> Records() const {
        std::vector<std::string> texts;
        for (const auto& line : m_tracer->Lines()) {
            texts.push_back(std::to_string(line.level) + ":" + nti::test::WithoutLine(line.text));
        }
        return texts;
    }

    qor::object::ImplPtr<RecordingTracer> m_tracer = qor::object::Create<RecordingTracer>();
    qor::object::ImplPtr<FakeBinarySerializer> m_serializer =
        qor::object::Create<FakeBinarySerializer>();
    qor::object::ImplPtr<FakeAllocator> m_allocator = qor::object::Create<FakeAllocator>();
    std::uint32_t m_value = 0;
};

struct FailureCase {
    const char* name;
    bool toBlob;
    qor::iid_t missing;
    bool invalid;  // no object
    std::function<void(FakeBinarySerializer&)> setUp;
    qor::result_t result;
    const char* record;
};

void PrintTo(const FailureCase& c, std::ostream* os) {
    *os << c.name;
}

const FailureCase kFailures[] = {
    {"NullObject", true, 0, true, nullptr, qor::errors::kInvalidArgument,
     R"(data.IsValid()),(bool) failed: result = false Data refers to nullptr)"},
    {"NoSerializerTo", true, qor::IBinarySerializer::IID, false, nullptr, qor::errors::kNoInterface,
     R"(qor::GetInterface(sl, serializer.Ref())),(QOR_SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not supported) Cannot get IBinarySerializer interface)"},
    {"NoAllocator", true, qor::IAllocator::IID, false, nullptr, qor::errors::kNoInterface,
     R"(qor::GetInterface(sl, alloc.Ref())),(QOR_SUCCEEDED(_result)) failed: result = 0x80000001 (Interface not supported) Cannot get IAllocator interface)"},
    {"SerializeFails", true, 0, false,
     [](FakeBinarySerializer& s) { s.FailSerialize(qor::errors::kInvalidType); },
     qor::errors::kInvalidType,
     R"(serializer->Serialize(data, alloc, &ptr, len, SerMode)),(QOR_SUCCEEDED(_result)) failed: result = 0x8000005d (Invalid type) Cannot serialize data)"},
    {"DeserializeFails", false, 0, false,
     [](FakeBinarySerializer& s) { s.FailDeserialize(qor::errors::kInvalidSize); },
     qor::errors::kInvalidSize,
     R"(serializer->Deserialize(blob, data, len, SerMode)),(QOR_SUCCEEDED(_result)) failed: result = 0x8000005c (Invalid size) Cannot deserialize data)"},
};

class BlobFailureTest : public BlobToolsTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(BlobFailureTest, IsTracedOnceAndKeepsTheBlob) {
    const FailureCase& c = GetParam();
    if (c.setUp) {
        c.setUp(*m_serializer);
    }
    const qor::AnyRef data = c.invalid ? qor::AnyRef{nullptr, &kOpaque} : Data();
    const std::uint8_t bytes[] = {7, 7, 7};
    qor::ByteVector blob(bytes, sizeof(bytes));
    const auto locator = Locator(c.missing);
    EXPECT_EQ(
        c.toBlob ? AnyToBlob(locator.Get(), data, blob) : AnyFromBlob(locator.Get(), blob, data),
        c.result);
    EXPECT_EQ(blob, qor::ByteVector(bytes, sizeof(bytes)));
    EXPECT_EQ(Records(),
              std::vector<std::string>{std::string("300:dwi_common/blob_tools:#(") + c.record});
    EXPECT_EQ(m_allocator->Outstanding(), 0);
}

INSTANTIATE_TEST_SUITE_P(Failures, BlobFailureTest, ::testing::ValuesIn(kFailures),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(BlobToolsTest, RoundTripThroughTheSerialiser) {
    m_serializer->SetOutput({1, 2, 3, 4, 5, 6});
    qor::ByteVector blob;
    const auto locator = Locator();
    ASSERT_EQ(AnyToBlob(locator.Get(), Data(), blob), 0);
    EXPECT_EQ(blob, qor::ByteVector(std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6}.data(), 6));
    ASSERT_EQ(AnyFromBlob(locator.Get(), blob, Data()), 0);
    const auto calls = m_serializer->Calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(std::tuple(calls[0].serialize, calls[0].data.object, calls[0].mode),
              std::tuple(true, static_cast<const void*>(&m_value), 0u));
    EXPECT_EQ(std::tuple(calls[1].serialize, calls[1].blob, calls[1].input, calls[1].mode),
              std::tuple(false, static_cast<const void*>(blob.data()),
                         std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6}, 0u));
    EXPECT_EQ(m_allocator->Outstanding(), 0);
    EXPECT_TRUE(m_tracer->Lines().empty());
}

// A blob that cannot grow throws, and the serialiser's buffer goes back.
TEST_F(BlobToolsTest, BlobThatCannotGrowThrowsWithoutALeak) {
    const auto locator = Locator();
    m_serializer->SetOutput({9, 8});
    auto blobAllocator = qor::object::Create<FakeAllocator>();
    blobAllocator->FailAllocations(true);
    qor::ByteVector failing(blobAllocator.Get());
    EXPECT_THROW(static_cast<void>(AnyToBlob(locator.Get(), Data(), failing)), std::bad_alloc);
    EXPECT_EQ(m_allocator->Outstanding(), 0);
}

}  // namespace
}  // namespace dwi::tools
