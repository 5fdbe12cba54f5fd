/// The admin interface's playback requests, under /v1/admin/devices/D/:
///
///   GET recordings/T/playlist.m3u8   HLS playlist, one segment per media file (VOD once the
///                                    recording is closed or left open for good)
///   GET recordings/T/segments/N.ts   media file N (0-based, elapsed order) as MPEG-TS
///   GET recordings/T/thumbnail.jpg   the first key frame as JPEG, at most 320 px wide
///   GET recordings/T/export.mp4      the recording as an MP4 attachment "D_T.mp4"
///   GET alarms/ID/picture.jpg        an alarm's picture
///
/// T is a recording's start time and ID an alarm's id. A number that is not one gets 400; an
/// unknown device, recording, segment or alarm, or one of another device, gets 404
/// {"error":...}. A recording that holds nothing playable gets 422.
#ifndef VEXO_PLAYBACK_PLAYBACK_API_H
#define VEXO_PLAYBACK_PLAYBACK_API_H

#include <optional>
#include <string>

#include "cloud_service.h"

namespace vexo_playback {

/// The answer to a playback request of device (valid), what being the path after
/// "devices/D/"; nullopt when what is not a playback path. Throws on failures of the service.
std::optional<vexo_cloud::Response> handle_playback(const vexo_cloud::Service &service,
                                                    const vexo_cloud::Request &request,
                                                    const std::string &device,
                                                    const std::string &what);

} // namespace vexo_playback

#endif
