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
    const auto& s = stats[0];
    EXPECT_EQ((std::vector<std::uint32_t>{s.queue, s.portId, s.waiting, s.copyMode, s.copyRange,
                                          s.queueDropped, s.userDropped, s.idSequence}),
              (std::vector<std::uint32_t>{1000, 12345, 3, 2, 65535, 7, 9, 120}));
    EXPECT_EQ(stats[1].queue, 1);
    EXPECT_TRUE(ReadQueueStats("/nonexistent/nfnetlink_queue").empty());  // no queue bound yet
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
    // Take asks for `count` queues: the first one, or the failure code.
    static int Take(NfqueueQuery& query, std::uint16_t count) {
        std::uint16_t first = 0;
        const qor::result_t result = query.GetAvailableQueue(count, &first);
        return result == 0 ? first : result;
    }
    std::string m_path;
};

TEST_F(NfqueueQueryTest, HandsOutConsecutiveRunsSkippingBoundAndTaken) {
    Bound({10, 13});
    auto query = qor::object::Create<NfqueueQuery>(10, 19, m_path);
    EXPECT_EQ(Take(*query, 2), 11);
    EXPECT_EQ(Take(*query, 2), 14);
    EXPECT_EQ(Take(*query, 1), 16);
    EXPECT_EQ(query->Taken(), (std::vector<std::uint16_t>{11, 12, 14, 15, 16}));
    EXPECT_EQ(Take(*query, 3), 17);
    EXPECT_EQ(Take(*query, 1), qor::errors::kNotFound);
    query->ReleaseQueues(14, 2);
    EXPECT_EQ(Take(*query, 2), 14);
}

TEST_F(NfqueueQueryTest, TakenNumberReturnsOnceKernelShowedItBoundThenFree) {
    Bound({});
    auto query = qor::object::Create<NfqueueQuery>(5, 6, m_path);
    EXPECT_EQ(Take(*query, 2), 5);
    // Not yet bound by its taker: still held.
    EXPECT_EQ(Take(*query, 1), qor::errors::kNotFound);
    Bound({5, 6});
    EXPECT_EQ(Take(*query, 1), qor::errors::kNotFound);
    Bound({6});
    EXPECT_EQ(Take(*query, 1), 5);
}

TEST_F(NfqueueQueryTest, RejectsZeroAndRunsPastTheEnd) {
    Bound({});
    auto query = qor::object::Create<NfqueueQuery>(65535, 65535, m_path);
    EXPECT_EQ(Take(*query, 0), qor::errors::kInvalidArgument);
    EXPECT_EQ(Take(*query, 2), qor::errors::kNotFound);
    EXPECT_EQ(Take(*query, 1), 65535);
    EXPECT_EQ(Take(*qor::object::Create<NfqueueQuery>(9, 8, m_path), 1), qor::errors::kNotFound);
}

}  // namespace
}  // namespace nti::host
