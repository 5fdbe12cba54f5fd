/// A recording's media files for playback, read through the service's media store: as the
/// export's MediaFiles, with the recording's key and stream description.
#ifndef VEXO_PLAYBACK_RECORDING_FILES_H
#define VEXO_PLAYBACK_RECORDING_FILES_H

#include <optional>
#include <string>

#include "cloud_service.h"
#include "media_files.h"
#include "media_format.h"

namespace vexo_playback {

/// The files of source, each read whole from service's media store (at most
/// vexo_media::kMaxFileBytes; a missing or larger object is a fault at offset 0).
vexo_tool::MediaFiles recording_files(const vexo_cloud::Service &service,
                                      const vexo_cloud::PlaybackSource &source);

/// The recording's key as bytes; nullopt when it has no usable key.
std::optional<vexo_media::Key> recording_key(const vexo_cloud::PlaybackSource &source);

} // namespace vexo_playback

#endif
