#include "dwi_tracing/check.h"

namespace dwi::check {

using qor::trace::TraceRecord;

TraceRecord& operator<<(TraceRecord& r, const ResultHead& head) noexcept {
    return r << head.where.file << ':' << head.where.line << '(' << head.expression << "),("
             << kResultCondition << ") failed: result = " << qor::trace::Result{head.result};
}

TraceRecord& operator<<(TraceRecord& r, const BoolHead& head) noexcept {
    return r << head.where.file << ':' << head.where.line << '(' << head.condition << "),("
             << kBoolType << ") failed: result = false";
}

TraceRecord& operator<<(TraceRecord& r, const IgnoredHead& head) noexcept {
    return r << head.function << ": '(" << head.expression
             << ")=" << qor::trace::Result{head.result} << '\'';
}

}  // namespace dwi::check
