// The framework's exception family and the conversion of the current
// exception to a result code, used at every interface boundary.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <typeinfo>
#include <variant>
#include <vector>

#include "qor/result.h"
#include "qor/source_location.h"

namespace qor {

struct ITracer;

// Property value kinds. `OsResult` is a raw OS error number; `Other` stands for
// a value whose type the framework cannot print (it shows "<typeid=N>").
struct ResultValue {
    result_t value;
};
struct OsResultValue {
    std::uint32_t value;
};
struct OtherValue {
    std::size_t typeNumber;
};
using PropertyValue = std::variant<ResultValue, OsResultValue, std::int64_t, std::uint64_t,
                                   std::string, std::wstring, OtherValue>;

struct Property {
    std::string name;
    PropertyValue value;
};

// Property names read by the conversion.
inline constexpr std::string_view kPropResult = "qor.result";
inline constexpr std::string_view kPropOsResult = "os.result";
inline constexpr std::string_view kPropModuleResult = "os.module_result";
inline constexpr std::string_view kPropIid = "qor.iid";
inline constexpr std::string_view kPropServiceKey = "qor.serviceKey";

// FormatPropertyValue renders a value as exception texts show it.
std::string FormatPropertyValue(const PropertyValue& value);

// exception is the root of the family: message, raising location, typed
// properties and the call stack captured at construction. what() is built
// once, on first use, and cached.
class exception : public std::exception {
public:
    exception(std::string message, SourceLocation where);
    exception(const exception&) = default;
    exception& operator=(const exception&) = default;
    ~exception() override = default;

    const char* what() const noexcept override;

    const std::string& Message() const noexcept { return m_message; }
    const SourceLocation& Where() const noexcept { return m_where; }
    const std::vector<Property>& Properties() const noexcept { return m_properties; }
    const std::vector<void*>& CallStack() const noexcept { return m_stack; }

    // SetProperty adds or replaces a property.
    void SetProperty(std::string_view name, PropertyValue value);
    // FindProperty returns the property's value, or null.
    const PropertyValue* FindProperty(std::string_view name) const noexcept;

private:
    std::string m_message;
    SourceLocation m_where;
    std::vector<Property> m_properties;
    std::vector<void*> m_stack;
    mutable std::string m_what;
};

class Exception : public exception {
public:
    using exception::exception;
};

// ExceptionBase inserts a concrete class into the family; Self names it for
// diagnostics.
template <class Self, class Base>
class ExceptionBase : public Base {
public:
    using Base::Base;
};

class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
public:
    ResultCodeException(std::string message, SourceLocation where, result_t result);
    [[nodiscard]] result_t Result() const noexcept { return m_result; }

private:
    result_t m_result;
};

// CheckResultFailedException is raised by a failed result check; it carries
// the checked expression's text.
class CheckResultFailedException : public ResultCodeException {
public:
    CheckResultFailedException(std::string message, SourceLocation where, std::string expression,
                               result_t result);
    const std::string& Expression() const noexcept { return m_expression; }

private:
    std::string m_expression;
};

// CheckFailedException is raised by a failed boolean check.
class CheckFailedException : public Exception {
public:
    using Exception::Exception;
};

// SystemException carries the raw OS error number as "os.result" and the
// mapped code as "qor.result".
class SystemException : public ResultCodeException {
public:
    SystemException(std::string message, SourceLocation where, int osError);
    int OsError() const noexcept { return m_osError; }

private:
    int m_osError;
};

namespace datetime {
class TimeSystemError : public SystemException {
public:
    using SystemException::SystemException;
};
}  // namespace datetime

class RuntimeError : public Exception {
public:
    using Exception::Exception;
};

// GetInterfaceException: a mandatory host service is missing.
class GetInterfaceException : public exception {
public:
    GetInterfaceException(SourceLocation where, std::uint32_t iid, std::uint32_t serviceKey,
                          result_t result);
};

// CurrentExceptionToResult classifies the exception being handled (call it
// inside a catch block, or with none active) and returns its code, never a
// success. It writes one level-300 record on `tracer` (may be null) opened by
// `context`. Never throws.
[[nodiscard]] result_t CurrentExceptionToResult(ITracer* tracer, std::string_view context) noexcept;
// TraceCurrentException is CurrentExceptionToResult where the code has nowhere
// to go (destructors, callbacks): the record is all that is left of it.
inline void TraceCurrentException(ITracer* tracer, std::string_view context) noexcept {
    static_cast<void>(CurrentExceptionToResult(tracer, context));
}

}  // namespace qor
