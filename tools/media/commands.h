// The commands of vexo-media; each takes the arguments after its name and returns the exit
// status (see tool_error.h).
#ifndef VEXO_MEDIA_COMMANDS_H
#define VEXO_MEDIA_COMMANDS_H

#include <string>
#include <vector>

namespace vexo_tool {

int run_ls(const std::vector<std::string> &args);
int run_verify(const std::vector<std::string> &args);
int run_export(const std::vector<std::string> &args);

} // namespace vexo_tool

#endif
