// Printing faults the same way in every command: "<file>: offset N: message", indented under
// the recording's line, at most a screenful of them.
#ifndef VEXO_MEDIA_FAULT_LINES_H
#define VEXO_MEDIA_FAULT_LINES_H

#include <string>
#include <vector>

#include "media_format.h"

namespace vexo_tool {

/// "<file name>: offset N: message" (the file without its directory: the recording's line
/// above names the directory).
std::string fault_line(const vexo_media::Fault &fault);

/// Prints each line indented, the first kMaxFaultLines of them and then how many more.
void print_fault_lines(const std::vector<std::string> &lines);

constexpr size_t kMaxFaultLines = 20;

} // namespace vexo_tool

#endif
