#include "host/cli/man_page.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

namespace nti::host {

namespace {

std::string Upper(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

// Paragraphs: a blank line in the description starts a new one.
void WriteText(std::ostream& out, std::string_view text) {
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        out << (line.empty() ? std::string(".PP") : RoffEscape(line)) << '\n';
    }
}

void WriteOptions(std::ostream& out, const CLI::App& app) {
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_group().empty()) {
            continue;
        }
        out << ".TP\n";
        std::string names = option->get_name(false, true);
        for (std::size_t comma = names.find(','); comma != std::string::npos;
             comma = names.find(',', comma + 2)) {
            names.replace(comma, 1, ", ");
        }
        out << "\\fB" << RoffEscape(names) << "\\fR";
        // The type name may carry validator text ("UINT:UINT in [0 - 1000]").
        const std::string type =
            option->get_type_name().substr(0, option->get_type_name().find(':'));
        if (option->get_type_size() > 0 && !type.empty()) {
            out << " \\fI" << RoffEscape(type) << "\\fR";
        }
        out << '\n';
        WriteText(out, option->get_description());
        if (!option->get_default_str().empty()) {
            out << ".br\nDefault: " << RoffEscape(option->get_default_str()) << ".\n";
        }
    }
}

}  // namespace

std::string RoffEscape(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 8);
    bool lineStart = true;
    for (const char c : text) {
        if (lineStart && (c == '.' || c == '\'')) {
            out += "\\&";
        }
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else {
            out += c;
        }
        lineStart = c == '\n';
    }
    return out;
}

std::string RenderManPage(const CLI::App& app, std::string_view name, std::string_view version,
                          const ManSections& more) {
    std::ostringstream out;
    std::string body = app.get_description();
    if (const std::string lead = std::string(name) + " - "; body.starts_with(lead)) {
        body.erase(0, lead.size());
    }
    // The summary is the first paragraph on one line.
    std::string summary = body.substr(0, body.find("\n\n"));
    std::replace(summary.begin(), summary.end(), '\n', ' ');
    // The date is plain YYYY-MM-DD: escaped, its hyphens would print as minus signs.
    out << ".TH " << Upper(name) << " 1 \"" << more.date << "\" \"" << RoffEscape(name) << ' '
        << RoffEscape(version) << "\" \"User Commands\"\n";
    out << ".SH NAME\n" << RoffEscape(name) << " \\- " << RoffEscape(summary) << '\n';
    const auto subcommands =
        app.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); });
    out << ".SH SYNOPSIS\n.B " << RoffEscape(name) << "\n[\\fIOPTIONS\\fR]";
    if (!subcommands.empty()) {
        out << " \\fICOMMAND\\fR [\\fICOMMAND OPTIONS\\fR]";
    }
    out << "\n.SH DESCRIPTION\n";
    WriteText(out, body);
    out << ".SH OPTIONS\n";
    WriteOptions(out, app);
    if (!subcommands.empty()) {
        out << ".SH COMMANDS\n";
        for (const CLI::App* sub : subcommands) {
            out << ".SS " << RoffEscape(sub->get_name()) << '\n';
            WriteText(out, sub->get_description());
            WriteOptions(out, *sub);
        }
    }
    const auto section = [&out](const char* title, const std::string& text) {
        if (!text.empty()) {
            out << ".SH " << title << '\n';
            WriteText(out, text);
        }
    };
    section("EXIT STATUS", more.exitStatus);
    section("ENVIRONMENT", more.environment);
    section("FILES", more.files);
    if (!more.examples.empty()) {
        out << ".SH EXAMPLES\n";
        for (const std::string& example : more.examples) {
            out << ".PP\n.nf\n" << RoffEscape(example) << "\n.fi\n";
        }
    }
    if (!more.seeAlso.empty()) {
        out << ".SH SEE ALSO\n";
        for (std::size_t i = 0; i < more.seeAlso.size(); ++i) {
            const std::string& page = more.seeAlso[i];
            const std::size_t paren = std::min(page.find('('), page.size());
            out << ".BR " << RoffEscape(page.substr(0, paren)) << ' '
                << RoffEscape(page.substr(paren)) << (i + 1 < more.seeAlso.size() ? "," : "")
                << '\n';
        }
    }
    return out.str();
}

}  // namespace nti::host
