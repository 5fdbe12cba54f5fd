// vexo-media ls: one line per recording.
#include <cstdio>

#include "catalog.h"
#include "cli_args.h"
#include "commands.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

const char kHelp[] =
    "usage: vexo-media ls [--data DIR] [--device D]\n"
    "\n"
    "Lists the recordings of the data directory (default ./vexo-data/cloud), one per line: "
    "device,\n"
    "start (local time and epoch seconds), end (or 'open'), duration, media files, bytes and\n"
    "the md5 of the recording's key. A recording whose recording.json is damaged is listed\n"
    "from its directory and files alone, with a warning on stderr; the exit status is then 1.\n"
    "\n"
    "  --data DIR    the cloud service's data directory\n"
    "  --device D    only this device\n";

std::string key_md5_of(const Recording &recording) {
    if (!recording.key_md5.empty()) {
        return recording.key_md5;
    }
    vexo_media::Key key{};
    return vexo_media::key_from_text(recording.key, &key) ? vexo_media::key_md5(key) : "-";
}

} // namespace

int run_ls(const std::vector<std::string> &args) {
    const CliArgs cli(args, {"--data", "--device"}, {});
    if (cli.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    if (!cli.positional().empty()) {
        throw ToolError("ls takes no arguments besides its options");
    }
    std::vector<std::string> damaged;
    const std::vector<Recording> recordings = load_recordings(
        cli.value_or("--data", kDefaultDataDir), cli.value_or("--device", ""), &damaged);
    for (const std::string &line : damaged) {
        std::fprintf(stderr, "vexo-media ls: warning: %s (listed without its metadata)\n",
                     line.c_str());
    }
    std::printf("%-20s %-19s %-10s %-19s %-16s %5s %12s  %s\n", "DEVICE", "START", "EPOCH", "END",
                "DURATION", "FILES", "BYTES", "KEY MD5");
    for (const Recording &r : recordings) {
        uint64_t bytes = 0;
        for (const vexo_cloud::MediaFileInfo &file : r.files) {
            bytes += file.bytes;
        }
        const bool broken = metadata_damage(r, damaged).has_value();
        const bool open = r.end_time == 0;
        const std::string end = broken ? "damaged" : open ? "open" : local_time_text(r.end_time);
        const std::string duration = broken ? "?"
                                     : open ? "-"
                                     : r.end_time < r.start_time
                                         ? "?"
                                         : duration_text(r.end_time - r.start_time);
        std::printf("%-20s %-19s %-10u %-19s %-16s %5zu %12llu  %s\n", r.device.c_str(),
                    local_time_text(r.start_time).c_str(), r.start_time, end.c_str(),
                    duration.c_str(), media_paths(r).size(), static_cast<unsigned long long>(bytes),
                    key_md5_of(r).c_str());
    }
    return damaged.empty() ? kExitOk : kExitFault;
}

} // namespace vexo_tool
