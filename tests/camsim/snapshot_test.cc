// Snapshots: a real JPEG of the newest picture fed, decoded through the group of pictures,
// for H.264 and H.265, while another thread keeps feeding.
#include "tools/camsim/snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/camsim/clip_support.h"

namespace {

using camsim::MediaFrame;
using camsim::MediaSource;
using camsim::SnapshotEncoder;
using camsim_test::TempDir;

struct Clip {
    std::unique_ptr<MediaSource> source;
    std::vector<MediaFrame> frames; // one loop
};

Clip load(const std::string &path) {
    Clip clip;
    std::string error;
    clip.source = MediaSource::open(path, &error);
    EXPECT_TRUE(clip.source) << error;
    if (clip.source) {
        const camsim::StreamParams &p = clip.source->params();
        clip.frames = camsim_test::read_frames(clip.source.get(), p.video_frames + p.audio_frames);
    }
    return clip;
}

void expect_jpeg_of(const SnapshotEncoder &encoder, int width, int height,
                    camsim_test::Picture *picture) {
    std::vector<uint8_t> jpeg;
    std::string error;
    ASSERT_TRUE(encoder.jpeg(&jpeg, &error)) << error;
    ASSERT_GT(jpeg.size(), 4u);
    EXPECT_EQ(jpeg[0], 0xFF);
    EXPECT_EQ(jpeg[1], 0xD8);
    EXPECT_EQ(jpeg[jpeg.size() - 2], 0xFF);
    EXPECT_EQ(jpeg[jpeg.size() - 1], 0xD9);
    ASSERT_TRUE(camsim_test::decode_jpeg(jpeg, picture));
    EXPECT_EQ(picture->width, width);
    EXPECT_EQ(picture->height, height);
}

class SnapshotTest : public ::testing::Test {
  protected:
    TempDir dir_;
};

TEST_F(SnapshotTest, RefusesWithoutADecodableKeyFrameAndSurvivesDamage) {
    std::string path = dir_.file("clip.mp4");
    ASSERT_TRUE(camsim_test::make_clip(
        "-f lavfi -i testsrc2=size=176x144:rate=10 -f lavfi -i sine=sample_rate=8000 -t 1 "
        "-c:v libx264 -preset ultrafast -bf 0 -g 10 -c:a aac -ac 1 ",
        path));
    Clip clip = load(path);
    ASSERT_GT(clip.frames.size(), 10u);
    const auto first_key = std::find_if(clip.frames.begin(), clip.frames.end(),
                                        [](const MediaFrame &f) { return f.video && f.key; });
    ASSERT_NE(first_key, clip.frames.end());
    // Nothing fed; audio and P-frames without a key frame before them; only the parameter
    // sets of the key frame: no picture, and a reason.
    SnapshotEncoder nothing(VEXO_CODEC_H264);
    SnapshotEncoder no_key(VEXO_CODEC_H264);
    SnapshotEncoder headers_only(VEXO_CODEC_H264);
    for (const MediaFrame &frame : clip.frames) {
        if (!frame.video || !frame.key) {
            no_key.feed(frame);
        }
    }
    MediaFrame sets = *first_key;
    std::vector<size_t> nals = camsim_test::nal_offsets(sets.data);
    ASSERT_GE(nals.size(), 3u);
    sets.data.resize(nals[2] - 4);
    headers_only.feed(sets);
    for (const SnapshotEncoder *encoder : {&nothing, &no_key, &headers_only}) {
        std::vector<uint8_t> jpeg;
        std::string error;
        EXPECT_FALSE(encoder->jpeg(&jpeg, &error));
        EXPECT_FALSE(error.empty());
    }

    // A key frame cut short, then the rest with their slice data overwritten: a picture or
    // an error, no crash.
    SnapshotEncoder damaged(VEXO_CODEC_H264);
    MediaFrame key = *first_key;
    key.data.resize(key.data.size() / 2);
    damaged.feed(key);
    for (auto it = first_key + 1; it != clip.frames.end(); ++it) {
        MediaFrame frame = *it;
        for (size_t b = 8; b < frame.data.size(); b += 3) {
            frame.data[b] = static_cast<uint8_t>(b);
        }
        damaged.feed(frame);
    }
    std::vector<uint8_t> jpeg;
    std::string error;
    camsim_test::Picture picture;
    EXPECT_TRUE(damaged.jpeg(&jpeg, &error) ? camsim_test::decode_jpeg(jpeg, &picture)
                                            : !error.empty());
}

TEST_F(SnapshotTest, EncodesAJpegOfH264AndH265WhileAnotherThreadFeeds) {
    const std::vector<std::pair<const char *, const char *>> clips = {
        {"h264.mp4", "-c:v libx264 -preset ultrafast -bf 0 -g 8 "},
        {"h265.mkv", "-c:v libx265 -preset ultrafast -x265-params "
                     "log-level=error:keyint=8:bframes=0 "},
    };
    for (const auto &c : clips) {
        SCOPED_TRACE(c.first);
        std::string path = dir_.file(c.first);
        ASSERT_TRUE(camsim_test::make_clip(
            std::string("-f lavfi -i testsrc2=size=176x144:rate=10 -t 1 ") + c.second, path));
        Clip clip = load(path);
        ASSERT_FALSE(clip.frames.empty());
        SnapshotEncoder encoder; // tells the codec from the first key frame
        encoder.feed(clip.frames[0]);
        std::atomic<bool> stop{false};
        std::thread feeder([&] {
            for (size_t i = 1; !stop.load(); ++i) {
                encoder.feed(clip.frames[i % clip.frames.size()]);
            }
        });
        for (int i = 0; i < 3; ++i) {
            camsim_test::Picture picture;
            expect_jpeg_of(encoder, 176, 144, &picture);
        }
        stop = true;
        feeder.join();
    }
}

TEST_F(SnapshotTest, ShowsTheNewestPictureNotTheKeyFrame) {
    // One second of red, then one of blue, all in one group of pictures.
    std::string path = dir_.file("red-blue.mp4");
    ASSERT_TRUE(camsim_test::make_clip(
        "-f lavfi -i color=c=red:s=160x120:r=10:d=1 -f lavfi -i color=c=blue:s=160x120:r=10:d=1 "
        "-filter_complex [0][1]concat=n=2:v=1:a=0 "
        "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -bf 0 -g 100 ",
        path));
    Clip clip = load(path);
    ASSERT_EQ(clip.frames.size(), 20u);
    ASSERT_TRUE(clip.frames[0].key);
    SnapshotEncoder encoder(VEXO_CODEC_H264);
    camsim_test::Picture picture;
    for (size_t i = 0; i < 20; ++i) {
        encoder.feed(clip.frames[i]);
        if (i == 9 || i == 19) {
            expect_jpeg_of(encoder, 160, 120, &picture);
            const int red_minus_blue = picture.mean_cr - picture.mean_cb;
            EXPECT_GT(i == 9 ? red_minus_blue : -red_minus_blue, 100) << "frame " << i;
        }
    }
}

} // namespace
