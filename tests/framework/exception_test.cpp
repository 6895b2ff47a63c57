#include "qor/exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>

#include "tests/support/recording_tracer.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr qor::SourceLocation kWhere{"framework/src/example", 42};

[[nodiscard]] qor::result_t Convert(const std::function<void()>& thrower,
                                    nti::test::RecordingTracer* tracer,
                                    std::string_view context = "Ctx") {
    try {
        thrower();
    } catch (...) {
        return qor::CurrentExceptionToResult(tracer, context);
    }
    return qor::errors::kOk;
}

qor::exception RootWith(std::string_view name, qor::PropertyValue value) {
    qor::exception e("root", kWhere);
    e.SetProperty(name, std::move(value));
    return e;
}

struct ConversionCase {
    const char* name;
    std::function<void()> thrower;
    std::uint32_t expected;
    const char* textPart;  // part of the exception text written to the record
};

const ConversionCase kConversions[] = {
    {"ResultCode", [] { throw qor::ResultCodeException("rc", kWhere, qor::errors::kNotFound); },
     0x8000004C, "rc (framework/src/example:42)."},
    {"SystemException", [] { throw qor::SystemException("sys", kWhere, 2); }, 0x80010102,
     "os.result=0x00000002"},
    {"RootModuleResultUndefinedSymbol",
     [] { throw RootWith(qor::kPropModuleResult, std::string("undefined symbol: foo")); },
     0x80010107, "os.module_result=undefined symbol: foo"},
    {"BadAlloc", [] { throw std::bad_alloc(); }, 0x80000041, "std::bad_alloc"},
    {"Unknown", [] { throw 42; }, 0x80000072, "Unknown exception"},
};

void PrintTo(const ConversionCase& c, std::ostream* os) {
    *os << c.name;
}

class ConversionTest : public testing::TestWithParam<ConversionCase> {};

TEST_P(ConversionTest, ClassifiesAndTracesOneErrorRecord) {
    const auto& c = GetParam();
    auto tracer = qor::object::Create<nti::test::RecordingTracer>();
    EXPECT_EQ(static_cast<std::uint32_t>(Convert(c.thrower, tracer.Get())), c.expected);
    const auto lines = tracer->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 300u);
    EXPECT_THAT(lines[0].text, StartsWith("Ctx: "));
    EXPECT_THAT(lines[0].text, HasSubstr(c.textPart));
}

INSTANTIATE_TEST_SUITE_P(AllKinds, ConversionTest, testing::ValuesIn(kConversions),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(ConversionTest, ContextEndingInBlankIsNotFollowedByColon) {
    auto tracer = qor::object::Create<nti::test::RecordingTracer>();
    EXPECT_EQ(Convert([] { throw std::invalid_argument("bad"); }, tracer.Get(),
                      "Exception during object construction: "),
              qor::errors::kInvalidArgument);
    ASSERT_EQ(tracer->Texts().size(), 1u);
    EXPECT_EQ(tracer->Texts()[0], "Exception during object construction: bad");
}

TEST(ExceptionTextTest, LayoutOfWhat) {
    qor::GetInterfaceException e({"framework/include/qor/rtl/objclient", 103}, 0x4CEB704A, 0,
                                 qor::errors::kNoInterface);
    const std::string text = e.what();
    EXPECT_THAT(text, StartsWith("Can't get interface (framework/include/qor/rtl/objclient:103). "
                                 "Properties: qor.iid=0x000000004ceb704a; "
                                 "qor.serviceKey=0x0000000000000000; qor.result=0x80000001;\n"
                                 "Call stack:\n# "));
    EXPECT_THAT(text, HasSubstr("!"));
}

}  // namespace
