#include "host/cli/man_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using nti::host::RoffEscape;
using testing::HasSubstr;
using testing::Not;

TEST(RoffEscapeTest, ControlCharactersCannotBecomeRequests) {
    EXPECT_EQ(RoffEscape("--trace-file"), "\\-\\-trace\\-file");
    EXPECT_EQ(RoffEscape("C:\\path"), "C:\\epath");
    // A line starting with '.' or '\'' would be read as a roff request.
    EXPECT_EQ(RoffEscape(".so /etc/passwd\n'br"), "\\&.so /etc/passwd\n\\&'br");
    EXPECT_EQ(RoffEscape("mid.line 'quote'"), "mid.line 'quote'");
}

// nti's own page lists the common options, including the journal sink.
TEST(ManPageTest, NtiPrintsItsPage) {
    FILE* out = popen(NTI_BIN " --man", "r");
    ASSERT_NE(out, nullptr);
    std::string page;
    char chunk[4096];
    for (std::size_t n; (n = fread(chunk, 1, sizeof(chunk), out)) > 0;) {
        page.append(chunk, n);
    }
    EXPECT_EQ(pclose(out), 0);
    EXPECT_THAT(page, testing::ContainsRegex("^\\.TH NTI 1 \"[0-9]{4}-[0-9]{2}-[0-9]{2}\" "));
    for (const char* option :
         {"\\-\\-module", "\\-\\-trace\\-level", "\\-\\-trace\\-file", "\\-\\-trace\\-journal",
          "\\-\\-version", ".SS info", ".SH EXIT STATUS\n", ".SH ENVIRONMENT\n", ".SH FILES\n",
          ".SH EXAMPLES\n", ".SH SEE ALSO\n.BR iptables (8),\n"}) {
        EXPECT_THAT(page, HasSubstr(option));
    }
    EXPECT_THAT(page, Not(HasSubstr("\\-\\-man")));
}

}  // namespace
