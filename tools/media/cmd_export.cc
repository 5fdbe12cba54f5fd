// vexo-media export: one recording to a named file, or every recording into a directory.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

#include "catalog.h"
#include "cli_args.h"
#include "commands.h"
#include "export_job.h"
#include "fault_lines.h"
#include "media_stage.h"
#include "tool_error.h"

namespace vexo_tool {
namespace {

const char kHelp[] =
    "usage: vexo-media export [--data DIR] [--db URL] [--media URL] [--device D] [--key TEXT]\n"
    "                         START -o OUT.mp4|OUT.mkv\n"
    "       vexo-media export --all --out-dir DIR [--format mp4|mkv] [--data DIR] [--media URL]\n"
    "                         [--device D] [--key TEXT]\n"
    "\n"
    "Decrypts recordings and writes their video (copied) and audio into MP4 or Matroska, with\n"
    "the frames' own time stamps. AAC is copied; G.711 and PCM are copied into Matroska and\n"
    "encoded to AAC for MP4. --all names its files <device>_<start>.<ext>.\n"
    "A damaged media file is reported (file, offset); what was read before the damage is kept\n"
    "and the export goes on with the next file. Exit status 1 when a fault was met; 2 for a\n"
    "missing key, an unknown recording or an output that cannot be written. A recording whose\n"
    "recording.json is damaged cannot be exported (its codecs are not known): it is reported,\n"
    "--all goes on with the others, and the exit status is 1.\n"
    "\n"
    "  --data DIR      the cloud service's data directory (default ./vexo-data/cloud, where "
    "vexo-camsim keeps its cloud)\n"
    "  --db URL        the service's --db (postgresql://...): the metadata are read there\n"
    "  --media URL     where the service kept the media files (see vexo-media verify -h)\n"
    "  --device D      the recording's device (needed when two devices share a start)\n"
    "  --key TEXT      the 16-character key, instead of the recording's own\n"
    "  -o, --output F  the output file; its extension (.mp4, .mkv) chooses the container\n"
    "  --all           export every recording (of --device, when given)\n"
    "  --out-dir DIR   where --all writes (created when missing)\n"
    "  --format F      mp4 (default) or mkv, for --all\n";

std::optional<Container> container_named(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (name == "mp4") {
        return Container::kMp4;
    }
    if (name == "mkv" || name == "matroska") {
        return Container::kMkv;
    }
    return std::nullopt;
}

/// Exports one recording and prints its summary; returns its exit status. damage: why its
/// recording.json could not be used, when it could not.
int export_one(const Recording &recording, const std::optional<std::string> &damage,
               const std::optional<std::string> &key_text, const std::string &out_path,
               Container container) {
    const std::string name = recording.device + " " + std::to_string(recording.start_time);
    if (damage) {
        throw ToolError("recording " + name + " cannot be exported: " + metadata_path(recording) +
                            ": " + *damage + "; without it the codecs are not known",
                        kExitFault);
    }
    const std::optional<vexo_media::Key> key = recording_key(recording, key_text);
    if (!key) {
        throw ToolError("recording " + name + " has no key in its directory; give --key");
    }
    if (key_text && !recording.key_md5.empty() && vexo_media::key_md5(*key) != recording.key_md5) {
        std::printf("%s: note: the key given is not the one the recording names (keyMd5 %s)\n",
                    name.c_str(), recording.key_md5.c_str());
    }
    const ExportSummary s = export_recording(recording, *key, out_path, container, name);
    const double span = s.last_ms < 0 ? 0.0 : static_cast<double>(s.last_ms - s.first_ms) / 1000.0;
    std::printf("%s: %llu frames written (%llu video, %llu audio), %.1f s -> %s\n", name.c_str(),
                static_cast<unsigned long long>(s.video_frames + s.audio_frames),
                static_cast<unsigned long long>(s.video_frames),
                static_cast<unsigned long long>(s.audio_frames), span, out_path.c_str());
    if (s.skipped != 0) {
        std::printf("  %llu entries left out (P frames without their key frame, or audio the "
                    "recording did not announce)\n",
                    static_cast<unsigned long long>(s.skipped));
    }
    if (s.adjusted != 0) {
        std::printf("  %llu time stamps moved forward to keep their stream increasing\n",
                    static_cast<unsigned long long>(s.adjusted));
    }
    std::vector<std::string> lines;
    for (const vexo_media::Fault &fault : s.faults) {
        lines.push_back(fault_line(fault));
    }
    print_fault_lines(lines);
    return s.faults.empty() ? kExitOk : kExitFault;
}

int export_single(const CliArgs &cli, const std::vector<Recording> &all,
                  const std::vector<std::string> &damaged) {
    if (cli.positional().size() != 1) {
        throw ToolError("export needs one START (or --all); see --help");
    }
    const std::optional<std::string> out = cli.value("--output");
    if (!out || out->empty()) {
        throw ToolError("export needs -o OUT.mp4 or -o OUT.mkv");
    }
    const std::string extension = std::filesystem::path(*out).extension().string();
    const std::optional<Container> container =
        extension.empty() ? std::nullopt : container_named(extension.substr(1));
    if (!container) {
        throw ToolError("the output must end in .mp4 or .mkv: " + *out);
    }
    if (const std::optional<std::string> format = cli.value("--format")) {
        if (container_named(*format) != container) {
            throw ToolError("--format " + *format + " does not match the output " + *out);
        }
    }
    const std::vector<Recording> chosen = select_starts(all, cli.positional());
    if (chosen.size() > 1) {
        throw ToolError("recordings of several devices start at " + cli.positional()[0] +
                        "; choose one with --device");
    }
    return export_one(chosen[0], metadata_damage(chosen[0], damaged), cli.value("--key"), *out,
                      *container);
}

int export_all(const CliArgs &cli, const std::vector<Recording> &all,
               const std::vector<std::string> &damaged) {
    if (!cli.positional().empty() || cli.value("--output")) {
        throw ToolError("--all takes neither START nor -o; it writes into --out-dir");
    }
    const std::optional<std::string> out_dir = cli.value("--out-dir");
    if (!out_dir || out_dir->empty()) {
        throw ToolError("--all needs --out-dir DIR");
    }
    const std::optional<Container> container = container_named(cli.value_or("--format", "mp4"));
    if (!container) {
        throw ToolError("--format must be mp4 or mkv");
    }
    std::error_code error;
    std::filesystem::create_directories(*out_dir, error);
    if (error || !std::filesystem::is_directory(*out_dir)) {
        throw ToolError("cannot create the output directory " + *out_dir +
                        (error ? ": " + error.message() : ""));
    }
    if (all.empty()) {
        std::printf("no recordings\n");
        return kExitOk;
    }
    int status = kExitOk;
    for (const Recording &recording : all) {
        const std::string path = (std::filesystem::path(*out_dir) /
                                  (recording.device + "_" + std::to_string(recording.start_time) +
                                   "." + container_extension(*container)))
                                     .string();
        try {
            status = std::max(status, export_one(recording, metadata_damage(recording, damaged),
                                                 cli.value("--key"), path, *container));
        } catch (const ToolError &e) {
            std::fprintf(stderr, "vexo-media export: %s\n", e.what());
            status = std::max(status, e.status());
        }
    }
    return status;
}

} // namespace

int run_export(const std::vector<std::string> &args) {
    const CliArgs cli(
        args,
        {"--data", "--db", "--media", "--device", "--key", "--output", "--out-dir", "--format"},
        {"--all"});
    if (cli.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    if (const std::optional<std::string> key = cli.value("--key")) {
        vexo_media::Key unused{};
        if (!vexo_media::key_from_text(*key, &unused)) {
            throw ToolError("--key must be 16 characters, got " + std::to_string(key->size()));
        }
    }
    std::vector<std::string> damaged;
    std::vector<Recording> all =
        load_recordings(cli.value_or("--data", kDefaultDataDir), cli.value_or("--device", ""),
                        &damaged, cli.value_or("--db", ""));
    MediaStage stage(cli.value_or("--media", ""));
    stage.place(&all);
    return cli.flag("--all") ? export_all(cli, all, damaged) : export_single(cli, all, damaged);
}

} // namespace vexo_tool
