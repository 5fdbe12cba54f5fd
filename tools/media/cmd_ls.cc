// vexo-media ls: one line per recording, and one per gap a device reported, in time order.
#include <cstdio>
#include <ctime>
#include <tuple>

#include "catalog.h"
#include "cli_args.h"
#include "commands.h"
#include "service/store/recording_listing.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

using vexo_cloud::RecordingStatus;

const char kHelp[] =
    "usage: vexo-media ls [--data DIR] [--db URL] [--device D]\n"
    "\n"
    "Lists the recordings of the data directory (default ./vexo-data/cloud), one per line: "
    "device,\n"
    "start (local time and epoch seconds), end, duration, media files, bytes and the md5 of\n"
    "the recording's key. A recording without an end is 'open' while the camera may still be\n"
    "recording it, and 'left open by the camera' once a later recording of the device exists\n"
    "or nothing newer than 3 slice lengths + 60 s came for it. Between the recordings, by\n"
    "time, a line 'gap  <from> - <to>  <reason>  <size> dropped' for each stretch the camera\n"
    "reported it had to drop while the cloud could not be reached. A recording whose\n"
    "recording.json (or a device whose gaps.json) is damaged is listed without it, with a\n"
    "warning on stderr; the exit status is then 1.\n"
    "\n"
    "  --data DIR    the cloud service's data directory\n"
    "  --db URL      the service's --db (postgresql://...): the metadata are read there\n"
    "  --device D    only this device\n";

std::string key_md5_of(const Recording &recording) {
    if (!recording.key_md5.empty()) {
        return recording.key_md5;
    }
    vexo_media::Key key{};
    return vexo_media::key_from_text(recording.key, &key) ? vexo_media::key_md5(key) : "-";
}

void print_recording(const Recording &r, RecordingStatus status, bool broken) {
    uint64_t bytes = 0;
    for (const vexo_cloud::MediaFileInfo &file : r.files) {
        bytes += file.bytes;
    }
    const bool closed = status == RecordingStatus::kClosed;
    const std::string end = broken   ? "damaged"
                            : closed ? vexo_cloud::local_time_text(r.end_time)
                                     : vexo_cloud::recording_status_text(status);
    const std::string duration = broken || (closed && r.end_time < r.start_time) ? "?"
                                 : !closed                                       ? "-"
                                           : vexo_cloud::duration_text(r.end_time - r.start_time);
    std::printf("%-20s %-19s %-10u %-23s %-16s %5zu %12llu  %s\n", r.device.c_str(),
                vexo_cloud::local_time_text(r.start_time).c_str(), r.start_time, end.c_str(),
                duration.c_str(), media_paths(r).size(), static_cast<unsigned long long>(bytes),
                key_md5_of(r).c_str());
}

void print_gap(const Gap &gap) {
    std::printf("%-20s %s\n", gap.device.c_str(), vexo_cloud::gap_text(gap).c_str());
}

} // namespace

int run_ls(const std::vector<std::string> &args) {
    const CliArgs cli(args, {"--data", "--device", "--db"}, {});
    if (cli.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    if (!cli.positional().empty()) {
        throw ToolError("ls takes no arguments besides its options");
    }
    const std::string data_dir = cli.value_or("--data", kDefaultDataDir);
    const std::string device = cli.value_or("--device", "");
    std::vector<std::string> damaged;
    const std::vector<Recording> recordings =
        load_recordings(data_dir, device, &damaged, cli.value_or("--db", ""));
    for (const std::string &line : damaged) {
        std::fprintf(stderr, "vexo-media ls: warning: %s (listed without its metadata)\n",
                     line.c_str());
    }
    std::vector<std::string> damaged_gaps;
    const std::vector<Gap> gaps =
        load_gaps(data_dir, device, &damaged_gaps, cli.value_or("--db", ""));
    for (const std::string &line : damaged_gaps) {
        std::fprintf(stderr, "vexo-media ls: warning: %s (its gaps are not listed)\n",
                     line.c_str());
    }
    const std::vector<RecordingStatus> statuses =
        vexo_cloud::recording_statuses(recordings, static_cast<uint32_t>(std::time(nullptr)));

    std::printf("%-20s %-19s %-10s %-23s %-16s %5s %12s  %s\n", "DEVICE", "START", "EPOCH", "END",
                "DURATION", "FILES", "BYTES", "KEY MD5");
    // Both lists are ordered by device, then time: merge them.
    size_t g = 0;
    for (size_t i = 0; i < recordings.size(); ++i) {
        const Recording &r = recordings[i];
        for (; g < gaps.size() &&
               std::tie(gaps[g].device, gaps[g].from) < std::tie(r.device, r.start_time);
             ++g) {
            print_gap(gaps[g]);
        }
        print_recording(r, statuses[i], metadata_damage(r, damaged).has_value());
    }
    for (; g < gaps.size(); ++g) {
        print_gap(gaps[g]);
    }
    return damaged.empty() && damaged_gaps.empty() ? kExitOk : kExitFault;
}

} // namespace vexo_tool
