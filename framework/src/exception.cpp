#include "qor/exception.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <cxxabi.h>
#include <cstdio>
#include <memory>
#include <new>
#include <stdexcept>

#include "qor/trace/record.h"

namespace qor {
namespace {

constexpr int kMaxFrames = 32;

std::string Hex(std::uint64_t value, int digits, bool negative = false) {
    char buf[24];
    std::snprintf(buf, sizeof(buf), "%s0x%0*llx", negative ? "-" : "", digits,
                  static_cast<unsigned long long>(value));
    return buf;
}

std::string Narrow(const std::wstring& text) {
    std::string out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        out.push_back(c >= 0 && c < 0x80 ? static_cast<char>(c) : '?');
    }
    return out;
}

std::string Symbolize(void* frame) {
    Dl_info info{};
    std::string module = "?";
    std::string symbol = "?";
    if (dladdr(frame, &info) != 0) {
        if (info.dli_fname != nullptr) {
            module = info.dli_fname;
            if (const auto slash = module.rfind('/'); slash != std::string::npos) {
                module.erase(0, slash + 1);
            }
        }
        if (info.dli_sname != nullptr) {
            int status = 0;
            std::unique_ptr<char, decltype(&std::free)> demangled(
                abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
            symbol = status == 0 && demangled ? demangled.get() : info.dli_sname;
        } else if (info.dli_fbase != nullptr) {
            symbol = Hex(reinterpret_cast<std::uintptr_t>(frame) -
                             reinterpret_cast<std::uintptr_t>(info.dli_fbase),
                         1);
        }
    }
    return module + "!" + symbol;
}

}  // namespace

std::string FormatPropertyValue(const PropertyValue& value) {
    struct Visitor {
        std::string operator()(const ResultValue& v) const {
            return Hex(static_cast<std::uint32_t>(v.value), 8);
        }
        std::string operator()(const OsResultValue& v) const { return Hex(v.value, 8); }
        std::string operator()(std::int64_t v) const {
            return v < 0 ? Hex(~static_cast<std::uint64_t>(v) + 1, 16, true)
                         : Hex(static_cast<std::uint64_t>(v), 16);
        }
        std::string operator()(std::uint64_t v) const { return Hex(v, 16); }
        std::string operator()(const std::string& v) const { return v; }
        std::string operator()(const std::wstring& v) const { return Narrow(v); }
        std::string operator()(const OtherValue& v) const {
            return "<typeid=" + std::to_string(v.typeNumber) + ">";
        }
    };
    return std::visit(Visitor{}, value);
}

exception::exception(std::string message, SourceLocation where)
    : m_message(std::move(message)), m_where(where) {
    void* frames[kMaxFrames];
    const int n = backtrace(frames, kMaxFrames);
    // Skip this constructor's own frame.
    if (n > 1) {
        m_stack.assign(frames + 1, frames + n);
    }
}

void exception::SetProperty(std::string_view name, PropertyValue value) {
    m_what.clear();
    for (auto& property : m_properties) {
        if (property.name == name) {
            property.value = std::move(value);
            return;
        }
    }
    m_properties.push_back(Property{std::string(name), std::move(value)});
}

const PropertyValue* exception::FindProperty(std::string_view name) const noexcept {
    for (const auto& property : m_properties) {
        if (property.name == name) {
            return &property.value;
        }
    }
    return nullptr;
}

const char* exception::what() const noexcept {
    if (!m_what.empty()) {
        return m_what.c_str();
    }
    try {
        std::string text = m_message;
        text += " (";
        text.append(m_where.file);
        text += ':';
        text += std::to_string(m_where.line);
        text += ").";
        text += " Properties:";
        for (const auto& property : m_properties) {
            text += ' ';
            text += property.name;
            text += '=';
            text += FormatPropertyValue(property.value);
            text += ';';
        }
        text += "\nCall stack:\n";
        for (void* frame : m_stack) {
            text += "# ";
            text += Symbolize(frame);
            text += '\n';
        }
        m_what = std::move(text);
        return m_what.c_str();
    } catch (...) {
        return m_message.c_str();
    }
}

ResultCodeException::ResultCodeException(std::string message, SourceLocation where, result_t result)
    : ExceptionBase(std::move(message), where), m_result(result) {
    SetProperty(kPropResult, ResultValue{result});
}

CheckResultFailedException::CheckResultFailedException(std::string message, SourceLocation where,
                                                       std::string expression, result_t result)
    : ResultCodeException(std::move(message), where, result), m_expression(std::move(expression)) {}

SystemException::SystemException(std::string message, SourceLocation where, int osError)
    : ResultCodeException(std::move(message), where, ErrnoToResult(osError)), m_osError(osError) {
    SetProperty(kPropOsResult, OsResultValue{static_cast<std::uint32_t>(osError)});
}

GetInterfaceException::GetInterfaceException(SourceLocation where, std::uint32_t iid,
                                             std::uint32_t serviceKey, result_t result)
    : exception("Can't get interface", where) {
    SetProperty(kPropIid, std::uint64_t{iid});
    SetProperty(kPropServiceKey, std::uint64_t{serviceKey});
    SetProperty(kPropResult, ResultValue{result});
}

namespace {

// CodeFromRootProperties applies the property rules to an exception of the
// root class that is not an Exception.
[[nodiscard]] result_t CodeFromRootProperties(const exception& e) {
    if (const auto* v = e.FindProperty(kPropResult)) {
        if (const auto* r = std::get_if<ResultValue>(v)) {
            return r->value;
        }
    }
    if (const auto* v = e.FindProperty(kPropOsResult)) {
        if (const auto* r = std::get_if<OsResultValue>(v)) {
            return ErrnoToResult(static_cast<int>(r->value));
        }
    }
    if (const auto* v = e.FindProperty(kPropModuleResult)) {
        if (const auto* text = std::get_if<std::string>(v)) {
            if (text->empty()) {
                return errors::kOk;
            }
            if (text->rfind("undefined symbol:", 0) == 0) {
                return errors::kSymbolNotFound;
            }
            return errors::kPlatformUnspecified;
        }
    }
    return errors::kExceptionHasNoResult;
}

struct Classified {
    result_t code;
    std::string text;
};

Classified Classify() {
    const std::exception_ptr current = std::current_exception();
    if (!current) {
        return {errors::kNoCurrentException, "No current exception"};
    }
    try {
        std::rethrow_exception(current);
    } catch (const ResultCodeException& e) {
        const result_t code = e.Result();
        return {code < 0 ? code : errors::kExceptionWithSuccess, e.what()};
    } catch (const Exception& e) {
        return {errors::kExceptionHasNoResult, e.what()};
    } catch (const exception& e) {
        return {CodeFromRootProperties(e), e.what()};
    } catch (const std::bad_alloc& e) {
        return {errors::kOutOfMemory, e.what()};
    } catch (const std::bad_cast& e) {
        return {errors::kBadCast, e.what()};
    } catch (const std::length_error& e) {
        return {errors::kInvalidSize, e.what()};
    } catch (const std::out_of_range& e) {
        return {errors::kOutOfRange, e.what()};
    } catch (const std::invalid_argument& e) {
        return {errors::kInvalidArgument, e.what()};
    } catch (const std::exception& e) {
        return {errors::kExceptionHasNoResult, e.what()};
    } catch (...) {
        return {errors::kUnknownException, "Unknown exception"};
    }
}

}  // namespace

[[nodiscard]] result_t CurrentExceptionToResult(ITracer* tracer,
                                                std::string_view context) noexcept {
    // Any exception while classifying or tracing ends in std::terminate via
    // noexcept: a conversion must never fail silently.
    Classified c = Classify();
    QOR_TRACE(tracer, trace_level::kError)
        << context
        << (context.empty() || context.back() == ' ' ? std::string_view{} : std::string_view{": "})
        << c.text;
    return c.code;
}

}  // namespace qor
