// Command-line parsing for the media tool.
#include "cli_args.h"

#include "tool_error.h"

namespace vexo_tool {

CliArgs::CliArgs(const std::vector<std::string> &args, const std::set<std::string> &valued,
                 const std::set<std::string> &flags) {
    bool options_done = false;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
            positional_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_done = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            flags_.insert("--help");
            continue;
        }
        if (arg == "-o" && valued.count("--output") != 0) {
            arg = "--output";
        }
        std::optional<std::string> inline_value;
        const size_t equals = arg.find('=');
        if (equals != std::string::npos) {
            inline_value = arg.substr(equals + 1);
            arg.resize(equals);
        }
        if (valued.count(arg) != 0) {
            if (inline_value) {
                values_[arg] = *inline_value;
            } else if (i + 1 < args.size()) {
                values_[arg] = args[++i];
            } else {
                throw ToolError("option " + arg + " needs a value");
            }
        } else if (flags.count(arg) != 0 && !inline_value) {
            flags_.insert(arg);
        } else {
            throw ToolError("unknown option " + args[i]);
        }
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
