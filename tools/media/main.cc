// vexo-media: lists, checks and exports the recordings of a cloud data directory.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "tool_error.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

const char kUsage[] =
    "usage: vexo-media <command> [options]\n"
    "\n"
    "commands:\n"
    "  ls       list the recordings of a data directory\n"
    "  verify   check recordings' media files (structure, order, decryption)\n"
    "  export   decrypt recordings into MP4 or Matroska files\n"
    "\n"
    "'vexo-media <command> --help' describes a command's options.\n"
    "Exit status: 0 all well, 1 a fault in the data, 2 the command could not run.\n";

} // namespace

int main(int argc, char **argv) {
    const std::vector<std::string> args(argv + (argc > 1 ? 2 : argc), argv + argc);
    const std::string command = argc > 1 ? argv[1] : "";
    // The tool reports faults itself; libav speaks only of its own errors.
    av_log_set_level(AV_LOG_ERROR);
    try {
        if (command == "ls") {
            return vexo_tool::run_ls(args);
        }
        if (command == "verify") {
            return vexo_tool::run_verify(args);
        }
        if (command == "export") {
            return vexo_tool::run_export(args);
        }
        if (command == "--help" || command == "-h" || command == "help") {
            std::fputs(kUsage, stdout);
            return vexo_tool::kExitOk;
        }
        if (!command.empty()) {
            std::fprintf(stderr, "vexo-media: unknown command '%s'\n", command.c_str());
        }
        std::fputs(kUsage, stderr);
        return vexo_tool::kExitError;
    } catch (const vexo_tool::ToolError &e) {
        std::fprintf(stderr, "vexo-media %s: %s\n", command.c_str(), e.what());
        return e.status();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "vexo-media %s: %s\n", command.c_str(), e.what());
        return vexo_tool::kExitError;
    }
}
