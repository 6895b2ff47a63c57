#include "host/services/nfqueue_query.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace nti::host {
namespace {

TEST(ParseQueueStatsTest, ReadsEveryColumnAndSkipsJunk) {
    const auto stats = ParseQueueStats(
        " 1000  12345     3 2 65535     7     9      120  1\n"
        "garbage line\n"
        "70000 1 0 2 65535 0 0 0 1\n"
        "   1   77     0 2 65535     0     0        0  1\n");
    ASSERT_EQ(stats.size(), 2u);
    EXPECT_EQ(stats[0].queue, 1000);
    EXPECT_EQ(stats[0].portId, 12345u);
    EXPECT_EQ(stats[0].waiting, 3u);
    EXPECT_EQ(stats[0].copyMode, 2u);
    EXPECT_EQ(stats[0].copyRange, 65535u);
    EXPECT_EQ(stats[0].queueDropped, 7u);
    EXPECT_EQ(stats[0].userDropped, 9u);
    EXPECT_EQ(stats[0].idSequence, 120u);
    EXPECT_EQ(stats[1].queue, 1);
}

TEST(ReadQueueStatsTest, MissingFileIsNoQueue) {
    EXPECT_TRUE(ReadQueueStats("/nonexistent/nfnetlink_queue").empty());
}

// The kernel's table is a file the test rewrites.
class NfqueueQueryTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/nti-nfqueue-query-XXXXXX";
        const int fd = ::mkstemp(name);
        ASSERT_GE(fd, 0);
        ::close(fd);
        m_path = name;
    }
    void TearDown() override { std::remove(m_path.c_str()); }
    void Bound(std::initializer_list<int> queues) {
        std::ofstream out(m_path, std::ios::trunc);
        for (int q : queues) {
            out << q << " 1 0 2 65535 0 0 0 1\n";
        }
    }
    std::string m_path;
};

TEST_F(NfqueueQueryTest, HandsOutConsecutiveRunsSkippingBoundAndTaken) {
    Bound({10, 13});
    auto query = qor::object::Create<NfqueueQuery>(10, 19, m_path);
    std::uint16_t first = 0;
    ASSERT_EQ(query->GetAvailableQueue(2, &first), 0);
    EXPECT_EQ(first, 11);
    ASSERT_EQ(query->GetAvailableQueue(2, &first), 0);
    EXPECT_EQ(first, 14);
    ASSERT_EQ(query->GetAvailableQueue(1, &first), 0);
    EXPECT_EQ(first, 16);
    EXPECT_EQ(query->Taken(), (std::vector<std::uint16_t>{11, 12, 14, 15, 16}));
    ASSERT_EQ(query->GetAvailableQueue(3, &first), 0);
    EXPECT_EQ(first, 17);
    EXPECT_EQ(query->GetAvailableQueue(1, &first), qor::errors::kNotFound);
    query->ReleaseQueues(14, 2);
    ASSERT_EQ(query->GetAvailableQueue(2, &first), 0);
    EXPECT_EQ(first, 14);
}

TEST_F(NfqueueQueryTest, TakenNumberReturnsOnceKernelShowedItBoundThenFree) {
    Bound({});
    auto query = qor::object::Create<NfqueueQuery>(5, 6, m_path);
    std::uint16_t first = 0;
    ASSERT_EQ(query->GetAvailableQueue(2, &first), 0);
    EXPECT_EQ(first, 5);
    // Not yet bound by its taker: still held.
    EXPECT_EQ(query->GetAvailableQueue(1, &first), qor::errors::kNotFound);
    Bound({5, 6});
    EXPECT_EQ(query->GetAvailableQueue(1, &first), qor::errors::kNotFound);
    Bound({6});
    ASSERT_EQ(query->GetAvailableQueue(1, &first), 0);
    EXPECT_EQ(first, 5);
}

TEST_F(NfqueueQueryTest, RejectsBadArgumentsAndEmptyRanges) {
    Bound({});
    auto query = qor::object::Create<NfqueueQuery>(65535, 65535, m_path);
    std::uint16_t first = 0;
    EXPECT_EQ(query->GetAvailableQueue(0, &first), qor::errors::kInvalidArgument);
    EXPECT_EQ(query->GetAvailableQueue(1, nullptr), qor::errors::kInvalidArgument);
    EXPECT_EQ(query->GetAvailableQueue(2, &first), qor::errors::kNotFound);
    ASSERT_EQ(query->GetAvailableQueue(1, &first), 0);
    EXPECT_EQ(first, 65535);
    auto reversed = qor::object::Create<NfqueueQuery>(9, 8, m_path);
    EXPECT_EQ(reversed->GetAvailableQueue(1, &first), qor::errors::kNotFound);
}

}  // namespace
}  // namespace nti::host
