/// Segments and exports through the media tool's export code, reading the service's store.
#include "segment_builder.h"

#include "export_plan.h"
#include "export_writer.h"
#include "mux_output.h"
#include "payload_info.h"
#include "recording_files.h"
#include "tool_error.h"

namespace vexo_playback {
namespace {

using vexo_tool::Container;

/// Plans and writes files [first, end) of source into out; fills result.
void write(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
           size_t first, size_t end, Container container, vexo_tool::MuxOutput *out,
           Built *result) {
    const std::optional<vexo_media::Key> key = recording_key(source);
    if (!key) {
        result->error = "the recording's key is not known";
        return;
    }
    const vexo_tool::MediaFiles files = recording_files(service, source);
    try {
        const vexo_tool::ExportPlan plan =
            vexo_tool::plan_export(source.payload_info, files, *key, container);
        if (!plan.video && plan.audio == vexo_tool::AudioMode::kNone) {
            result->error = "the recording holds no key frame with parameter sets and no audio";
            return;
        }
        vexo_tool::ExportSummary summary =
            vexo_tool::write_export(plan, files, *key, out, first, end, nullptr);
        result->faults = std::move(summary.faults);
        result->ok = true;
    } catch (const vexo_tool::ToolError &e) {
        if (e.status() != vexo_tool::kExitFault) {
            throw; // the output, not the recording
        }
        result->error = e.what();
    }
}

} // namespace

Built build_segment(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
                    size_t index) {
    Built result;
    vexo_tool::MuxOutput out("", Container::kMpegTs);
    write(service, source, index, index + 1, Container::kMpegTs, &out, &result);
    if (result.ok) {
        result.bytes = out.take_bytes();
    }
    return result;
}

Built build_export(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
                   const std::string &out_path) {
    Built result;
    vexo_tool::MuxOutput out(out_path, Container::kMp4);
    write(service, source, 0, source.names.size(), Container::kMp4, &out, &result);
    return result;
}

FileTimes file_times(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
                     size_t index) {
    const vexo_tool::MediaFiles files = recording_files(service, source);
    std::vector<vexo_media::Entry> entries;
    vexo_media::Fault fault;
    vexo_tool::read_entries(files, index, &entries, &fault);
    FileTimes times;
    for (const vexo_media::Entry &entry : entries) {
        if (!times.readable) {
            times.readable = true;
            times.first = entry.timestamp;
            times.last = entry.timestamp;
        }
        times.last = std::max(times.last, entry.timestamp);
    }
    return times;
}

uint64_t frame_ms(const vexo_cloud::PlaybackSource &source) {
    vexo_tool::PayloadInfo info;
    std::string error;
    if (vexo_tool::parse_payload_info(source.payload_info, &info, &error) && info.fps > 0) {
        return 1000 / static_cast<uint64_t>(info.fps);
    }
    return 40;
}

} // namespace vexo_playback
