// The option table the host tools read their command lines with: a table of command lines,
// each with what the handlers saw, the operands, or the refusal.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "option_table.h"

namespace {

struct Seen {
    std::vector<std::string> calls; // "name=value" in order
};

std::vector<vexo_cli::Option> table(Seen *seen) {
    auto record = [seen](const char *name) {
        return [seen, name](const std::string &value, std::string *error) {
            if (value == "bad") {
                *error = std::string("bad ") + name;
                return false;
            }
            seen->calls.push_back(std::string(name) + "=" + value);
            return true;
        };
    };
    return {
        {"--data", true, "  --data DIR\n", record("--data")},
        {"--all", false, "  --all\n", record("--all")},
        {"-v", false, "", record("-v")},
        {"--help", false, "  --help\n", record("--help"), true},
    };
}

/// The words of a command line, a list of calls or of operands, written with spaces.
std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string word; in >> word;) {
        out.push_back(word);
    }
    return out;
}

struct Case {
    const char *name;
    const char *args;
    vexo_cli::Syntax syntax;
    const char *calls;
    const char *operands;
    const char *error; // empty: accepted
};

vexo_cli::Syntax with(std::initializer_list<void (*)(vexo_cli::Syntax *)> changes) {
    vexo_cli::Syntax s;
    for (auto change : changes) {
        change(&s);
    }
    return s;
}

void operands(vexo_cli::Syntax *s) {
    s->operands = true;
}
void inline_values(vexo_cli::Syntax *s) {
    s->inline_values = true;
}
void double_dash(vexo_cli::Syntax *s) {
    s->double_dash = true;
}
void last_word(vexo_cli::Syntax *s) {
    s->last_word_needs_value = true;
    s->stray_word = "stray {}";
}
void long_operands(vexo_cli::Syntax *s) {
    s->operands = true;
    s->operand_prefix = "--";
    s->unknown_option = "no {} here";
}

TEST(OptionTable, ReadsEachCommandLineAsItsSyntaxSays) {
    const Case cases[] = {
        {"values and flags in order", "--all --data d -v", {}, "--all= --data=d -v=", "", ""},
        {"a value may look like an option", "--data --all", {}, "--data=--all", "", ""},
        {"repeated option in order", "--data a --data b", {}, "--data=a --data=b", "", ""},
        {"unknown option", "--bogus x", {}, "", "", "unknown option --bogus"},
        {"missing value", "--all --data", {}, "--all=", "", "missing value for --data"},
        {"a handler refuses", "--data bad --all", {}, "", "", "bad --data"},
        {"help ends the line", "--help --bogus", {}, "--help=", "", ""},
        {"a word without operands", "word x", {}, "", "", "unknown option word"},
        {"operands between options", "a --data d - b", with({operands}), "--data=d", "a - b", ""},
        {"inline value", "--data=d=e --all", with({inline_values}), "--data=d=e --all=", "", ""},
        {"an inline value on a flag", "--all=1", with({inline_values}), "", "",
         "unknown option --all=1"},
        {"no inline value without the syntax", "--data=d", {}, "", "", "unknown option --data=d"},
        {"double dash ends the options", "--all -- --data -v", with({operands, double_dash}),
         "--all=", "--data -v", ""},
        {"double dash is a word without the syntax", "--", {}, "", "", "unknown option --"},
        {"last word: a known option", "--all --data", with({last_word}), "--all=", "",
         "missing value for --data"},
        {"last word: an unknown option", "--bogus", with({last_word}), "", "",
         "missing value for --bogus"},
        {"last word: no option", "-x", with({last_word}), "", "", "stray -x"},
        {"last word: a flag is fine", "--data d -v", with({last_word}), "--data=d -v=", "", ""},
        {"operands by a long prefix", "cam -x --data d", with({long_operands}), "--data=d",
         "cam -x", ""},
        {"message template", "--bogus 1", with({long_operands}), "", "", "no --bogus here"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Seen seen;
        std::vector<std::string> got_operands;
        std::string error;
        const bool ok =
            vexo_cli::parse_options(words(c.args), table(&seen), c.syntax, &got_operands, &error);
        EXPECT_EQ(ok, std::string(c.error).empty());
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(seen.calls, words(c.calls));
        EXPECT_EQ(got_operands, words(c.operands));
    }
}

TEST(OptionTable, HelpIsTheOptionsLinesInTableOrder) {
    Seen seen;
    EXPECT_EQ(vexo_cli::options_help(table(&seen)), "  --data DIR\n  --all\n  --help\n");
}

} // namespace
