// Reading a command line against an option table.
#include "option_table.h"

#include <optional>

namespace vexo_cli {
namespace {

bool starts_with(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string message(const std::string &pattern, const std::string &word) {
    const size_t at = pattern.find("{}");
    if (at == std::string::npos) {
        return pattern + word;
    }
    return pattern.substr(0, at) + word + pattern.substr(at + 2);
}

const Option *find(const std::vector<Option> &table, const std::string &name) {
    for (const Option &option : table) {
        if (option.name == name) {
            return &option;
        }
    }
    return nullptr;
}

bool fail(std::string *error, const std::string &pattern, const std::string &word) {
    *error = message(pattern, word);
    return false;
}

} // namespace

bool parse_options(const std::vector<std::string> &args, const std::vector<Option> &table,
                   const Syntax &syntax, std::vector<std::string> *operands, std::string *error) {
    bool options_done = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &word = args[i];
        if (!options_done && syntax.double_dash && word == "--") {
            options_done = true;
            continue;
        }
        const bool operand =
            options_done || word == "-" || !starts_with(word, syntax.operand_prefix);
        if (syntax.operands && operand) {
            operands->push_back(word);
            continue;
        }
        std::string name = word;
        std::optional<std::string> inline_value;
        if (syntax.inline_values && starts_with(word, "--")) {
            const size_t equals = word.find('=');
            if (equals != std::string::npos) {
                inline_value = word.substr(equals + 1);
                name.resize(equals);
            }
        }
        const Option *option = find(table, name);
        if (option != nullptr && !option->takes_value && !inline_value) {
            if (!option->handler("", error)) {
                return false;
            }
            if (option->ends_parsing) {
                return true;
            }
            continue;
        }
        const bool last = i + 1 >= args.size();
        if (syntax.last_word_needs_value && last && !inline_value) {
            return fail(error, starts_with(word, "--") ? syntax.missing_value : syntax.stray_word,
                        word);
        }
        if (option == nullptr || (inline_value && !option->takes_value)) {
            return fail(error, syntax.unknown_option, word);
        }
        if (!inline_value && last) {
            return fail(error, syntax.missing_value, name);
        }
        const std::string value = inline_value ? *inline_value : args[++i];
        if (!option->handler(value, error)) {
            return false;
        }
        if (option->ends_parsing) {
            return true;
        }
    }
    return true;
}

std::string options_help(const std::vector<Option> &table) {
    std::string text;
    for (const Option &option : table) {
        text += option.help;
    }
    return text;
}

} // namespace vexo_cli
