// Writing a recording's entries into an output: entries are read file by file, decrypted,
// and handed to the muxer (video and copied audio) or to the AAC encoder (G.711/PCM audio
// into MP4 or MPEG-TS).
#ifndef VEXO_MEDIA_EXPORT_EXPORT_WRITER_H
#define VEXO_MEDIA_EXPORT_EXPORT_WRITER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "export_plan.h"
#include "media_files.h"
#include "media_format.h"
#include "mux_output.h"

namespace vexo_tool {

struct ExportSummary {
    uint64_t files = 0;
    uint64_t video_frames = 0; // packets written
    uint64_t audio_frames = 0; // entries written or encoded
    uint64_t skipped = 0;      // entries left out (P frames without their key frame, audio
                               // the recording did not announce)
    uint64_t adjusted = 0;     // time stamps moved forward to keep each stream increasing
    int64_t first_ms = -1;     // span of the time stamps written, relative to the start
    int64_t last_ms = -1;
    std::vector<vexo_media::Fault> faults;
};

/// Opens out, writes the entries of files [first, end) with time stamps relative to the
/// plan's base, and finishes out. progress (may be empty) hears the number of files done
/// after each. A damaged file is a fault: what was read before the damage is kept and the
/// writing goes on with the next file. Throws ToolError when the output cannot be written.
ExportSummary write_export(const ExportPlan &plan, const MediaFiles &files,
                           const vexo_media::Key &key, MuxOutput *out, size_t first, size_t end,
                           const std::function<void(size_t done)> &progress);

} // namespace vexo_tool

#endif
