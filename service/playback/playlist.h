/// The HLS playlist of a recording: one segment per media file, each as long as its entries'
/// time stamps say, final (VOD) once the recording is closed.
#ifndef VEXO_PLAYBACK_PLAYLIST_H
#define VEXO_PLAYBACK_PLAYLIST_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vexo_playback {

/// The time stamps of one media file that a playlist needs, ms.
struct FileTimes {
    bool readable = false; // false: nothing could be read; the times below mean nothing
    uint64_t first = 0;    // the file's first entry
    uint64_t last = 0;     // its last entry
};

/// Segment durations in ms: file i lasts from its first time stamp to the next file's first;
/// the last file to its last entry plus frame_ms. A file nothing could be read of takes
/// its place from the elapsed seconds of its name (elapsed[i]) relative to the first
/// readable file. Never negative.
std::vector<uint64_t> segment_durations(const std::vector<FileTimes> &files,
                                        const std::vector<uint64_t> &elapsed, uint64_t frame_ms);

/// The playlist text for those durations: segments "segments/N.ts"; closed: VOD with an end,
/// else EVENT without one.
std::string playlist_text(const std::vector<uint64_t> &durations_ms, bool closed);

} // namespace vexo_playback

#endif
