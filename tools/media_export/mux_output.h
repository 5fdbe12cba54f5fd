// One output file written through libavformat: its streams, packets with millisecond time
// stamps, and the end of the file. Every libav failure becomes a ToolError naming the file.
#ifndef VEXO_MEDIA_EXPORT_MUX_OUTPUT_H
#define VEXO_MEDIA_EXPORT_MUX_OUTPUT_H

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace vexo_tool {

enum class Container { kMp4, kMkv, kMpegTs };

/// "mp4", "mkv" or "ts".
const char *container_extension(Container container);

/// Parameters of a stream that is copied packet by packet.
struct CopiedTrack {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    AVCodecID codec = AV_CODEC_ID_NONE;
    int width = 0;
    int height = 0;
    int fps = 0;
    int sample_rate = 0;
    int channels = 0;
    int bits_per_sample = 0;
    std::vector<uint8_t> extradata;
};

class MuxOutput {
  public:
    /// Prepares an output of the given container at path; nothing is opened yet. An empty
    /// path writes into memory instead: finish() leaves the bytes for take_bytes().
    MuxOutput(const std::string &path, Container container);
    ~MuxOutput();
    MuxOutput(const MuxOutput &) = delete;
    MuxOutput &operator=(const MuxOutput &) = delete;

    /// True when encoders feeding this output must put their headers in the extradata.
    bool wants_global_header() const;

    /// Adds a stream and returns its index; all before open().
    int add_copied(const CopiedTrack &track);
    int add_encoded(const AVCodecContext *encoder);

    /// Opens the file and writes the header.
    void open();

    /// Writes a copy of data as one packet of stream; time stamp and duration in ms. False
    /// when the muxer refused the packet's content (the file stays usable); throws ToolError
    /// when the file cannot be written.
    bool write_ms(int stream, const uint8_t *data, size_t size, int64_t pts_ms, int64_t duration_ms,
                  bool key);
    /// Writes an encoded packet whose times are in time_base; takes its content. Results as
    /// write_ms.
    bool write_packet(int stream, AVPacket *packet, AVRational time_base);

    /// Flushes the interleaving queue, writes the trailer and closes the file.
    void finish();

    /// The bytes of an output written into memory, once finished; empty otherwise.
    std::vector<uint8_t> take_bytes();

  private:
    void check(int result, const char *what) const;

    void close_io();
    std::string label() const;

    std::string path_; // empty: in memory
    AVFormatContext *context_ = nullptr;
    bool opened_ = false;
    std::vector<uint8_t> bytes_;
};

} // namespace vexo_tool

#endif
