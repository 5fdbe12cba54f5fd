// Helpers of the end-to-end tests: temporary directories, running the tools, generating
// clips with ffmpeg, and reading what the cloud stored.
#ifndef VEXO_E2E_SUPPORT_H
#define VEXO_E2E_SUPPORT_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "media_format.h"
#include "tests/support/temp_dir.h"

namespace e2e {

struct Result {
    int status = -1; // exit status; -1 when killed or not run
    std::string out; // stdout and stderr together
};

/// Runs argv with extra environment variables (NAME=value), capturing its output.
Result run(const std::vector<std::string> &argv, const std::vector<std::string> &env = {});

/// A fresh directory under the system's temporary directory, removed at scope exit unless
/// the test failed (kept for a look).
class TempDir : public vexo_test::TempDir {
  public:
    TempDir() : vexo_test::TempDir("vexo-e2e", Keep::kOnFailure) {}
};

/// Makes a clip with ffmpeg's test sources: H.264 video of the given size, frame rate and key
/// frame interval, with AAC audio unless audio is false. Fails the test when ffmpeg fails.
/// audio: "aac", "pcm_mulaw" or "" (none). G.711 has no encoder delay, so its clips loop
/// without a gap in the video time stamps.
std::string make_clip(const std::string &dir, const std::string &name, int width, int height,
                      int fps, int gop, int seconds, const std::string &audio, int kbps);

/// An access unit as its NAL units without start codes, leaving out SEI and access-unit
/// delimiters (a camera may or may not send those, and start codes may be 3 or 4 bytes).
using NalList = std::vector<std::vector<uint8_t>>;
NalList nal_list(const std::vector<uint8_t> &annex_b);

/// The key-frame access units of a clip (parameter sets in front), split from ffmpeg's raw
/// H.264 output of the clip.
std::vector<NalList> source_key_frames(const std::string &dir, const std::string &clip);

struct RecordingContent {
    vexo_cloud::Recording info;
    std::vector<vexo_media::Entry> entries; // of every file, in order
    std::vector<std::string> faults;
};

/// Reads every recording of a device from a cloud directory, with all its entries.
std::vector<RecordingContent> read_cloud(const std::string &cloud_dir, const std::string &device);

/// Frames ffmpeg decodes from a file (video stream), or -1 with errors in *errors.
int decoded_video_frames(const std::string &file, std::string *errors);

struct Counts {
    size_t video = 0;
    size_t key = 0;
    size_t audio = 0;
};

/// Video, key and audio entries of a recording.
Counts count(const RecordingContent &rec);

/// Checks one recording against the clip: well formed, closed or not as expected, its key is
/// the cloud's, every key frame decrypts to a key frame of the clip, no video frame is
/// missing inside its window, and the media tool verifies and exports it into a file ffmpeg
/// decodes frame for frame.
void check_recording(const std::string &media_tool, const std::string &device,
                     const RecordingContent &rec, const std::string &data,
                     const std::set<NalList> &source_keys, int fps, const std::string &out_dir,
                     bool closed = true);

} // namespace e2e

#endif
