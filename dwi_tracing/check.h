// Checked calls: the one way the module tests a result that matters.
//
// A failed check writes one record
//   <file>:<line>(<expression>),(<condition>) failed: result = <code> <message>
// for example
//   network_traffic_interceptor/src/network_interceptor:44(interceptor->Start(filter, event,
//   serviceName)),(QOR_SUCCEEDED(_result)) failed: result = 0x8000004b (Unspecified error)
//   Cannot start interceptor for svc
// A boolean check writes "(<condition>),(bool) failed: result = false".
// Destructors use the ignored-result form
//   <function>: '(<expression>)=<code>' <message>
#pragma once

#include <string_view>

#include "dwi_tracing/tracing.h"
#include "qor/exception.h"
#include "qor/result.h"
#include "qor/source_location.h"
#include "qor/trace/record.h"

namespace dwi::check {

inline constexpr std::string_view kResultCondition = "QOR_SUCCEEDED(_result)";
inline constexpr std::string_view kBoolType = "bool";
inline constexpr std::string_view kExpressionFailed = "Expression failed";

// ResultHead writes "<file>:<line>(<expression>),(QOR_SUCCEEDED(_result)) failed: result = <code>".
struct ResultHead {
    qor::SourceLocation where;
    std::string_view expression;
    qor::result_t result;
};
// BoolHead writes "<file>:<line>(<condition>),(bool) failed: result = false".
struct BoolHead {
    qor::SourceLocation where;
    std::string_view condition;
};
// IgnoredHead writes "<function>: '(<expression>)=<code>'".
struct IgnoredHead {
    std::string_view function;
    std::string_view expression;
    qor::result_t result;
};

qor::trace::TraceRecord& operator<<(qor::trace::TraceRecord& r, const ResultHead& head) noexcept;
qor::trace::TraceRecord& operator<<(qor::trace::TraceRecord& r, const BoolHead& head) noexcept;
qor::trace::TraceRecord& operator<<(qor::trace::TraceRecord& r, const IgnoredHead& head) noexcept;

}  // namespace dwi::check

// DWI_CHECK_RECORD(tracer, level, where, exprText, result) << message;
// writes a failed result check as given (for checks whose line and expression
// text are fixed).
#define DWI_CHECK_RECORD(tracer, level, where, exprText, result) \
    QOR_TRACE(tracer, level) << ::dwi::check::ResultHead{where, exprText, result} << ' '

// DWI_BOOL_RECORD(tracer, level, where, conditionText) << message;
#define DWI_BOOL_RECORD(tracer, level, where, conditionText) \
    QOR_TRACE(tracer, level) << ::dwi::check::BoolHead{where, conditionText} << ' '

// DWI_CHECK_RETURN(tracer, expr, message...): evaluates `expr`; on failure
// traces at level 300 and returns the code from the enclosing function.
#define DWI_CHECK_RETURN(tracer, expr, ...)                                                \
    do {                                                                                   \
        const ::qor::result_t _result = (expr);                                            \
        if (!QOR_SUCCEEDED(_result)) {                                                     \
            DWI_CHECK_RECORD(tracer, ::qor::trace_level::kError, QOR_HERE, #expr, _result) \
                << __VA_ARGS__;                                                            \
            return _result;                                                                \
        }                                                                                  \
    } while (0)

// DWI_CHECK_THROW(tracer, expr, message...): like DWI_CHECK_RETURN but throws
// CheckResultFailedException("Expression failed") with the code.
#define DWI_CHECK_THROW(tracer, expr, ...)                                                        \
    do {                                                                                          \
        const ::qor::result_t _result = (expr);                                                   \
        if (!QOR_SUCCEEDED(_result)) {                                                            \
            DWI_CHECK_RECORD(tracer, ::qor::trace_level::kError, QOR_HERE, #expr, _result)        \
                << __VA_ARGS__;                                                                   \
            throw ::qor::CheckResultFailedException(std::string(::dwi::check::kExpressionFailed), \
                                                    QOR_HERE, #expr, _result);                    \
        }                                                                                         \
    } while (0)

// DWI_CHECK_TRACE(tracer, level, expr, message...): evaluates `expr`, traces a
// failure at `level` and goes on; the statement yields nothing.
#define DWI_CHECK_TRACE(tracer, level, expr, ...)                                     \
    do {                                                                              \
        const ::qor::result_t _result = (expr);                                       \
        if (!QOR_SUCCEEDED(_result)) {                                                \
            DWI_CHECK_RECORD(tracer, level, QOR_HERE, #expr, _result) << __VA_ARGS__; \
        }                                                                             \
    } while (0)

// DWI_IGNORED_RESULT(tracer, expr, message...): destructors' form; never throws.
#define DWI_IGNORED_RESULT(tracer, expr, ...)                                                 \
    do {                                                                                      \
        const ::qor::result_t _result = (expr);                                               \
        if (!QOR_SUCCEEDED(_result)) {                                                        \
            QOR_TRACE(tracer, ::qor::trace_level::kError)                                     \
                << ::dwi::check::IgnoredHead{__func__, #expr, _result} << ' ' << __VA_ARGS__; \
        }                                                                                     \
    } while (0)
