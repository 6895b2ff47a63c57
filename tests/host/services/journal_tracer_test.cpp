#include "host/services/journal_tracer.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "dwi_tracing/tracing.h"

namespace {

using nti::host::JournalPriority;
using nti::host::JournalTracer;
using testing::ElementsAre;
using testing::MatchesRegex;

TEST(JournalPriorityTest, LevelBoundaries) {
    const std::map<std::uint32_t, int> expected = {
        {0, 3},   {300, 3}, {301, 4}, {500, 4}, {501, 5},
        {600, 5}, {601, 6}, {700, 6}, {701, 7}, {800, 7},
    };
    for (const auto& [level, priority] : expected) {
        EXPECT_EQ(JournalPriority(level), priority) << "level " << level;
    }
}

// The fake journal: what it was sent, and the answers it gives in turn.
struct FakeJournal {
    static inline std::vector<std::map<std::string, std::string>> entries;
    static inline std::vector<int> answers;

    static int Send(const iovec* fields, int count) {
        std::map<std::string, std::string> entry;
        for (int i = 0; i < count; ++i) {
            const std::string field(static_cast<const char*>(fields[i].iov_base),
                                    fields[i].iov_len);
            const auto eq = field.find('=');
            entry[field.substr(0, eq)] = field.substr(eq + 1);
        }
        entries.push_back(entry);
        if (answers.empty()) {
            return 0;
        }
        const int answer = answers.front();
        answers.erase(answers.begin());
        return answer;
    }
    static void Reset(std::vector<int> next = {}) {
        entries.clear();
        answers = std::move(next);
    }
};

// A temporary file standing in for stderr.
class Fallback {
public:
    ~Fallback() { std::fclose(m_file); }
    int WriteEnd() const { return fileno(m_file); }
    std::vector<std::string> Lines() const {
        std::ifstream in("/proc/self/fd/" + std::to_string(WriteEnd()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

private:
    std::FILE* m_file = std::tmpfile();
};

// A writable file stands in for the journal socket of the fake journal.
std::string SocketStandIn() {
    static const std::string path = [] {
        char name[] = "/tmp/nti-journal-XXXXXX";
        close(mkstemp(name));
        return std::string(name);
    }();
    return path;
}

TEST(JournalTracerTest, OneEntryPerAcceptedRecordWithItsFields) {
    FakeJournal::Reset();
    Fallback fallback;
    auto sink = qor::object::Create<JournalTracer>(500, fallback.WriteEnd(), &FakeJournal::Send,
                                                   SocketStandIn());
    auto tracer = qor::trace::CreatePrefixTracer(sink.Get(), "T");
    QOR_TRACE(tracer.Get(), 300) << "Cannot start\nsecond line";
    QOR_TRACE(tracer.Get(), 500) << "degraded";
    QOR_TRACE(tracer.Get(), 800) << "refused";

    ASSERT_EQ(FakeJournal::entries.size(), 2u);
    const auto& first = FakeJournal::entries[0];
    EXPECT_EQ(first.at("PRIORITY"), "3");
    EXPECT_EQ(first.at("MESSAGE"), "T: Cannot start\nsecond line");
    EXPECT_EQ(first.at("NTI_TRACE_LEVEL"), "300");
    EXPECT_EQ(FakeJournal::entries[1].at("PRIORITY"), "4");
    EXPECT_EQ(FakeJournal::entries[1].at("NTI_TRACE_LEVEL"), "500");
    EXPECT_TRUE(fallback.Lines().empty());
}

TEST(JournalTracerTest, RefusedEntriesGoToFallbackWithOneNoticePerOutage) {
    FakeJournal::Reset({-ENOENT, -ENOENT, 0, -EAGAIN});
    Fallback fallback;
    auto sink = qor::object::Create<JournalTracer>(800, fallback.WriteEnd(), &FakeJournal::Send,
                                                   SocketStandIn());
    auto tracer = qor::trace::CreatePrefixTracer(sink.Get(), "T");
    for (const char* text : {"one", "two", "three", "four"}) {
        QOR_TRACE(tracer.Get(), 300) << text;
    }
    EXPECT_EQ(FakeJournal::entries.size(), 4u);
    EXPECT_THAT(fallback.Lines(),
                ElementsAre(MatchesRegex(".* 500 journal unavailable \\(No such file.*"),
                            MatchesRegex(".* 300 T: one"), MatchesRegex(".* 300 T: two"),
                            MatchesRegex(".* 500 journal unavailable \\(Resource temp.*"),
                            MatchesRegex(".* 300 T: four")));

    // sd_journal_sendv itself reports success when the socket is missing.
    FakeJournal::Reset();
    Fallback noSocket;
    auto missing = qor::object::Create<JournalTracer>(800, noSocket.WriteEnd(), &FakeJournal::Send,
                                                      "/nonexistent/journal/socket");
    tracer = qor::trace::CreatePrefixTracer(missing.Get(), "T");
    QOR_TRACE(tracer.Get(), 300) << "still visible";
    EXPECT_TRUE(FakeJournal::entries.empty());
    EXPECT_THAT(noSocket.Lines(),
                ElementsAre(MatchesRegex(".* journal unavailable \\(No such file.*"),
                            MatchesRegex(".* 300 T: still visible")));
}

}  // namespace
