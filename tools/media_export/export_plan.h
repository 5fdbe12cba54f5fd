// What an export writes, decided before the output is opened: the video stream with the
// parameter sets of the first readable key frame, the audio stream (copied or transcoded),
// and the time stamp that becomes zero.
#ifndef VEXO_MEDIA_EXPORT_EXPORT_PLAN_H
#define VEXO_MEDIA_EXPORT_EXPORT_PLAN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "media_files.h"
#include "media_format.h"
#include "mux_output.h"
#include "payload_info.h"

namespace vexo_tool {

enum class AudioMode { kNone, kCopy, kTranscode };

struct ExportPlan {
    PayloadInfo info;
    uint64_t base_timestamp = 0; // ms of the recording's first entry
    std::optional<CopiedTrack> video;
    AudioMode audio = AudioMode::kNone;
    CopiedTrack audio_track;               // kCopy: the stream; kTranscode: the source parameters
    std::vector<vexo_media::Fault> faults; // met while looking, when nothing was found
};

/// Reads the files until the first key frame with parameter sets and the first audio entry
/// are found. Throws ToolError(kExitFault) when payloadInfo is unusable or names a codec the
/// export does not know.
ExportPlan plan_export(const std::string &payload_info, const MediaFiles &files,
                       const vexo_media::Key &key, Container container);

} // namespace vexo_tool

#endif
