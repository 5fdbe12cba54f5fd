// Test clips for the camera simulator's media tests: made with the ffmpeg CLI in a temporary
// directory, measured with ffprobe, and small helpers to look into Annex-B, ADTS and JPEG data.
#ifndef VEXO_TESTS_CAMSIM_CLIP_SUPPORT_H
#define VEXO_TESTS_CAMSIM_CLIP_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tools/camsim/media_source.h"

namespace camsim_test {

// A directory for the clips of one test, removed with everything in it when the object goes.
class TempDir : public vexo_test::TempDir {
  public:
    TempDir() : vexo_test::TempDir("camsim") {}
};

// Runs `ffmpeg <args> <output>` quietly; false (with ffmpeg's messages added to a failing test
// through ADD_FAILURE) when ffmpeg fails.
bool make_clip(const std::string &args, const std::string &output);

// Packets of the first stream of a kind ("v" or "a") as ffprobe -count_packets counts them.
uint64_t ffprobe_packets(const std::string &path, const std::string &kind);
// Sum of the sizes of the packets of the first video stream.
uint64_t ffprobe_video_bytes(const std::string &path);

std::vector<uint8_t> read_file(const std::string &path);
void write_file(const std::string &path, const std::vector<uint8_t> &bytes);

// Payload start offsets of the NAL units of an Annex-B buffer, and their types.
std::vector<size_t> nal_offsets(const std::vector<uint8_t> &data);
std::vector<int> nal_types(const std::vector<uint8_t> &data, bool h265);

// Frames of one source, read in order.
std::vector<camsim::MediaFrame> read_frames(camsim::MediaSource *source, size_t count);

struct Picture {
    int width = 0;
    int height = 0;
    // Mean Cb and Cr over the picture's central quarter.
    int mean_cb = 0;
    int mean_cr = 0;
};
// Decodes a JPEG with libavcodec; false when it does not decode.
bool decode_jpeg(const std::vector<uint8_t> &jpeg, Picture *picture);

} // namespace camsim_test

#endif
