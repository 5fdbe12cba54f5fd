/// Command lines read against a table of options: each option's name, whether it takes a
/// value, its help text and what to do with it. The host tools (vexo-camsim, vexo-media,
/// vexo-cloud) read their command lines with it; their words and messages differ, which
/// Syntax describes.
#ifndef VEXO_OPTION_TABLE_H
#define VEXO_OPTION_TABLE_H

#include <functional>
#include <string>
#include <vector>

namespace vexo_cli {

/// Takes an option's value ("" for a flag); false with *error refuses it and ends parsing.
using OptionHandler = std::function<bool(const std::string &value, std::string *error)>;

struct Option {
    std::string name; ///< as written: "--data", "-v"
    bool takes_value = false;
    /// The option's lines in the usage, as printed (empty when it shares another's lines).
    std::string help;
    OptionHandler handler;
    /// Nothing after this option is read (--help): parsing ends with success after it.
    bool ends_parsing = false;
};

/// How a command line reads beyond its table. Messages are templates in which "{}" stands
/// for the word concerned.
struct Syntax {
    /// Words that do not begin with operand_prefix (and "-" alone) are operands, collected in
    /// order; without operands such a word is refused like an unknown option.
    bool operands = false;
    std::string operand_prefix = "-";
    /// "--name=value" gives a value in the same word.
    bool inline_values = false;
    /// "--" ends the options: every word after it is an operand.
    bool double_dash = false;
    /// A word last on the line that is neither a flag nor an operand is reported as
    /// missing_value when it begins with "--", else as stray_word (whether or not the table
    /// knows it).
    bool last_word_needs_value = false;
    std::string unknown_option = "unknown option {}";
    std::string missing_value = "missing value for {}";
    std::string stray_word = "unknown argument {}";
};

/// Reads args (the program's and command's names left out) in order, running each option's
/// handler. False with *error at the first word refused: by the syntax, or by a handler.
bool parse_options(const std::vector<std::string> &args, const std::vector<Option> &table,
                   const Syntax &syntax, std::vector<std::string> *operands, std::string *error);

/// The options' help lines, in table order.
std::string options_help(const std::vector<Option> &table);

} // namespace vexo_cli

#endif
