#include "host/cli/man_page.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using nti::host::RoffEscape;

TEST(RoffEscapeTest, ControlCharactersCannotBecomeRequests) {
    EXPECT_EQ(RoffEscape("--trace-file"), "\\-\\-trace\\-file");
    EXPECT_EQ(RoffEscape("C:\\path"), "C:\\epath");
    // A line starting with '.' or '\'' would be read as a roff request.
    EXPECT_EQ(RoffEscape(".so /etc/passwd\n'br"), "\\&.so /etc/passwd\n\\&'br");
    EXPECT_EQ(RoffEscape("mid.line 'quote'"), "mid.line 'quote'");
}

}  // namespace
