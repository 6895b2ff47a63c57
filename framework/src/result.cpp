#include "qor/result.h"

#include <cstring>

namespace qor {
namespace {

struct CodeText {
    std::uint32_t code;
    const char* text;
};

// Sorted by code; looked up by binary search.
constexpr CodeText kFacility0[] = {
    {0x00000000, "No error"},
    {0x00000001, "False"},
    {0x80000001, "Interface not supported"},
    {0x80000040, "Unexpected"},
    {0x80000041, "Out of memory"},
    {0x80000042, "Not supported"},
    {0x80000043, "Not implemented"},
    {0x80000044, "Buffer too small"},
    {0x80000045, "Access denied"},
    {0x80000046, "Invalid argument"},
    {0x80000047, "Bad cast"},
    {0x8000004A, "Not matched"},
    {0x8000004B, "Unspecified error"},
    {0x8000004C, "Not found"},
    {0x8000004D, "Found"},
    {0x8000004F, "Locked"},
    {0x80000050, "Not locked"},
    {0x80000051, "Operation cancelled"},
    {0x80000057, "Method not found"},
    {0x80000058, "Stack is empty"},
    {0x80000059, "Media error"},
    {0x8000005A, "Invalid signature"},
    {0x8000005B, "Invalid version"},
    {0x8000005C, "Invalid size"},
    {0x8000005D, "Invalid type"},
    {0x8000005E, "Out of range"},
    {0x80000062, "Out of space"},
    {0x80000063, "Not ready"},
    {0x80000064, "Less than"},
    {0x80000065, "More than"},
    {0x80000066, "Prohibited"},
    {0x80000067, "Already done"},
    {0x80000068, "Need reboot"},
    {0x80000069, "Bases corrupted"},
    {0x8000006A, "Invalid state"},
    {0x8000006B, "Not initialized"},
    {0x8000006C, "Insufficient resources"},
    {0x80000071, "Invalid result"},
    {0x80000072, "Unknown exception"},
    {0x80000076, "Meta information not found"},
    {0x80000077, "Numerical type overflow"},
    {0x80000078, "File is too big"},
    {0x80000079, "Trace level ok"},
    {0x8000007A, "Trace level prohibited"},
    {0x80000100, "Class not found"},
    {0x80000101, "Settings are required"},
    {0x80000102, "Unexpected settings"},
    {0x80000103, "Wrong settings type"},
    {0x80000104, "Wrong settings revision"},
    {0x80000105, "Settings not found"},
    {0x80000106, "Object is untrusted"},
    {0x80000150, "No current exception"},
    {0x80000151, "Exception has no result code"},
    {0x80000152, "Exception with successful result code"},
    {0x80000180, "Property not found"},
    {0x80000221, "Operation timeout"},
    {0x80000300, "Invalid symbol"},
    {0x80000301, "Non dec symbol"},
    {0x80000302, "Non hex symbol"},
    {0x80000303, "Non base64 symbol"},
    {0x80000310, "Syntax error"},
    {0x80000311, "GUID syntax error"},
    {0x80000312, "OID syntax error"},
    {0x80000313, "DateTime syntax error"},
};

// Facility 1: index n of 0x80010100 + n; null where n has no text.
constexpr const char* kFacility1[] = {
    "Unspecified platform error",
    "Invalid handle",
    "File not found",
    "Path not found",
    "Sharing violation",
    "Already exists",
    "Wait abandoned",
    "Symbol not found",
    "Sxs is incorrect",
    "Invalid path name",
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    "Cannot open an anonymous level security token",
    "Password is invalid",
    "Module not found",
    "System image bad signature",
    "Cloud file request aborted",
    "Memory mapping failed",
    "Network error",
    "System image bad format",
    "System shutdown in progress",
};

constexpr const char kUnknown[] = "Unknown result code";

}  // namespace

const char* ResultText(result_t code) noexcept {
    const auto value = static_cast<std::uint32_t>(code);
    if (value >= 0x80010100u && value < 0x80010100u + std::size(kFacility1)) {
        const char* text = kFacility1[value - 0x80010100u];
        return text != nullptr ? text : kUnknown;
    }
    std::size_t lo = 0;
    std::size_t hi = std::size(kFacility0);
    while (lo < hi) {
        const std::size_t mid = (lo + hi) / 2;
        if (kFacility0[mid].code < value) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    if (lo < std::size(kFacility0) && kFacility0[lo].code == value) {
        return kFacility0[lo].text;
    }
    return kUnknown;
}

void AppendFormattedResult(std::string& out, result_t code) {
    static constexpr char kDigits[] = "0123456789abcdef";
    char buf[10] = {'0', 'x'};
    auto value = static_cast<std::uint32_t>(code);
    for (int i = 9; i >= 2; --i) {
        buf[i] = kDigits[value & 0xF];
        value >>= 4;
    }
    out.append(buf, sizeof(buf));
    out.append(" (");
    out.append(ResultText(code));
    out.push_back(')');
}

std::string FormatResult(result_t code) {
    std::string out;
    AppendFormattedResult(out, code);
    return out;
}

[[nodiscard]] result_t ErrnoToResult(int error) noexcept {
    const auto value = static_cast<std::uint32_t>(error);
    switch (value) {
        case 0:
            return errors::kOk;
        case 1:
        case 13:
            return errors::kAccessDenied;
        case 2:
            return errors::kFileNotFound;
        case 5:
            return errors::kMediaError;
        case 8:
            return errors::kSystemImageBadFormat;
        case 9:
            return errors::kInvalidHandle;
        case 12:
            return errors::kOutOfMemory;
        case 16:
        case 26:
            return errors::kLocked;
        case 17:
            return errors::kAlreadyExists;
        case 20:
            return errors::kPathNotFound;
        case 22:
            return errors::kInvalidArgument;
        case 27:
            return errors::kFileTooBig;
        case 28:
            return errors::kOutOfSpace;
        case 36:
            return errors::kInvalidSize;
        case 40:
            return errors::kInvalidState;
        case 75:
            return errors::kBufferTooSmall;
        case 65535:
            return errors::kSymbolNotFound;
        default:
            break;
    }
    if (value > 65535u) {
        return errors::kPlatformUnspecified;
    }
    return static_cast<result_t>(0x80060000u | value);
}

std::string ErrnoText(int error) {
    char buf[256];
    // GNU strerror_r returns a pointer that may or may not be `buf`.
    const char* text = strerror_r(error, buf, sizeof(buf));
    return text != nullptr ? std::string(text) : std::string("Unknown error");
}

}  // namespace qor
