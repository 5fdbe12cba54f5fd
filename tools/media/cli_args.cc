// Command-line parsing for the media tool, on the shared option table.
#include "cli_args.h"

#include "option_table.h"
#include "tool_error.h"

namespace vexo_tool {

CliArgs::CliArgs(const std::vector<std::string> &args, const std::set<std::string> &valued,
                 const std::set<std::string> &flags) {
    std::vector<vexo_cli::Option> table;
    for (const std::string &name : valued) {
        table.push_back({name, true, "", [this, name](const std::string &value, std::string *) {
                             values_[name] = value;
                             return true;
                         }});
    }
    for (const std::string &name : flags) {
        table.push_back({name, false, "", [this, name](const std::string &, std::string *) {
                             flags_.insert(name);
                             return true;
                         }});
    }
    for (const char *help : {"-h", "--help"}) {
        table.push_back({help, false, "", [this](const std::string &, std::string *) {
                             flags_.insert("--help");
                             return true;
                         }});
    }
    vexo_cli::Syntax syntax;
    syntax.operands = true;
    syntax.inline_values = true;
    syntax.double_dash = true;
    syntax.missing_value = "option {} needs a value";
    // "-o" is the short form of "--output" where that takes a value.
    std::vector<std::string> words = args;
    if (valued.count("--output") != 0) {
        for (std::string &word : words) {
            word = word == "-o" ? "--output" : word;
        }
    }
    std::string error;
    if (!vexo_cli::parse_options(words, table, syntax, &positional_, &error)) {
        throw ToolError(error);
    }
}

std::optional<std::string> CliArgs::value(const std::string &name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::string CliArgs::value_or(const std::string &name, const std::string &fallback) const {
    return value(name).value_or(fallback);
}

} // namespace vexo_tool
