// The host kit's media ring buffer through the platform calls the module uses, fed through
// hostkit::ring_push as the camera simulator feeds it.
// (Concurrent pushes and reads are exercised by the camera runs, under the thread sanitizer too.)
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "host_kit.h"
#include "recording_cloud.h"
#include "ring_stream.h"
#include "tests/support/temp_dir.h"
#include "vexo_ring_buffer.h"

namespace {

constexpr int32_t kVideo = VEXO_STREAM_MAIN;
constexpr int32_t kAudio = VEXO_STREAM_AUDIO;

/// Frame bytes that tell stream, time stamp and offset apart.
std::vector<uint8_t> payload(int32_t stream, uint64_t timestamp_ms, size_t size = 32) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(timestamp_ms * 7 + i * 13 + static_cast<size_t>(stream));
    }
    return bytes;
}

void push(int32_t stream, uint32_t type, uint64_t timestamp_ms, size_t size = 32) {
    const std::vector<uint8_t> bytes = payload(stream, timestamp_ms, size);
    hostkit::ring_push(stream, type, bytes.data(), static_cast<uint32_t>(bytes.size()),
                       timestamp_ms * 90, timestamp_ms);
}

/// Pushes one video frame per letter of pattern ('I' key, 'P' other), 40 ms apart from 0.
void push_video(const std::string &pattern) {
    for (size_t i = 0; i < pattern.size(); ++i) {
        push(kVideo, pattern[i] == 'I' ? VEXO_FRAME_I : VEXO_FRAME_P, i * 40);
    }
}

/// The frame is the one push(stream, type, timestamp_ms) made, bytes included.
::testing::AssertionResult is_frame(const vexo_ring_buffer_frame_t *f, int32_t stream,
                                    uint32_t type, uint64_t timestamp_ms) {
    if (f == nullptr) {
        return ::testing::AssertionFailure() << "no frame, expected ts " << timestamp_ms;
    }
    const std::vector<uint8_t> want = payload(stream, timestamp_ms);
    if (f->type != type || f->timestamp != timestamp_ms || f->pts != timestamp_ms * 90 ||
        f->size != want.size() || std::memcmp(f->data, want.data(), want.size()) != 0) {
        return ::testing::AssertionFailure()
               << "got type " << f->type << " ts " << f->timestamp << " size " << f->size
               << ", expected type " << type << " ts " << timestamp_ms;
    }
    return ::testing::AssertionSuccess();
}

class RingBufferTest : public ::testing::Test {
  protected:
    void TearDown() override { hostkit::stop(); }
    /// (Re)starts the kit with these ring settings; hostkit::start's result.
    int restart(uint32_t ring_seconds, uint32_t ring_delay_ms) {
        hostkit::stop();
        hostkit::Options options;
        options.data_dir = dir_;
        options.cloud = std::make_shared<vexo_test::RecordingCloud>(); // never called
        options.log_level = hostkit::LogLevel::kError;
        options.ring_seconds = ring_seconds;
        options.ring_delay_ms = ring_delay_ms;
        return hostkit::start(options);
    }
    void start(uint32_t ring_seconds = 10) { ASSERT_EQ(restart(ring_seconds, 0), 0); }
    static vexo_ring_buffer_user_t open(int32_t stream) {
        return vexo_ipc_ring_buffer_open(0, 0, stream, 0);
    }

    vexo_test::TempDir tmp_{"vexo-ring-test"};
    std::string dir_ = tmp_.path();
};

TEST_F(RingBufferTest, ReadersStartAtTheLiveEndKeepTheirOwnCursorsAndRetryTheLastFrame) {
    start();
    vexo_ring_buffer_user_t r1 = open(kVideo);
    ASSERT_NE(r1, nullptr);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(r1, 1), nullptr) << "nothing handed out yet";
    push_video("IPP");
    vexo_ring_buffer_user_t r2 = open(kVideo);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(r2, 0), nullptr) << "a new reader is at the live end";
    push(kVideo, VEXO_FRAME_P, 120);

    const vexo_ring_buffer_frame_t *first = vexo_ipc_ring_buffer_get_frame(r2, 0);
    ASSERT_TRUE(is_frame(first, kVideo, VEXO_FRAME_P, 120));
    EXPECT_EQ(first->seq, 3u);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(r2, 0), nullptr);
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r2, 1), kVideo, VEXO_FRAME_P, 120))
        << "caught up, the last frame is still there to retry";
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r1, 0), kVideo, VEXO_FRAME_I, 0));
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r1, 1), kVideo, VEXO_FRAME_I, 0));
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(r2, 2, 0), 0);
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r1, 0), kVideo, VEXO_FRAME_P, 40));
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r2, 0), kVideo, VEXO_FRAME_P, 80));
    EXPECT_EQ(vexo_ipc_ring_buffer_close(r1), 0);
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r2, 0), kVideo, VEXO_FRAME_P, 120));
    EXPECT_EQ(hostkit::counters().frames_pushed, 4u);
    EXPECT_EQ(vexo_ipc_ring_buffer_close(r2), 0);
}

/// Key frames every 500 ms of video frames 100 ms apart.
uint32_t type_at(uint64_t ts) {
    return ts % 500 == 0 ? VEXO_FRAME_I : VEXO_FRAME_P;
}

TEST_F(RingBufferTest, OverwrittenReaderJumpsToNewestKeyFrameAndFrameStaysValid) {
    start(1); // frames more than 1000 ms older than the newest fall out
    vexo_ring_buffer_user_t r = open(kVideo);
    push(kVideo, VEXO_FRAME_I, 0);
    const vexo_ring_buffer_frame_t *held = vexo_ipc_ring_buffer_get_frame(r, 0);
    ASSERT_NE(held, nullptr);

    for (uint64_t ts = 100; ts <= 2900; ts += 100) {
        push(kVideo, type_at(ts), ts);
    }
    // The ring dropped frame 0 long ago; the reader's record and bytes must still be intact.
    EXPECT_TRUE(is_frame(held, kVideo, VEXO_FRAME_I, 0));

    // Held now: 1900 .. 2900. The reader stood at 100 and goes on at the newest key frame,
    // 2500: 100 .. 2400 are skipped, 100 .. 1800 of them overwritten.
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r, 0), kVideo, VEXO_FRAME_I, 2500));
    for (uint64_t ts = 2600; ts <= 2900; ts += 100) {
        EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r, 0), kVideo, VEXO_FRAME_P, ts));
    }
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(r, 0), nullptr);
    const hostkit::Counters c = hostkit::counters();
    EXPECT_EQ(c.reader_jumps, 1u) << "counted once";
    EXPECT_EQ(c.frames_skipped, 24u);
    EXPECT_EQ(c.frames_overwritten, 18u);

    // Without a key frame held it waits at the live end: no P frame without its key.
    start(1);
    r = open(kVideo);
    for (uint64_t ts = 0; ts <= 2000; ts += 100) {
        push(kVideo, ts == 0 ? VEXO_FRAME_I : VEXO_FRAME_P, ts);
    }
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(r, 0), nullptr);
    push(kVideo, VEXO_FRAME_I, 2100);
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r, 0), kVideo, VEXO_FRAME_I, 2100));
    EXPECT_EQ(hostkit::counters().frames_skipped, 21u);
}

struct CatchUpCase {
    const char *name;
    bool ask_if_delay;    // the reader is asked about (and reported) before the get
    uint32_t anchor_back; // > 0: anchor_user(frames back, no key) before the get
    int32_t retry;        // of the get
    uint64_t first_ms;    // what the get hands out
    uint64_t skipped;     // frames the kit counts as skipped
};

TEST_F(RingBufferTest, ReaderReportedBehindJumpsOnItsNextGetUnlessAnchored) {
    // Video 0 .. 9900 ms, 100 ms apart, a key frame every 500 ms; the reader got frame 0 and
    // stands at 100, 9800 ms behind the newest: past the lag limit of 9500 ms.
    const CatchUpCase cases[] = {
        {"reported, get", true, 0, 0, 9500, 94},
        {"reported, retry", true, 0, 1, 9500, 94},
        {"reported, then anchored", true, 30, 0, 7000, 0},
        {"never asked: reads on", false, 0, 0, 100, 0},
    };
    for (const CatchUpCase &c : cases) {
        SCOPED_TRACE(c.name);
        start();
        vexo_ring_buffer_user_t r = open(kVideo);
        for (uint64_t ts = 0; ts < 10000; ts += 100) {
            push(kVideo, type_at(ts), ts);
            if (ts == 0) {
                ASSERT_TRUE(
                    is_frame(vexo_ipc_ring_buffer_get_frame(r, 0), kVideo, VEXO_FRAME_I, 0));
            }
        }
        if (c.ask_if_delay) {
            EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), 1);
            EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), 1) << "asking again changes nothing";
        }
        if (c.anchor_back > 0) {
            ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(r, c.anchor_back, 0), 0);
        }
        EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(r, c.retry), kVideo,
                             type_at(c.first_ms), c.first_ms));
        const hostkit::Counters counters = hostkit::counters();
        EXPECT_EQ(counters.frames_skipped, c.skipped);
        EXPECT_EQ(counters.reader_jumps, c.skipped > 0 ? 1u : 0u);
        if (c.skipped > 0) {
            EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), 0) << "caught up";
            // The reader reads on from there, frame by frame, without another jump.
            for (uint64_t ts = c.first_ms + 100; ts < 10000; ts += 100) {
                EXPECT_TRUE(
                    is_frame(vexo_ipc_ring_buffer_get_frame(r, 0), kVideo, type_at(ts), ts));
            }
            EXPECT_EQ(hostkit::counters().reader_jumps, 1u);
        }
    }
}

TEST_F(RingBufferTest, AudioBesideAJumpingVideoReaderFollowsItsKeyFrame) {
    start();
    vexo_ring_buffer_user_t v = open(kVideo);
    vexo_ring_buffer_user_t a = open(kAudio);
    // 25 fps video with a key frame every second and audio every 20 ms, 0 .. 11980 ms: the
    // ring holds from 1960 (video) and 1980 (audio) on.
    for (uint64_t ts = 0; ts < 12000; ts += 20) {
        if (ts % 40 == 0) {
            push(kVideo, ts % 1000 == 0 ? VEXO_FRAME_I : VEXO_FRAME_P, ts);
        }
        push(kAudio, VEXO_FRAME_AUDIO, ts);
    }
    // Overwritten, so it jumps without being asked; a retry jumps as well.
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 1), kVideo, VEXO_FRAME_I, 11000));
    EXPECT_TRUE(
        is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), kAudio, VEXO_FRAME_AUDIO, 11000));
    EXPECT_TRUE(
        is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), kAudio, VEXO_FRAME_AUDIO, 11020));
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), kVideo, VEXO_FRAME_P, 11040));
    hostkit::Counters c = hostkit::counters();
    EXPECT_EQ(c.reader_jumps, 1u) << "one jump for the pair";
    EXPECT_EQ(c.frames_skipped, 275u + 550u); // video 0 .. 10960, audio 0 .. 10980
    EXPECT_EQ(c.frames_overwritten, 49u + 99u);

    // Audio left unread while video is read alone: once overwritten it is moved beside the
    // video reader's next frame, and the video reader stays where it is.
    for (uint64_t ts = 12000; ts < 24000; ts += 20) {
        if (ts % 40 == 0) {
            push(kVideo, ts % 1000 == 0 ? VEXO_FRAME_I : VEXO_FRAME_P, ts);
        }
        push(kAudio, VEXO_FRAME_AUDIO, ts);
    }
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(v, 10, 0), 0); // video next at 23600
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), kVideo, VEXO_FRAME_P, 23600));
    EXPECT_TRUE(
        is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), kAudio, VEXO_FRAME_AUDIO, 23600));
    c = hostkit::counters();
    EXPECT_EQ(c.reader_jumps, 2u);
    EXPECT_EQ(c.frames_skipped, 825u + 628u); // audio 11040 .. 23580
}

TEST_F(RingBufferTest, ByteCapBoundsAStreamWhoseTimeStampsStandStill) {
    start();
    constexpr uint32_t kSize = 4u << 20;
    const std::vector<uint8_t> big(kSize, 0x5a);
    for (int i = 0; i < 20; ++i) {
        hostkit::ring_push(kVideo, VEXO_FRAME_P, big.data(), kSize, 0, 1000);
    }
    const uint64_t fit = hostkit::ring::kMaxStreamBytes / (kSize + hostkit::ring::kFrameOverhead);
    vexo_ring_buffer_user_t r = open(kVideo);
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(r, 1000, 0), 0);
    const vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_frame(r, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->seq, 20 - fit);
    uint64_t held = 1;
    while (vexo_ipc_ring_buffer_get_frame(r, 0) != nullptr) {
        ++held;
    }
    EXPECT_EQ(held, fit);
}

struct AnchorCase {
    const char *name;
    const char *pattern; // frames 40 ms apart, 'I' key
    uint32_t frames_back;
    int32_t to_key_frame;
    bool ok;
    int first_index; // frame the reader gets next; -1: none (live end)
};

TEST_F(RingBufferTest, AnchorStepsBackAndFindsKeyFrames) {
    const AnchorCase cases[] = {
        {"empty stream", "", 0, 0, false, -1},
        {"no key frame yet", "PPPP", 2, 1, false, -1},
        {"no key frame needed", "PPPP", 2, 0, true, 2},
        {"zero back stays at live end", "IPPP", 0, 0, true, -1},
        {"zero back to key goes to the newest key", "IPPPIP", 0, 1, true, 4},
        {"lands on P, key before it", "IPPPIPPP", 3, 1, true, 4},
        {"lands on a key", "IPPPIPPP", 4, 1, true, 4},
        {"lands before the second key", "IPPPIPPP", 5, 1, true, 0},
        {"exactly what is held", "PIPP", 4, 0, true, 0},
        {"more than held", "PIPP", 100, 0, true, 0},
        {"no key at or before: oldest key held", "PPPIPP", 4, 1, true, 3},
        {"more than held, no key before: oldest key", "PPIPPIP", 100, 1, true, 2},
    };
    for (const AnchorCase &c : cases) {
        SCOPED_TRACE(c.name);
        start();
        vexo_ring_buffer_user_t r = open(kVideo);
        push_video(c.pattern);
        // Where the reader stood before does not matter: read it to the live end first.
        while (vexo_ipc_ring_buffer_get_frame(r, 0) != nullptr) {
        }
        EXPECT_EQ(vexo_ipc_ring_buffer_anchor_user(r, c.frames_back, c.to_key_frame) == 0, c.ok);
        const vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_frame(r, 0);
        if (c.first_index < 0) {
            EXPECT_EQ(f, nullptr);
        } else {
            const uint32_t type = c.pattern[c.first_index] == 'I' ? VEXO_FRAME_I : VEXO_FRAME_P;
            EXPECT_TRUE(is_frame(f, kVideo, type, static_cast<uint64_t>(c.first_index) * 40));
        }
    }
}

struct SyncCase {
    const char *name;
    uint64_t audio_first_ms;
    uint64_t audio_last_ms;
    uint32_t video_back;   // frames the video reader is anchored back; 0: at the live end
    int64_t audio_next_ms; // -1: the audio reader is at its live end
};

TEST_F(RingBufferTest, SyncStreamMovesAudioToTheVideoReadersTime) {
    // Video frames at 0, 40, .. 360; its reader anchored back 5 frames stands at 200.
    const SyncCase cases[] = {
        {"audio between video times", 10, 390, 5, 210},  {"audio at the same time", 0, 380, 5, 200},
        {"video reader at the live end", 0, 380, 0, -1}, {"no audio new enough", 0, 180, 5, -1},
        {"all audio newer", 300, 380, 5, 300},
    };
    for (const SyncCase &c : cases) {
        SCOPED_TRACE(c.name);
        start();
        vexo_ring_buffer_user_t v = open(kVideo);
        vexo_ring_buffer_user_t a = open(kAudio);
        push_video("IPPPPPPPPP");
        for (uint64_t ts = c.audio_first_ms; ts <= c.audio_last_ms; ts += 20) {
            push(kAudio, VEXO_FRAME_AUDIO, ts);
        }
        while (vexo_ipc_ring_buffer_get_frame(v, 0) != nullptr) {
        }
        if (c.video_back > 0) {
            ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(v, c.video_back, 0), 0);
        }
        ASSERT_EQ(vexo_ipc_ring_buffer_sync_stream(v, a), 0);
        const vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_frame(a, 0);
        if (c.audio_next_ms < 0) {
            EXPECT_EQ(f, nullptr);
        } else {
            EXPECT_TRUE(
                is_frame(f, kAudio, VEXO_FRAME_AUDIO, static_cast<uint64_t>(c.audio_next_ms)));
        }
    }
}

TEST_F(RingBufferTest, AvFrameTakesTheOlderFrameVideoFirstOnTiesAndRetries) {
    start();
    vexo_ring_buffer_user_t v = open(kVideo);
    vexo_ring_buffer_user_t a = open(kAudio);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_av_frame(v, a, 1), nullptr) << "nothing handed out yet";
    push_video("IPP"); // 0, 40, 80
    for (uint64_t ts = 0; ts <= 100; ts += 20) {
        push(kAudio, VEXO_FRAME_AUDIO, ts);
    }
    const struct {
        int32_t stream;
        uint64_t ts;
    } expected[] = {{kVideo, 0},  {kAudio, 0},  {kAudio, 20}, {kVideo, 40}, {kAudio, 40},
                    {kAudio, 60}, {kVideo, 80}, {kAudio, 80}, {kAudio, 100}};
    for (const auto &e : expected) {
        SCOPED_TRACE(e.ts);
        const uint32_t type = e.stream == kAudio ? VEXO_FRAME_AUDIO
                              : e.ts == 0        ? VEXO_FRAME_I
                                                 : VEXO_FRAME_P;
        EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), e.stream, type, e.ts));
        EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 1), e.stream, type, e.ts));
    }
    EXPECT_EQ(vexo_ipc_ring_buffer_get_av_frame(v, a, 0), nullptr);
    EXPECT_TRUE(
        is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 1), kAudio, VEXO_FRAME_AUDIO, 100));

    // A video-only read in between: the pair's retry gives that video frame.
    push(kVideo, VEXO_FRAME_P, 120);
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(v, 0), kVideo, VEXO_FRAME_P, 120));
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_av_frame(v, a, 1), kVideo, VEXO_FRAME_P, 120));

    // Without an audio reader the pair reads video alone.
    push(kAudio, VEXO_FRAME_AUDIO, 120);
    push(kVideo, VEXO_FRAME_P, 160);
    EXPECT_TRUE(
        is_frame(vexo_ipc_ring_buffer_get_av_frame(v, nullptr, 0), kVideo, VEXO_FRAME_P, 160));
}

TEST_F(RingBufferTest, LagLimitIsCheckedAtStartAndIfDelayComparesTheNextFrameWithTheNewest) {
    const struct {
        uint32_t ring_seconds;
        uint32_t delay_ms;
        uint64_t newest_ms;
        int32_t delayed; // -1: the limit is refused
    } cases[] = {
        // At or below the longest pre-record (7 s), or beyond the ring: refused.
        {10, 7000, 0, -1},
        {10, 10001, 0, -1},
        {3, 3001, 0, -1},
        {60, 57000, 0, -1},
        {10, 7001, 7001, 0},
        {10, 7001, 7002, 1},
        {10, 10000, 10000, 0},
        {3, 1, 2, 1},
        {60, 57001, 57002, 1},
        // 0: half a second short of the ring; a one-second ring: half of it.
        {10, 0, 9500, 0},
        {10, 0, 9501, 1},
        {1, 0, 500, 0},
        {1, 0, 501, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.ring_seconds << " s, " << c.delay_ms << " ms, newest " << c.newest_ms);
        ::testing::internal::CaptureStderr();
        const int started = restart(c.ring_seconds, c.delay_ms);
        const std::string err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.find("ring_delay_ms must be above") != std::string::npos, c.delayed < 0)
            << err;
        ASSERT_EQ(started, c.delayed < 0 ? -1 : 0);
        if (c.delayed < 0) {
            continue;
        }
        vexo_ring_buffer_user_t r = open(kVideo);
        EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), 0) << "empty stream";
        push(kVideo, VEXO_FRAME_I, 0);
        push(kVideo, VEXO_FRAME_P, c.newest_ms);
        EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), c.delayed);
        ASSERT_NE(vexo_ipc_ring_buffer_get_frame(r, 0), nullptr);
        EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), 0) << "one frame behind the newest";
        ASSERT_NE(vexo_ipc_ring_buffer_get_frame(r, 0), nullptr);
        EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(r), 0) << "at the live end";
    }
}

TEST_F(RingBufferTest, UnknownClosedAndStaleHandlesFailSafely) {
    start();
    push_video("IP");
    vexo_ring_buffer_user_t made_up = reinterpret_cast<vexo_ring_buffer_user_t>(uintptr_t{0xdead0});
    vexo_ring_buffer_user_t closed = open(kVideo);
    ASSERT_EQ(vexo_ipc_ring_buffer_close(closed), 0);
    vexo_ring_buffer_user_t stale = open(kVideo);
    start(); // the reset voids readers still open
    vexo_ring_buffer_user_t live = open(kVideo);
    ASSERT_NE(live, nullptr);

    for (vexo_ring_buffer_user_t bad : {made_up, closed, stale, vexo_ring_buffer_user_t{}}) {
        SCOPED_TRACE(bad);
        EXPECT_NE(bad, live);
        EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(bad, 0), nullptr);
        EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(bad, 1), nullptr);
        EXPECT_EQ(vexo_ipc_ring_buffer_anchor_user(bad, 1, 0), -1);
        EXPECT_EQ(vexo_ipc_ring_buffer_sync_stream(live, bad), -1);
        EXPECT_EQ(vexo_ipc_ring_buffer_sync_stream(bad, live), -1);
        EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(bad), -1);
        EXPECT_EQ(vexo_ipc_ring_buffer_close(bad), -1);
        if (bad != nullptr) {
            EXPECT_EQ(vexo_ipc_ring_buffer_get_av_frame(live, bad, 0), nullptr);
            EXPECT_EQ(vexo_ipc_ring_buffer_get_av_frame(bad, live, 0), nullptr);
        }
    }
    EXPECT_EQ(vexo_ipc_ring_buffer_get_av_frame(nullptr, nullptr, 0), nullptr);
    push(kVideo, VEXO_FRAME_I, 0);
    EXPECT_TRUE(is_frame(vexo_ipc_ring_buffer_get_frame(live, 0), kVideo, VEXO_FRAME_I, 0));
}

TEST_F(RingBufferTest, StreamInfoAndRefusedPushes) {
    start(7);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_buf_secs(0, 0, kVideo), -1);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_frame_size(0, 0, kVideo), -1);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, kVideo), 0u);
    vexo_ring_buffer_user_t r = open(kVideo);
    ASSERT_NE(r, nullptr) << "a stream not declared yet still gets readers";

    hostkit::ring_declare(kVideo, 100);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_buf_secs(0, 0, kVideo), 7);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_frame_size(0, 0, kVideo), 100);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_buf_secs(0, 0, kAudio), -1);
    hostkit::ring_declare(kAudio, 0);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_frame_size(0, 0, kAudio), -1) << "0 is no size";
    EXPECT_EQ(vexo_ipc_ring_buffer_get_max_buf_secs(0, 0, kAudio), 7);

    const std::vector<uint8_t> bytes(101, 1);
    hostkit::ring_push(kVideo, VEXO_FRAME_I, bytes.data(), 101, 0, 10); // above the declared size
    hostkit::ring_push(kVideo, VEXO_FRAME_I, nullptr, 10, 0, 20);       // no data
    hostkit::ring_push(16, VEXO_FRAME_I, bytes.data(), 10, 0, 30);      // no such stream
    hostkit::ring_push(-1, VEXO_FRAME_I, bytes.data(), 10, 0, 40);
    EXPECT_EQ(hostkit::counters().frames_pushed, 0u);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(r, 0), nullptr);

    hostkit::ring_push(kVideo, VEXO_FRAME_P, nullptr, 0, 0, 50); // empty frames are frames
    push(kVideo, VEXO_FRAME_P, 60);
    EXPECT_EQ(hostkit::counters().frames_pushed, 2u);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, kVideo), 60u);
    const vexo_ring_buffer_frame_t *empty = vexo_ipc_ring_buffer_get_frame(r, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->size, 0u);
    EXPECT_NE(empty->data, nullptr);

    const struct {
        int32_t device, channel, stream;
    } bad_sources[] = {{1, 0, kVideo}, {0, 1, kVideo}, {0, 0, 16}, {0, 0, -1}};
    for (const auto &b : bad_sources) {
        SCOPED_TRACE(::testing::Message() << b.device << "/" << b.channel << "/" << b.stream);
        EXPECT_EQ(vexo_ipc_ring_buffer_open(b.device, b.channel, b.stream, 0), nullptr);
        EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(b.device, b.channel, b.stream), 0u);
        EXPECT_EQ(vexo_ipc_ring_buffer_get_max_frame_size(b.device, b.channel, b.stream), -1);
        EXPECT_EQ(vexo_ipc_ring_buffer_get_max_buf_secs(b.device, b.channel, b.stream), -1);
    }
    EXPECT_EQ(vexo_ipc_ring_buffer_close(r), 0);
}

} // namespace
