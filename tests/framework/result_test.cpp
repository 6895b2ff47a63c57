#include "qor/result.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

TEST(ResultTest, FormatsEightDigitsAndTheTextOfItsFacility) {
    const struct {
        std::uint32_t code;
        const char* formatted;
    } cases[] = {
        {0x00000000, "0x00000000 (No error)"},
        {0x00000001, "0x00000001 (False)"},
        {0x00000002, "0x00000002 (Unknown result code)"},
        {0x8000004A, "0x8000004a (Not matched)"},
        {0x8000004E, "0x8000004e (Unknown result code)"},
        {0x80000313, "0x80000313 (DateTime syntax error)"},
        {0x80000314, "0x80000314 (Unknown result code)"},
        {0x80010100, "0x80010100 (Unspecified platform error)"},
        {0x80010118, "0x80010118 (System shutdown in progress)"},
        {0x80010119, "0x80010119 (Unknown result code)"},
        // Raw errno codes (facility 6) never have a text.
        {0x80060004, "0x80060004 (Unknown result code)"},
        {0xFFFFFFFF, "0xffffffff (Unknown result code)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(qor::FormatResult(static_cast<qor::result_t>(c.code)), c.formatted);
    }
}

TEST(ResultTest, ErrnoMapsToItsCodeOrToFacilitySix) {
    const struct {
        int error;
        std::uint32_t code;
    } cases[] = {
        {0, 0x00000000},          {1, 0x80000045},     {13, 0x80000045},    {2, 0x80010102},
        {16, 0x8000004F},         {26, 0x8000004F},    {75, 0x80000044},    {65535, 0x80010107},
        {4, 0x80060004},          {65534, 0x8006FFFE}, {65536, 0x80010100}, {-1, 0x80010100},
        {0x7FFFFFFF, 0x80010100},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(static_cast<std::uint32_t>(qor::ErrnoToResult(c.error)), c.code)
            << "errno " << c.error;
    }
    EXPECT_EQ(qor::ResultFacility(static_cast<qor::result_t>(0x80060004)), 6u);
    EXPECT_EQ(qor::ResultFacility(static_cast<qor::result_t>(0x80010109)), 1u);
}

}  // namespace
