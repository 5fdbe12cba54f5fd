// The simulator's media input against clips made with ffmpeg: the measured parameters match
// what ffmpeg was asked for, frames look like a camera's encoder output, time keeps going
// across loops, and unusable or damaged files give errors rather than crashes.
#include "tools/camsim/media_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <tuple>

#include "tests/camsim/clip_support.h"

namespace {

using camsim::MediaFrame;
using camsim::MediaSource;
using camsim::StreamParams;
using camsim_test::TempDir;

const std::string kPicture = "-f lavfi -i testsrc2=size=320x240:rate=25 ";
const std::string kTone16k = "-f lavfi -i sine=frequency=440:sample_rate=16000 ";

std::string x264(int gop) {
    return "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -bf 0 -g " + std::to_string(gop) +
           " -keyint_min " + std::to_string(gop) + " -sc_threshold 0 ";
}

std::string h264_aac(double seconds) {
    return kPicture + kTone16k + "-t " + std::to_string(seconds) + " " + x264(25) +
           "-b:v 300k -c:a aac -ac 1 -b:a 32k ";
}

std::vector<MediaFrame> of_kind(const std::vector<MediaFrame> &frames, bool video) {
    std::vector<MediaFrame> out;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(out),
                 [video](const MediaFrame &f) { return f.video == video; });
    return out;
}

// Merged output in time order; each stream strictly increasing; pts on the 90 kHz clock.
void expect_time_order(const std::vector<MediaFrame> &frames) {
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_LE(frames[i - 1].time_ms, frames[i].time_ms) << "merged order at frame " << i;
    }
    for (bool video : {true, false}) {
        std::vector<MediaFrame> stream = of_kind(frames, video);
        for (size_t i = 0; i < stream.size(); ++i) {
            EXPECT_EQ(stream[i].pts / 90, stream[i].time_ms);
            if (i > 0) {
                EXPECT_LT(stream[i - 1].time_ms, stream[i].time_ms)
                    << (video ? "video" : "audio") << " frame " << i;
            }
        }
    }
}

// Key frames exactly every gop frames from the start of each loop of per_loop frames, each an
// Annex-B access unit with the parameter sets in front; other frames carry no parameter sets;
// no access unit delimiters anywhere.
void expect_camera_video(const std::vector<MediaFrame> &video, uint32_t gop, uint64_t per_loop,
                         bool h265) {
    const std::vector<int> sets = h265 ? std::vector<int>{32, 33, 34} : std::vector<int>{7, 8};
    const int delimiter = h265 ? 35 : 9;
    for (size_t i = 0; i < video.size(); ++i) {
        const MediaFrame &f = video[i];
        ASSERT_GE(f.data.size(), 5u);
        EXPECT_TRUE(std::equal(f.data.begin(), f.data.begin() + 4,
                               std::vector<uint8_t>{0, 0, 0, 1}.begin()))
            << "frame " << i;
        EXPECT_EQ(f.key, (i % per_loop) % gop == 0) << "frame " << i;
        std::vector<int> types = camsim_test::nal_types(f.data, h265);
        EXPECT_EQ(std::count(types.begin(), types.end(), delimiter), 0) << "frame " << i;
        if (f.key) {
            ASSERT_GT(types.size(), sets.size());
            EXPECT_EQ(std::vector<int>(types.begin(), types.begin() + sets.size()), sets)
                << "key frame " << i;
        } else {
            for (int set : sets) {
                EXPECT_EQ(std::count(types.begin(), types.end(), set), 0) << "frame " << i;
            }
        }
    }
}

// One ADTS frame per frame: sync word, length field equal to the frame size, the clip's
// sample rate index and channel configuration.
void expect_adts(const std::vector<MediaFrame> &audio, int rate_index, int channels) {
    for (size_t i = 0; i < audio.size(); ++i) {
        const std::vector<uint8_t> &d = audio[i].data;
        ASSERT_GT(d.size(), 7u) << "audio frame " << i;
        EXPECT_EQ(d[0], 0xFF);
        EXPECT_EQ(d[1] & 0xF6, 0xF0);
        size_t length = (static_cast<size_t>(d[3] & 3) << 11) | (d[4] << 3) | (d[5] >> 5);
        EXPECT_EQ(length, d.size()) << "audio frame " << i;
        EXPECT_EQ((d[2] >> 2) & 0x0F, rate_index);
        EXPECT_EQ(((d[2] & 1) << 2) | (d[3] >> 6), channels);
    }
}

// Loop n+1 repeats loop n shifted by the clip's duration (to the ms, after rounding).
void expect_loop_shift(const std::vector<MediaFrame> &stream, size_t per_loop,
                       uint64_t duration_ms) {
    ASSERT_GT(stream.size(), per_loop);
    for (size_t i = 0; i + per_loop < stream.size(); ++i) {
        uint64_t shift = stream[i + per_loop].time_ms - stream[i].time_ms;
        EXPECT_NEAR(static_cast<double>(shift), static_cast<double>(duration_ms), 1.0)
            << "frame " << i;
    }
}

class MediaSourceTest : public ::testing::Test {
  protected:
    std::unique_ptr<MediaSource> open_ok(const std::string &path, bool use_audio = true) {
        std::string error;
        std::unique_ptr<MediaSource> source = MediaSource::open(path, &error, use_audio);
        EXPECT_TRUE(source) << error;
        return source;
    }
    std::string open_error(const std::string &path, bool use_audio = true) {
        std::string error;
        EXPECT_FALSE(MediaSource::open(path, &error, use_audio)) << path << " opened";
        return error;
    }
    /// Opens a clip into source_, checks its frame counts against ffprobe's, and reads two
    /// loops of it and a bit, in time order with a camera's video (key frames every gop).
    std::vector<MediaFrame> read_loops(const std::string &clip, uint32_t gop, bool h265) {
        source_ = open_ok(clip);
        if (!source_) {
            return {};
        }
        const StreamParams &p = source_->params();
        EXPECT_EQ(p.gop, gop);
        EXPECT_TRUE(p.damage.empty()) << p.damage;
        EXPECT_EQ(p.video_frames, camsim_test::ffprobe_packets(clip, "v"));
        if (p.has_audio) {
            EXPECT_EQ(p.audio_frames, camsim_test::ffprobe_packets(clip, "a"));
        }
        std::vector<MediaFrame> frames =
            camsim_test::read_frames(source_.get(), 2 * (p.video_frames + p.audio_frames) + 5);
        expect_time_order(frames);
        expect_camera_video(of_kind(frames, true), gop, p.video_frames, h265);
        return frames;
    }

    TempDir dir_;
    std::unique_ptr<MediaSource> source_;
};

TEST_F(MediaSourceTest, H264AacMp4GivesMeasuredParamsAndCameraFramesAcrossLoops) {
    std::string clip = dir_.file("clip.mp4");
    ASSERT_TRUE(camsim_test::make_clip(h264_aac(2), clip));
    const std::vector<MediaFrame> frames = read_loops(clip, 25, false);
    ASSERT_TRUE(source_);
    const StreamParams &p = source_->params();
    EXPECT_EQ(std::make_tuple(p.video_codec, p.fps, p.width, p.height),
              std::make_tuple(uint32_t{VEXO_CODEC_H264}, 25u, 320u, 240u));
    EXPECT_TRUE(p.has_audio);
    EXPECT_EQ(std::make_tuple(p.audio_codec, p.sample_rate, p.bits_per_sample, p.channels),
              std::make_tuple(uint32_t{VEXO_CODEC_AAC}, 16000u, 16u, 1u));
    EXPECT_EQ(p.audio_frame_ms, 64u); // 1024 samples at 16 kHz
    EXPECT_EQ(p.audio_fps, 16u);
    EXPECT_GE(p.duration_ms, 2000u);
    EXPECT_LE(p.duration_ms, 2130u);
    // The bytes ffprobe sees over 2 s, within the few bytes of the added parameter sets.
    double expected_kbps = camsim_test::ffprobe_video_bytes(clip) * 8 / 2.0 / 1000;
    EXPECT_NEAR(p.bitrate_kbps, expected_kbps, expected_kbps * 0.03 + 1);

    std::vector<MediaFrame> video = of_kind(frames, true);
    std::vector<MediaFrame> audio = of_kind(frames, false);
    EXPECT_GE(video.size(), 2 * p.video_frames);
    EXPECT_GE(audio.size(), 2 * p.audio_frames);
    expect_adts(audio, 8, 1); // index 8 = 16000 Hz
    expect_loop_shift(video, p.video_frames, p.duration_ms);
    expect_loop_shift(audio, p.audio_frames, p.duration_ms);
    auto largest = [](const std::vector<MediaFrame> &stream) {
        size_t size = 0;
        for (const MediaFrame &f : stream) {
            size = std::max(size, f.data.size());
        }
        return size;
    };
    EXPECT_EQ(p.max_video_frame, largest(video));
    EXPECT_EQ(p.max_audio_frame, largest(audio));

    vexo_ipc_media_info_t info;
    camsim::fill_media_info(p, &info);
    EXPECT_EQ(
        std::make_tuple(info.channel_enable[0], info.channel_enable[1], info.channel_enable[9]),
        std::make_tuple(1u, 0u, 1u));
    EXPECT_EQ(std::make_tuple(info.video_fps[0], info.video_gop[0], info.video_width[0],
                              info.video_height[0], info.video_freq[0], info.video_codec[0]),
              std::make_tuple(25u, 25u, 320u, 240u, 90000u, uint32_t{VEXO_CODEC_H264}));
    EXPECT_EQ(std::make_tuple(info.audio_codec[9], info.audio_fps[9], info.audio_sample[9],
                              info.audio_databits[9], info.audio_channel[9]),
              std::make_tuple(uint32_t{VEXO_CODEC_AAC}, 16u, 16000u, 16u, 1u));
}

TEST_F(MediaSourceTest, H265MulawMkvGivesVpsFirstAndRawG711) {
    std::string clip = dir_.file("clip.mkv");
    ASSERT_TRUE(camsim_test::make_clip(
        "-f lavfi -i testsrc2=size=320x240:rate=15 "
        "-f lavfi -i sine=frequency=300:sample_rate=8000 -t 2 "
        "-c:v libx265 -preset ultrafast -x265-params "
        "log-level=error:keyint=15:min-keyint=15:scenecut=0:bframes=0:open-gop=0 "
        "-c:a pcm_mulaw -ac 1 ",
        clip));
    const std::vector<MediaFrame> frames = read_loops(clip, 15, true);
    ASSERT_TRUE(source_);
    const StreamParams &p = source_->params();
    EXPECT_EQ(std::make_tuple(p.video_codec, p.fps, p.width, p.height),
              std::make_tuple(uint32_t{VEXO_CODEC_H265}, 15u, 320u, 240u));
    EXPECT_EQ(std::make_tuple(p.audio_codec, p.sample_rate, p.bits_per_sample, p.channels),
              std::make_tuple(uint32_t{VEXO_CODEC_G711U}, 8000u, 8u, 1u));
    std::vector<MediaFrame> audio = of_kind(frames, false);
    ASSERT_GT(audio.size(), 2 * p.audio_frames);
    // One byte per sample: a frame holds 8 bytes per ms up to the next one, and one loop holds
    // the clip's 2 s of samples.
    size_t loop_bytes = 0;
    for (size_t i = 0; i < p.audio_frames; ++i) {
        loop_bytes += audio[i].data.size();
        uint64_t gap_ms = audio[i + 1].time_ms - audio[i].time_ms;
        EXPECT_NEAR(static_cast<double>(audio[i].data.size()), gap_ms * 8.0, 8.0)
            << "audio frame " << i;
    }
    EXPECT_EQ(loop_bytes, 16000u);
    expect_loop_shift(audio, p.audio_frames, p.duration_ms);
}

TEST_F(MediaSourceTest, H264WithoutAudioLeavesTheAudioChannelOff) {
    std::string clip = dir_.file("silent.mp4");
    ASSERT_TRUE(camsim_test::make_clip(kPicture + "-t 1 " + x264(10), clip));
    const std::vector<MediaFrame> frames = read_loops(clip, 10, false);
    ASSERT_TRUE(source_);
    const StreamParams &p = source_->params();
    EXPECT_FALSE(p.has_audio);
    EXPECT_EQ(p.video_frames, 25u);
    EXPECT_EQ(of_kind(frames, false).size(), 0u);
    // Key frames at 0, 10, 20 of each 25-frame loop: frame 25 is the next loop's key frame.
    ASSERT_GT(frames.size(), 25u);
    EXPECT_TRUE(frames[25].key);
    EXPECT_EQ(frames[25].time_ms - frames[0].time_ms, p.duration_ms);
    vexo_ipc_media_info_t info;
    camsim::fill_media_info(p, &info);
    EXPECT_EQ(std::make_tuple(info.channel_enable[0], info.channel_enable[9], info.audio_codec[9],
                              info.audio_sample[9]),
              std::make_tuple(1u, 0u, 0u, 0u));
}

// Drops every SPS and PPS after the first of each from a raw H.264 stream, like an encoder
// that sends its parameter sets once.
std::vector<uint8_t> keep_first_parameter_sets(const std::vector<uint8_t> &stream) {
    std::vector<size_t> starts = camsim_test::nal_offsets(stream);
    std::vector<uint8_t> out;
    bool seen[32] = {};
    for (size_t i = 0; i < starts.size(); ++i) {
        size_t begin = starts[i] - 3;
        size_t end = i + 1 < starts.size() ? starts[i + 1] - 3 : stream.size();
        int type = stream[starts[i]] & 0x1F;
        if ((type == 7 || type == 8) && seen[type]) {
            continue;
        }
        seen[type] = true;
        out.insert(out.end(), stream.begin() + static_cast<std::ptrdiff_t>(begin),
                   stream.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return out;
}

TEST_F(MediaSourceTest, RawAnnexBGetsParameterSetsInFrontOfEveryKeyFrame) {
    std::string encoded = dir_.file("encoded.h264");
    ASSERT_TRUE(camsim_test::make_clip(kPicture + "-t 3 " + x264(25), encoded));
    std::vector<uint8_t> once = keep_first_parameter_sets(camsim_test::read_file(encoded));
    std::vector<int> types = camsim_test::nal_types(once, false);
    ASSERT_EQ(std::count(types.begin(), types.end(), 7), 1);
    ASSERT_EQ(std::count(types.begin(), types.end(), 5), 3);
    std::string clip = dir_.file("once.h264");
    camsim_test::write_file(clip, once);
    const std::vector<MediaFrame> frames = read_loops(clip, 25, false);
    ASSERT_TRUE(source_);
    EXPECT_EQ(std::make_tuple(source_->params().fps, source_->params().width,
                              source_->params().duration_ms),
              std::make_tuple(25u, 320u, 3000u));
    expect_loop_shift(frames, 75, source_->params().duration_ms);
}

TEST_F(MediaSourceTest, MpegTsDropsDelimitersAndPassesAdtsThrough) {
    std::string clip = dir_.file("clip.ts");
    ASSERT_TRUE(camsim_test::make_clip(h264_aac(2), clip));
    const std::vector<MediaFrame> frames = read_loops(clip, 25, false);
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(source_->params().fps, 25u);
    // The transport stream's clock starts well above zero; the source's starts at zero.
    EXPECT_LT(frames.front().time_ms, 100u);
    expect_adts(of_kind(frames, false), 8, 1);
}

TEST_F(MediaSourceTest, RefusesWhatACameraWouldNotSend) {
    struct Case {
        const char *name;
        std::string args;
        const char *expected;
    };
    const std::vector<Case> cases = {
        {"mpeg4.mp4", kPicture + "-t 1 -c:v mpeg4 ", "mpeg4"},
        {"mp3.mkv", kPicture + kTone16k + "-t 1 " + x264(25) + "-c:a libmp3lame ", "mp3"},
        {"bframes.mp4", kPicture + "-t 2 -c:v libx264 -bf 2 -g 25 ", "B-frames"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::string clip = dir_.file(c.name);
        ASSERT_TRUE(camsim_test::make_clip(c.args, clip));
        EXPECT_NE(open_error(clip).find(c.expected), std::string::npos) << open_error(clip);
    }

    // The same MP3 clip plays as video alone when audio is left out.
    auto silent = open_ok(dir_.file("mp3.mkv"), false);
    ASSERT_TRUE(silent);
    EXPECT_FALSE(silent->params().has_audio);
    std::vector<MediaFrame> frames = camsim_test::read_frames(silent.get(), 30);
    EXPECT_EQ(of_kind(frames, true).size(), 30u);

    std::string missing = dir_.file("missing.mp4");
    EXPECT_NE(open_error(missing).find(missing), std::string::npos);
    std::string noise = dir_.file("noise.mp4");
    std::vector<uint8_t> bytes(4096);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7919 + 13);
    }
    camsim_test::write_file(noise, bytes);
    EXPECT_FALSE(open_error(noise).empty());
}

TEST_F(MediaSourceTest, DamagedFilesGiveAnErrorOrTheirReadableFramesButNoCrash) {
    struct Case {
        const char *name;
        std::string args;
        bool truncate; // cut in half; otherwise a byte in every 61 overwritten
    };
    const Case cases[] = {
        {"plain.mp4", h264_aac(3), true},
        {"faststart.mp4", h264_aac(3) + "-movflags +faststart ", true},
        {"cut.mkv", h264_aac(3), true},
        {"cut.ts", h264_aac(3), true},
        {"junk.mp4", h264_aac(2), false},
        {"junk.mkv", h264_aac(2), false},
        {"junk.ts", h264_aac(2), false},
        {"junk.h264", kPicture + "-t 2 " + x264(25), false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::string clip = dir_.file(c.name);
        ASSERT_TRUE(camsim_test::make_clip(c.args, clip));
        const uint64_t full_frames = camsim_test::ffprobe_packets(clip, "v");
        std::vector<uint8_t> bytes = camsim_test::read_file(clip);
        if (c.truncate) {
            bytes.resize(bytes.size() / 2);
        }
        // From a tenth of the way in: headers, lengths and payload alike.
        for (size_t i = bytes.size() / 10; !c.truncate && i < bytes.size(); i += 61) {
            bytes[i] = static_cast<uint8_t>(bytes[i] * 31 + 0x5A);
        }
        camsim_test::write_file(clip, bytes);

        std::string error;
        std::unique_ptr<MediaSource> source = MediaSource::open(clip, &error);
        if (!source) {
            EXPECT_FALSE(error.empty());
            continue;
        }
        const StreamParams &p = source->params();
        std::vector<MediaFrame> frames =
            camsim_test::read_frames(source.get(), 2 * (p.video_frames + p.audio_frames) + 3);
        expect_time_order(frames);
        if (c.truncate) {
            EXPECT_GT(p.video_frames, 0u);
            EXPECT_LT(p.video_frames, full_frames);
            expect_camera_video(of_kind(frames, true), p.gop, p.video_frames, false);
        }
        for (const MediaFrame &f : frames) {
            if (f.key) {
                EXPECT_EQ(camsim_test::nal_types(f.data, false).front(), 7);
            }
        }
    }
}

} // namespace
