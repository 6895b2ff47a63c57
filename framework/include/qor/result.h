// Result codes of the component framework.
//
// A `result_t` is a signed 32-bit code: negative means failure, 0 is "No error"
// and 1 is the successful "False" (nothing was done). Bits 16-30 hold the
// facility: 0 framework, 1 platform, 6 raw POSIX error numbers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qor {

using result_t = std::int32_t;

// QOR_SUCCEEDED is the condition every checked call is tested against; its
// text appears verbatim in check records, so keep the spelling.
#define QOR_SUCCEEDED(r) ((r) >= 0)
#define QOR_FAILED(r) ((r) < 0)

// Codes used across the module. Named after their texts.
namespace errors {
inline constexpr result_t kOk = 0x00000000;
inline constexpr result_t kFalse = 0x00000001;
inline constexpr result_t kNoInterface = static_cast<result_t>(0x80000001);
inline constexpr result_t kUnexpected = static_cast<result_t>(0x80000040);
inline constexpr result_t kOutOfMemory = static_cast<result_t>(0x80000041);
inline constexpr result_t kNotSupported = static_cast<result_t>(0x80000042);
inline constexpr result_t kNotImplemented = static_cast<result_t>(0x80000043);
inline constexpr result_t kBufferTooSmall = static_cast<result_t>(0x80000044);
inline constexpr result_t kAccessDenied = static_cast<result_t>(0x80000045);
inline constexpr result_t kInvalidArgument = static_cast<result_t>(0x80000046);
inline constexpr result_t kBadCast = static_cast<result_t>(0x80000047);
inline constexpr result_t kNotMatched = static_cast<result_t>(0x8000004A);
inline constexpr result_t kUnspecified = static_cast<result_t>(0x8000004B);
inline constexpr result_t kNotFound = static_cast<result_t>(0x8000004C);
inline constexpr result_t kLocked = static_cast<result_t>(0x8000004F);
inline constexpr result_t kMediaError = static_cast<result_t>(0x80000059);
inline constexpr result_t kInvalidSignature = static_cast<result_t>(0x8000005A);
inline constexpr result_t kInvalidVersion = static_cast<result_t>(0x8000005B);
inline constexpr result_t kInvalidSize = static_cast<result_t>(0x8000005C);
inline constexpr result_t kInvalidType = static_cast<result_t>(0x8000005D);
inline constexpr result_t kOutOfRange = static_cast<result_t>(0x8000005E);
inline constexpr result_t kOutOfSpace = static_cast<result_t>(0x80000062);
inline constexpr result_t kInvalidState = static_cast<result_t>(0x8000006A);
inline constexpr result_t kNotInitialized = static_cast<result_t>(0x8000006B);
inline constexpr result_t kUnknownException = static_cast<result_t>(0x80000072);
inline constexpr result_t kMetaInfoNotFound = static_cast<result_t>(0x80000076);
inline constexpr result_t kFileTooBig = static_cast<result_t>(0x80000078);
inline constexpr result_t kClassNotFound = static_cast<result_t>(0x80000100);
inline constexpr result_t kNoCurrentException = static_cast<result_t>(0x80000150);
inline constexpr result_t kExceptionHasNoResult = static_cast<result_t>(0x80000151);
inline constexpr result_t kExceptionWithSuccess = static_cast<result_t>(0x80000152);
inline constexpr result_t kOperationTimeout = static_cast<result_t>(0x80000221);
inline constexpr result_t kPlatformUnspecified = static_cast<result_t>(0x80010100);
inline constexpr result_t kInvalidHandle = static_cast<result_t>(0x80010101);
inline constexpr result_t kFileNotFound = static_cast<result_t>(0x80010102);
inline constexpr result_t kPathNotFound = static_cast<result_t>(0x80010103);
inline constexpr result_t kAlreadyExists = static_cast<result_t>(0x80010105);
inline constexpr result_t kSymbolNotFound = static_cast<result_t>(0x80010107);
inline constexpr result_t kModuleNotFound = static_cast<result_t>(0x80010112);
inline constexpr result_t kSystemImageBadFormat = static_cast<result_t>(0x80010117);
}  // namespace errors

// ResultFacility returns bits 16-30 of `code`.
constexpr std::uint32_t ResultFacility(result_t code) {
    return (static_cast<std::uint32_t>(code) >> 16) & 0x7FFFu;
}

// ResultText returns the text of `code`, or "Unknown result code" for a code
// without one (every facility-6 code among them). Never null.
const char* ResultText(result_t code) noexcept;

// FormatResult writes "0x" + 8 lower-case hex digits + " (" + text + ")",
// for example "0x8000004c (Not found)".
std::string FormatResult(result_t code);

// AppendFormattedResult is FormatResult without a temporary string.
void AppendFormattedResult(std::string& out, result_t code);

// ErrnoToResult maps a POSIX error number to a result code. Values above
// 65535 (negative numbers are seen as unsigned) map to 0x80010100; values
// without a dedicated code map to 0x80060000 | errno.
[[nodiscard]] result_t ErrnoToResult(int error) noexcept;

// ErrnoText returns strerror-like text for `error`, thread-safe.
std::string ErrnoText(int error);

}  // namespace qor
