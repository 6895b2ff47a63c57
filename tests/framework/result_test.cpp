#include "qor/result.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace {

struct CodeCase {
    std::uint32_t code;
    const char* formatted;
};

// Every code with a text, and the gaps between them.
const CodeCase kCodes[] = {
    {0x00000000, "0x00000000 (No error)"},
    {0x00000001, "0x00000001 (False)"},
    {0x00000002, "0x00000002 (Unknown result code)"},
    {0x80000001, "0x80000001 (Interface not supported)"},
    {0x80000040, "0x80000040 (Unexpected)"},
    {0x80000041, "0x80000041 (Out of memory)"},
    {0x80000042, "0x80000042 (Not supported)"},
    {0x80000043, "0x80000043 (Not implemented)"},
    {0x80000044, "0x80000044 (Buffer too small)"},
    {0x80000045, "0x80000045 (Access denied)"},
    {0x80000046, "0x80000046 (Invalid argument)"},
    {0x80000047, "0x80000047 (Bad cast)"},
    {0x80000048, "0x80000048 (Unknown result code)"},
    {0x8000004A, "0x8000004a (Not matched)"},
    {0x8000004B, "0x8000004b (Unspecified error)"},
    {0x8000004C, "0x8000004c (Not found)"},
    {0x8000004D, "0x8000004d (Found)"},
    {0x8000004E, "0x8000004e (Unknown result code)"},
    {0x8000004F, "0x8000004f (Locked)"},
    {0x80000050, "0x80000050 (Not locked)"},
    {0x80000051, "0x80000051 (Operation cancelled)"},
    {0x80000057, "0x80000057 (Method not found)"},
    {0x80000058, "0x80000058 (Stack is empty)"},
    {0x80000059, "0x80000059 (Media error)"},
    {0x8000005A, "0x8000005a (Invalid signature)"},
    {0x8000005B, "0x8000005b (Invalid version)"},
    {0x8000005C, "0x8000005c (Invalid size)"},
    {0x8000005D, "0x8000005d (Invalid type)"},
    {0x8000005E, "0x8000005e (Out of range)"},
    {0x80000062, "0x80000062 (Out of space)"},
    {0x80000063, "0x80000063 (Not ready)"},
    {0x80000064, "0x80000064 (Less than)"},
    {0x80000065, "0x80000065 (More than)"},
    {0x80000066, "0x80000066 (Prohibited)"},
    {0x80000067, "0x80000067 (Already done)"},
    {0x80000068, "0x80000068 (Need reboot)"},
    {0x80000069, "0x80000069 (Bases corrupted)"},
    {0x8000006A, "0x8000006a (Invalid state)"},
    {0x8000006B, "0x8000006b (Not initialized)"},
    {0x8000006C, "0x8000006c (Insufficient resources)"},
    {0x80000071, "0x80000071 (Invalid result)"},
    {0x80000072, "0x80000072 (Unknown exception)"},
    {0x80000076, "0x80000076 (Meta information not found)"},
    {0x80000077, "0x80000077 (Numerical type overflow)"},
    {0x80000078, "0x80000078 (File is too big)"},
    {0x80000079, "0x80000079 (Trace level ok)"},
    {0x8000007A, "0x8000007a (Trace level prohibited)"},
    {0x80000100, "0x80000100 (Class not found)"},
    {0x80000101, "0x80000101 (Settings are required)"},
    {0x80000102, "0x80000102 (Unexpected settings)"},
    {0x80000103, "0x80000103 (Wrong settings type)"},
    {0x80000104, "0x80000104 (Wrong settings revision)"},
    {0x80000105, "0x80000105 (Settings not found)"},
    {0x80000106, "0x80000106 (Object is untrusted)"},
    {0x80000150, "0x80000150 (No current exception)"},
    {0x80000151, "0x80000151 (Exception has no result code)"},
    {0x80000152, "0x80000152 (Exception with successful result code)"},
    {0x80000180, "0x80000180 (Property not found)"},
    {0x80000221, "0x80000221 (Operation timeout)"},
    {0x80000300, "0x80000300 (Invalid symbol)"},
    {0x80000301, "0x80000301 (Non dec symbol)"},
    {0x80000302, "0x80000302 (Non hex symbol)"},
    {0x80000303, "0x80000303 (Non base64 symbol)"},
    {0x80000310, "0x80000310 (Syntax error)"},
    {0x80000311, "0x80000311 (GUID syntax error)"},
    {0x80000312, "0x80000312 (OID syntax error)"},
    {0x80000313, "0x80000313 (DateTime syntax error)"},
    {0x80000314, "0x80000314 (Unknown result code)"},
    // Facility 1.
    {0x80010100, "0x80010100 (Unspecified platform error)"},
    {0x80010101, "0x80010101 (Invalid handle)"},
    {0x80010102, "0x80010102 (File not found)"},
    {0x80010103, "0x80010103 (Path not found)"},
    {0x80010104, "0x80010104 (Sharing violation)"},
    {0x80010105, "0x80010105 (Already exists)"},
    {0x80010106, "0x80010106 (Wait abandoned)"},
    {0x80010107, "0x80010107 (Symbol not found)"},
    {0x80010108, "0x80010108 (Sxs is incorrect)"},
    {0x80010109, "0x80010109 (Invalid path name)"},
    {0x8001010A, "0x8001010a (Unknown result code)"},
    {0x8001010F, "0x8001010f (Unknown result code)"},
    {0x80010110, "0x80010110 (Cannot open an anonymous level security token)"},
    {0x80010111, "0x80010111 (Password is invalid)"},
    {0x80010112, "0x80010112 (Module not found)"},
    {0x80010113, "0x80010113 (System image bad signature)"},
    {0x80010114, "0x80010114 (Cloud file request aborted)"},
    {0x80010115, "0x80010115 (Memory mapping failed)"},
    {0x80010116, "0x80010116 (Network error)"},
    {0x80010117, "0x80010117 (System image bad format)"},
    {0x80010118, "0x80010118 (System shutdown in progress)"},
    {0x80010119, "0x80010119 (Unknown result code)"},
    {0x800100FF, "0x800100ff (Unknown result code)"},
    // Facility 6 codes never have a text.
    {0x80060004, "0x80060004 (Unknown result code)"},
    {0x8006000B, "0x8006000b (Unknown result code)"},
    {0xFFFFFFFF, "0xffffffff (Unknown result code)"},
};

void PrintTo(const CodeCase& c, std::ostream* os) {
    *os << std::hex << c.code;
}

class ResultFormatTest : public testing::TestWithParam<CodeCase> {};

TEST_P(ResultFormatTest, FormatsWithEightDigitsAndText) {
    const auto& c = GetParam();
    EXPECT_EQ(qor::FormatResult(static_cast<qor::result_t>(c.code)), c.formatted);
}

INSTANTIATE_TEST_SUITE_P(AllCodes, ResultFormatTest, testing::ValuesIn(kCodes));

struct ErrnoCase {
    int error;
    std::uint32_t code;
};

const ErrnoCase kErrnos[] = {
    {0, 0x00000000},  {1, 0x80000045},     {13, 0x80000045},         {2, 0x80010102},
    {5, 0x80000059},  {8, 0x80010117},     {9, 0x80010101},          {12, 0x80000041},
    {16, 0x8000004F}, {26, 0x8000004F},    {17, 0x80010105},         {20, 0x80010103},
    {22, 0x80000046}, {27, 0x80000078},    {28, 0x80000062},         {36, 0x8000005C},
    {40, 0x8000006A}, {75, 0x80000044},    {65535, 0x80010107},      {65536, 0x80010100},
    {-1, 0x80010100}, {-22, 0x80010100},   {4, 0x80060004},          {11, 0x8006000B},
    {3, 0x80060003},  {65534, 0x8006FFFE}, {0x7FFFFFFF, 0x80010100},
};

void PrintTo(const ErrnoCase& c, std::ostream* os) {
    *os << "errno " << c.error;
}

class ErrnoMapTest : public testing::TestWithParam<ErrnoCase> {};

TEST_P(ErrnoMapTest, MapsToResult) {
    const auto& c = GetParam();
    EXPECT_EQ(static_cast<std::uint32_t>(qor::ErrnoToResult(c.error)), c.code)
        << "errno " << c.error;
}

INSTANTIATE_TEST_SUITE_P(Table, ErrnoMapTest, testing::ValuesIn(kErrnos));

TEST(ResultTest, FacilityAndSuccess) {
    EXPECT_EQ(qor::ResultFacility(static_cast<qor::result_t>(0x80060004)), 6u);
    EXPECT_EQ(qor::ResultFacility(static_cast<qor::result_t>(0x80010109)), 1u);
    EXPECT_EQ(qor::ResultFacility(qor::errors::kNotFound), 0u);
    EXPECT_TRUE(QOR_SUCCEEDED(1));
    EXPECT_TRUE(QOR_SUCCEEDED(0));
    EXPECT_FALSE(QOR_SUCCEEDED(qor::errors::kUnspecified));
}

}  // namespace
