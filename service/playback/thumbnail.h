/// A recording's picture for the timeline: its first key frame decoded and encoded as JPEG,
/// at most kThumbnailWidth pixels wide.
#ifndef VEXO_PLAYBACK_THUMBNAIL_H
#define VEXO_PLAYBACK_THUMBNAIL_H

#include "segment_builder.h"

namespace vexo_playback {

constexpr int kThumbnailWidth = 320;

/// The JPEG of the first key frame that decodes; not ok with an error when there is none.
Built build_thumbnail(const vexo_cloud::Service &service, const vexo_cloud::PlaybackSource &source);

} // namespace vexo_playback

#endif
