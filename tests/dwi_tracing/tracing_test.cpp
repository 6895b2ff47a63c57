#include "dwi_tracing/tracing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "dwi_tracing/check.h"
#include "qor/exception.h"
#include "tests/support/recording_tracer.h"

namespace {

using nti::test::RecordingTracer;

class TracingTest : public testing::Test {
protected:
    qor::object::ImplPtr<RecordingTracer> m_host = qor::object::Create<RecordingTracer>(800);
    qor::RefPtr<qor::ITracer> m_tracer = qor::trace::CreatePrefixTracer(m_host.Get(), "Obj");
};

[[nodiscard]] qor::result_t FailingCall() {
    return qor::errors::kUnspecified;
}

[[nodiscard]] qor::result_t ReturnsThroughCheck(qor::ITracer* tracer) {
    DWI_CHECK_RETURN(tracer, FailingCall(),
                     "Cannot do it for "
                         << "svc");
    return 0;
}

struct Stoppable {
    [[nodiscard]] qor::result_t Stop() { return qor::errors::kUnspecified; }
};

void DestructorLike(qor::ITracer* tracer) {
    Stoppable s;
    Stoppable* interceptor = &s;
    DWI_IGNORED_RESULT(tracer, interceptor->Stop(), "Cannot stop interceptor");
}

TEST_F(TracingTest, RecordBytesOfEachCheckForm) {
    EXPECT_EQ(ReturnsThroughCheck(m_tracer.Get()), qor::errors::kUnspecified);
    DWI_CHECK_RECORD(m_tracer.Get(), 300, QOR_AT(44),
                     "interceptor->Start(filter, event, serviceName)", qor::errors::kInvalidState)
        << "Cannot start interceptor for "
        << "svc";
    DWI_BOOL_RECORD(m_tracer.Get(), 300, QOR_AT(65), "it != m_interceptors.end()")
        << "Cannot find " << qor::trace::Hex0x{0};
    DestructorLike(m_tracer.Get());
    EXPECT_EQ(m_host->Lines().at(0).level, 300u);
    EXPECT_THAT(
        m_host->Texts(),
        testing::ElementsAre(
            testing::MatchesRegex(
                "Obj: tests/dwi_tracing/tracing_test:[0-9]+\\(FailingCall\\(\\)\\),"
                "\\(QOR_SUCCEEDED\\(_result\\)\\) failed: result = 0x8000004b "
                "\\(Unspecified error\\) Cannot do it for svc"),
            "Obj: tests/dwi_tracing/tracing_test:44(interceptor->Start(filter, event, "
            "serviceName)),(QOR_SUCCEEDED(_result)) failed: result = 0x8000006a (Invalid state) "
            "Cannot start interceptor for svc",
            "Obj: tests/dwi_tracing/tracing_test:65(it != m_interceptors.end()),(bool) failed: "
            "result = false Cannot find 0x0",
            "Obj: DestructorLike: '(interceptor->Stop())=0x8000004b (Unspecified error)' Cannot "
            "stop interceptor"));
}

TEST_F(TracingTest, EntryExitAndMessageForms) {
    struct Local {
        static void Operation(qor::ITracer* t) {
            DWI_TRACE_ENTRY(t);
            DWI_TRACE_FN(t, 500) << "degraded";
            DWI_TRACE_EXIT(t) << "done";
        }
    };
    Local::Operation(m_tracer.Get());
    // Prefixes join over a parent prefix tracer.
    auto leaf = qor::trace::CreatePrefixTracer(
        qor::trace::CreatePrefixTracer(m_tracer.Get(), "Child").Get(), "Leaf");
    QOR_TRACE(leaf.Get(), 300) << "b";
    EXPECT_THAT(m_host->Texts(),
                testing::ElementsAre("Obj: Operation() ", "Obj: Operation: degraded",
                                     "Obj: Operation() <- done", "Obj::Child::Leaf: b"));
}

TEST_F(TracingTest, RecordGrowsBeyondItsInitialCapacity) {
    const std::string big(3000, 'x');
    QOR_TRACE(m_tracer.Get(), 300) << big << "|end";
    EXPECT_EQ(m_host->Texts(), std::vector<std::string>{"Obj: " + big + "|end"});
}

}  // namespace
