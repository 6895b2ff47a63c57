#include "host/cli/man_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

namespace {

using nti::host::RenderManPage;
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

TEST(ManPageTest, SectionsOptionsAndCommandsFromTheDefinition) {
    CLI::App app{"tool - do one thing\nwell\n\nMore about it.\n.starts with a dot"};
    std::string file;
    unsigned level = 300;
    bool flag = false;
    app.add_option("--file", file, "Where it goes");
    app.add_option("-l,--level", level, "How much")
        ->capture_default_str()
        ->check(CLI::Range(0u, 9u));
    app.add_flag("--quiet", flag, "Say less");
    app.add_flag("--secret", flag, "Not shown")->group("");
    auto* run = app.add_subcommand("run", "Run it");
    run->add_option("--times", level, "How often");
    app.add_subcommand("hidden", "Not listed")->group("");

    const std::string page = RenderManPage(app, "tool", "1.2.3");
    EXPECT_THAT(page, testing::StartsWith(".TH TOOL 1 \"\" \"tool 1.2.3\" \"User Commands\"\n"));
    EXPECT_THAT(page, HasSubstr(".SH NAME\ntool \\- do one thing well\n"));
    EXPECT_THAT(page,
                HasSubstr(".SH DESCRIPTION\ndo one thing\nwell\n.PP\nMore about it.\n\\&.starts"));
    EXPECT_THAT(page, HasSubstr(".TP\n\\fB\\-\\-file\\fR \\fITEXT\\fR\nWhere it goes\n"));
    EXPECT_THAT(
        page, HasSubstr("\\fB\\-l, \\-\\-level\\fR \\fIUINT\\fR\nHow much\n.br\nDefault: 300.\n"));
    EXPECT_THAT(page, HasSubstr(".TP\n\\fB\\-\\-quiet\\fR\nSay less\n"));
    EXPECT_THAT(page, HasSubstr(".SS run\nRun it\n"));
    EXPECT_THAT(page, HasSubstr(".TP\n\\fB\\-\\-times\\fR \\fIUINT\\fR\nHow often\n"));
    EXPECT_THAT(page, Not(HasSubstr("secret")));
    EXPECT_THAT(page, Not(HasSubstr("hidden")));
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
