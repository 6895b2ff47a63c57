#include "host/services/binary_serializer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "host/services/allocator.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "tests/support/statistics_samples.h"

namespace nti::host {
namespace {

using dwi::network_interceptor::FindStatisticsType;
namespace stats = system_interceptors::net::statistics;
namespace data = dwi::network_interceptor::connection_counters_data;

// [ "nti.bin", 1, 0x55afdee1, { "collectors": [] } ]
const std::vector<std::uint8_t> kNoCollectors = {
    0x84, 0x67, 'n',  't', 'i', '.', 'b', 'i', 'n', 0x01, 0x1a, 0x55, 0xaf, 0xde,
    0xe1, 0xa1, 0x6a, 'c', 'o', 'l', 'l', 'e', 'c', 't',  'o',  'r',  's',  0x80};

// NoCollectorsWith is the first `keep` bytes of kNoCollectors, then `tail`.
std::vector<std::uint8_t> NoCollectorsWith(std::size_t keep, std::vector<std::uint8_t> tail) {
    tail.insert(tail.begin(), kNoCollectors.begin(), kNoCollectors.begin() + keep);
    return tail;
}

class BinarySerializerTest : public ::testing::Test {
protected:
    template <class T>
    std::vector<std::uint8_t> Encode(T& record, std::uint32_t typeId) {
        void* ptr = nullptr;
        std::size_t len = 0;
        const qor::AnyRef ref{&record, FindStatisticsType(typeId)};
        EXPECT_EQ(m_serializer->Serialize(ref, m_allocator.Get(), &ptr, &len, 0), 0);
        std::vector<std::uint8_t> bytes(static_cast<std::uint8_t*>(ptr),
                                        static_cast<std::uint8_t*>(ptr) + len);
        m_allocator->Free(ptr);
        return bytes;
    }
    template <class T>
    qor::result_t Decode(const std::vector<std::uint8_t>& bytes, T& record, std::uint32_t typeId) {
        return m_serializer->Deserialize(
            bytes.data(), qor::AnyRef{&record, FindStatisticsType(typeId)}, bytes.size(), 0);
    }

    // RoundTrip decodes the encoded `value` over `back`.
    template <class T>
    T RoundTrip(T value, std::uint32_t typeId, T back = {}) {
        EXPECT_EQ(Decode(Encode(value, typeId), back, typeId), 0);
        return back;
    }

    qor::object::ImplPtr<BinarySerializer> m_serializer = qor::object::Create<BinarySerializer>();
    qor::object::ImplPtr<MallocAllocator> m_allocator = qor::object::Create<MallocAllocator>();
};

TEST_F(BinarySerializerTest, EveryRecordTypeRoundTrips) {
    const auto collectors = test::SampleCollectors();
    EXPECT_EQ(RoundTrip(collectors, data::kCollectorsTypeId), collectors);
    for (auto counter : {test::FullCounter(), test::SparseCounter(), stats::ConnectionCounter{}}) {
        stats::ConnectionCounter stale;  // stale values are replaced
        stale.localPort = 1;
        stale.payloadPrefix = {9, 9};
        EXPECT_EQ(RoundTrip(counter, stats::kConnectionCounterTypeId, stale), counter);
    }
    const auto interval = collectors.collectors[0].readyCounters[0];
    EXPECT_EQ(RoundTrip(interval, stats::kIntervalCountersTypeId), interval);
    // Nested types also stand on their own.
    EXPECT_EQ(RoundTrip(test::Ipv6Sample(), stats::kIpTypeId), test::Ipv6Sample());
    EXPECT_TRUE(
        RoundTrip(data::Collectors{}, data::kCollectorsTypeId, collectors).collectors.empty());
}

TEST_F(BinarySerializerTest, WritesTheVersionedSelfDescribingForm) {
    data::Collectors none;
    EXPECT_EQ(Encode(none, data::kCollectorsTypeId), kNoCollectors);

    auto ip = test::Ipv4(1, 2, 3, 4);
    const std::vector<std::uint8_t> ipExpected = {0x84, 0x67, 'n',  't',  'i',  '.',  'b',
                                                  'i',  'n',  0x01, 0x1a, 0xb1, 0x55, 0x00,
                                                  0x54, 0x44, 1,    2,    3,    4};
    EXPECT_EQ(Encode(ip, stats::kIpTypeId), ipExpected);
}

// Damaged Collectors, and ConnectionCounters with an etherType out of range
// or of the wrong kind.
TEST_F(BinarySerializerTest, DamagedOrForeignInputFails) {
    const auto good = [&] {
        auto collectors = test::SampleCollectors();
        return Encode(collectors, data::kCollectorsTypeId);
    }();
    struct Case {
        const char* name;
        std::vector<std::uint8_t> bytes;
        qor::result_t result;
        bool counter = false;
    };
    auto with = [&](std::size_t at, std::uint8_t value) {
        auto bytes = good;
        bytes[at] = value;
        return bytes;
    };
    auto trailing = good;
    trailing.push_back(0x00);
    // etherType is the 15th field; its value (uint16 0) follows its key.
    auto counter = stats::ConnectionCounter{};
    const auto counterBytes = Encode(counter, stats::kConnectionCounterTypeId);
    const std::vector<std::uint8_t> key = {0x69, 'e', 't', 'h', 'e', 'r', 'T', 'y', 'p', 'e'};
    const auto at = std::search(counterBytes.begin(), counterBytes.end(), key.begin(), key.end()) -
                    counterBytes.begin() + static_cast<std::ptrdiff_t>(key.size());
    ASSERT_EQ(counterBytes[at], 0x00);
    auto etherType = [&](std::vector<std::uint8_t> value) {
        auto bytes = counterBytes;
        bytes.erase(bytes.begin() + at);
        bytes.insert(bytes.begin() + at, value.begin(), value.end());
        return bytes;
    };
    std::vector<Case> cases = {
        {"empty", {}, qor::errors::kInvalidSize},
        {"short header",
         {0x83, 0x67, 'n', 't', 'i', '.', 'b', 'i', 'n', 0x01, 0x00},
         qor::errors::kInvalidSignature},
        {"foreign format", with(3, 'X'), qor::errors::kInvalidSignature},
        {"future version", with(9, 0x02), qor::errors::kInvalidVersion},
        {"other type id", with(14, 0xe2), qor::errors::kInvalidType},
        {"trailing byte", trailing, qor::errors::kInvalidSize},
        {"field renamed", with(17, 'C'), qor::errors::kInvalidType},
        {"indefinite array", NoCollectorsWith(27, {0x9f, 0xff}), qor::errors::kInvalidType},
        {"huge vector count",
         NoCollectorsWith(27, {0x9b, 0x0f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
         qor::errors::kInvalidSize},
        {"uint16 overflow", etherType({0x1a, 0x00, 0x01, 0x00, 0x00}), qor::errors::kOutOfRange,
         true},
        {"negative", etherType({0x20}), qor::errors::kInvalidType, true},
    };
    for (std::size_t cut : {good.size() - 1, good.size() / 2, std::size_t{20}, std::size_t{1}}) {
        cases.push_back({"truncated", std::vector<std::uint8_t>(good.begin(), good.begin() + cut),
                         qor::errors::kInvalidSize});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        data::Collectors collectors;
        stats::ConnectionCounter back;
        EXPECT_EQ(c.counter ? Decode(c.bytes, back, stats::kConnectionCounterTypeId)
                            : Decode(c.bytes, collectors, data::kCollectorsTypeId),
                  c.result);
    }
}

}  // namespace
}  // namespace nti::host
