/// Measuring a clip on one pass through it: what a camera would report about its streams, and
/// where the pass lies on the file's clock so that each loop can follow the one before.
#ifndef VEXO_CAMSIM_CLIP_MEASURE_H
#define VEXO_CAMSIM_CLIP_MEASURE_H

#include <cstdint>
#include <string>

#include "clip_reader.h"
#include "media_source.h"

namespace camsim {

struct ClipTimeline {
    int64_t start_us = 0; // earliest frame of the clip
    int64_t loop_us = 0;  // from the earliest frame to the end of the latest
};

/// Reads the rest of the pass from reader (freshly opened on path) into *params and *timeline.
/// False with *error set when the clip has no video frame, its video is not in presentation
/// order (B-frames) or its frame rate is out of range.
bool measure_clip(ClipReader *reader, const std::string &path, StreamParams *params,
                  ClipTimeline *timeline, std::string *error);

} // namespace camsim

#endif
