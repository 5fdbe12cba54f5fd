// Fault lines on stdout.
#include "fault_lines.h"

#include <cstdio>

#include "catalog.h"

namespace vexo_tool {

std::string fault_line(const vexo_media::Fault &fault) {
    return base_name(fault.file) + ": offset " + std::to_string(fault.offset) + ": " +
           fault.message;
}

void print_fault_lines(const std::vector<std::string> &lines) {
    for (size_t i = 0; i < lines.size() && i < kMaxFaultLines; ++i) {
        std::printf("  %s\n", lines[i].c_str());
    }
    if (lines.size() > kMaxFaultLines) {
        std::printf("  ... and %zu more\n", lines.size() - kMaxFaultLines);
    }
}

} // namespace vexo_tool
