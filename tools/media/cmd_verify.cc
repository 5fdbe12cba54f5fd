// vexo-media verify: checks recordings' media files and reports every fault.
#include <cstdio>

#include "catalog.h"
#include "cli_args.h"
#include "commands.h"
#include "fault_lines.h"
#include "media_stage.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

const char kHelp[] =
    "usage: vexo-media verify [--data DIR] [--db URL] [--media URL] [--device D] [--key TEXT]\n"
    "                         [START...]\n"
    "\n"
    "Checks the media files of the recordings starting at START (epoch seconds), or of every\n"
    "recording: entry structure, cipher lengths, the first entry of each file, time stamp\n"
    "order, and - with the recording's key or --key - decryption of every encrypted entry.\n"
    "Prints one line per recording, 'ok' or its faults as '<file>: offset N: message'.\n"
    "A damaged recording.json is a fault of its recording; its files are then checked with\n"
    "--key, or for their structure alone.\n"
    "Exit status 0 only when every recording is ok.\n"
    "\n"
    "  --data DIR    the cloud service's data directory (default ./vexo-data/cloud, where "
    "vexo-camsim keeps its cloud)\n"
    "  --db URL      the service's --db (postgresql://...): the metadata are read there\n"
    "  --media URL   where the service kept the media files (its --media: file:DIR or\n"
    "                s3://BUCKET?endpoint=URL&region=R with $AWS_ACCESS_KEY_ID and\n"
    "                $AWS_SECRET_ACCESS_KEY)\n"
    "  --device D    only this device\n"
    "  --key TEXT    the 16-character key to decrypt with, instead of the recording's own\n";

std::string counts_text(const vexo_media::VerifyReport &report) {
    const uint64_t span_ms =
        report.entries == 0 ? 0 : report.last_timestamp - report.first_timestamp;
    char text[256];
    std::snprintf(text, sizeof text,
                  "%llu files, %llu entries (%llu video, %llu key, %llu audio), %llu bytes, "
                  "%.1f s",
                  static_cast<unsigned long long>(report.files),
                  static_cast<unsigned long long>(report.entries),
                  static_cast<unsigned long long>(report.video_frames),
                  static_cast<unsigned long long>(report.key_frames),
                  static_cast<unsigned long long>(report.audio_frames),
                  static_cast<unsigned long long>(report.bytes),
                  static_cast<double>(span_ms) / 1000);
    return text;
}

/// Checks one recording and prints its lines; true when it is ok. damage: why its
/// recording.json could not be used, when it could not.
bool verify_one(const Recording &recording, const std::optional<std::string> &key_text,
                const std::optional<std::string> &damage) {
    const std::optional<vexo_media::Key> key = recording_key(recording, key_text);
    vexo_media::VerifyReport report =
        vexo_media::verify_files(media_paths(recording), key ? &*key : nullptr);
    std::vector<std::string> problems;
    if (damage) {
        problems.push_back("recording.json: " + *damage);
    }
    if (key && !key_text && !recording.key_md5.empty() &&
        vexo_media::key_md5(*key) != recording.key_md5) {
        problems.push_back("recording.json: its key does not match its keyMd5 " +
                           recording.key_md5);
    }
    for (const vexo_media::Fault &fault : report.faults) {
        problems.push_back(fault_line(fault));
    }
    std::printf("%s %u: %s%s: %s\n", recording.device.c_str(), recording.start_time,
                counts_text(report).c_str(), key ? "" : " (no key: decryption not checked)",
                problems.empty() ? "ok" : (std::to_string(problems.size()) + " faults").c_str());
    print_fault_lines(problems);
    return problems.empty();
}

} // namespace

int run_verify(const std::vector<std::string> &args) {
    const CliArgs cli(args, {"--data", "--media", "--device", "--key", "--db"}, {});
    if (cli.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    std::vector<std::string> damaged;
    std::vector<Recording> all =
        load_recordings(cli.value_or("--data", kDefaultDataDir), cli.value_or("--device", ""),
                        &damaged, cli.value_or("--db", ""));
    MediaStage stage(cli.value_or("--media", ""));
    stage.place(&all);
    const std::vector<Recording> chosen =
        cli.positional().empty() ? all : select_starts(all, cli.positional());
    if (chosen.empty()) {
        std::printf("no recordings\n");
        return kExitOk;
    }
    bool all_ok = true;
    for (const Recording &recording : chosen) {
        all_ok = verify_one(recording, cli.value("--key"), metadata_damage(recording, damaged)) &&
                 all_ok;
    }
    return all_ok ? kExitOk : kExitFault;
}

} // namespace vexo_tool
