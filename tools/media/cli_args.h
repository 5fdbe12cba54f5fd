// A small command-line parser shared by the commands: "--name value", "--name=value", flags,
// and positional arguments.
#ifndef VEXO_MEDIA_CLI_ARGS_H
#define VEXO_MEDIA_CLI_ARGS_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vexo_tool {

class CliArgs {
  public:
    /// Parses args (without the program and command names). valued: options that take a
    /// value; flags: options that do not ("-h" and "--help" are always flags). "-o" is accepted
    /// as a short form of "--output" when "--output" is valued. Throws ToolError on an unknown
    /// option or a missing value.
    CliArgs(const std::vector<std::string> &args, const std::set<std::string> &valued,
            const std::set<std::string> &flags);

    bool help() const { return flag("--help"); }
    bool flag(const std::string &name) const { return flags_.count(name) != 0; }
    std::optional<std::string> value(const std::string &name) const;
    std::string value_or(const std::string &name, const std::string &fallback) const;
    const std::vector<std::string> &positional() const { return positional_; }

  private:
    std::map<std::string, std::string> values_;
    std::set<std::string> flags_;
    std::vector<std::string> positional_;
};

} // namespace vexo_tool

#endif
