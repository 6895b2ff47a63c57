#include "host/services/tracer_sink.h"

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "dwi_tracing/tracing.h"
#include "host/services/module_loader.h"
#include "qor/exception.h"

namespace {

TEST(TraceLineTest, Layout) {
    // 2026-11-21T20:44:09.123456Z
    EXPECT_EQ(nti::host::FormatTraceLine(1795293849123456789LL, 4242, 300, "Obj: text"),
              "2026-11-21T20:44:09.123456Z 4242 300 Obj: text\n");
}

TEST(FileTracerTest, OneLinePerRecordFromManyThreadsAndLevelThreshold) {
    char path[] = "/tmp/nti-trace-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    {
        auto sink = nti::host::OpenFileTracer(path, 500);
        auto tracer = qor::trace::CreatePrefixTracer(sink.Get(), "T");
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&tracer, t] {
                for (int i = 0; i < 200; ++i) {
                    QOR_TRACE(tracer.Get(), 300)
                        << "thread " << t << " record " << i << ' ' << std::string(100, 'x');
                    QOR_TRACE(tracer.Get(), 800) << "refused";
                }
            });
        }
        for (auto& th : threads) {
            th.join();
        }
    }
    std::ifstream lines(path);
    unlink(path);
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        ++count;
        EXPECT_THAT(line, testing::MatchesRegex(
                              "[0-9T:.Z-]+ [0-9]+ 300 T: thread [0-3] record [0-9]+ x{100}"));
    }
    EXPECT_EQ(count, 800);
}

TEST(FileTracerTest, UnopenableFileThrows) {
    EXPECT_THROW(nti::host::OpenFileTracer("/nonexistent-dir/trace.log", 300),
                 qor::SystemException);
}

TEST(ModuleLoaderTest, ReportsMissingModuleAndExports) {
    nti::host::ModuleLoader missing;
    EXPECT_EQ(missing.Load("/nonexistent/libnothing.so"), qor::errors::kModuleNotFound);
    EXPECT_THAT(missing.Error(), testing::HasSubstr("libnothing.so"));

    nti::host::ModuleLoader partial;
    EXPECT_EQ(partial.Load(NTI_PARTIAL_MODULE), qor::errors::kSymbolNotFound);
    EXPECT_THAT(partial.Error(), testing::HasSubstr("does not export qorGetObjectFactory"));
    EXPECT_FALSE(partial.IsLoaded());
}

}  // namespace
