/// Building what the browser plays of a recording: one media file as an MPEG-TS segment, the
/// whole recording as an MP4 file, and the time stamps the playlist is made from.
#ifndef VEXO_PLAYBACK_SEGMENT_BUILDER_H
#define VEXO_PLAYBACK_SEGMENT_BUILDER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "media_format.h"
#include "playlist.h"

namespace vexo_playback {

struct Built {
    bool ok = false;
    std::string error; // why nothing could be built (the recording, not the service)
    std::vector<uint8_t> bytes;
    std::vector<vexo_media::Fault> faults; // damage met; what came before it was kept
};

/// File index of source decrypted and remuxed into MPEG-TS, time stamps relative to the
/// recording's first entry. Throws only when libav or memory fail.
Built build_segment(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
                    size_t index);

/// The whole recording as MP4 into out_path. bytes stays empty.
Built build_export(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
                   const std::string &out_path);

/// The first and last time stamps of file index (read and parsed, not decrypted).
FileTimes file_times(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source,
                     size_t index);

/// The recording's frame length in ms from its payloadInfo (40 when it gives no rate).
uint64_t frame_ms(const vexo_cloud::PlaybackSource &source);

} // namespace vexo_playback

#endif
