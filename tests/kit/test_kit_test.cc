// The test kit's own behaviour that module tests rely on: the virtual clock, a ring reader at
// the live end and the frame generator. Anchoring, ordering and catch-up of the kit's readers
// are checked through the module by the system tests, which compare every uploaded frame with
// what the generator produced; the cipher and record code the kit shares with the host kit is
// checked by the host kit's tests.
#include <cstring>
#include <gtest/gtest.h>

#include "test_kit.h"

namespace {

class KitSelfTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::reset(); }
    void TearDown() override { tk::reset(); }
};

std::vector<uint8_t> bytes_of(uint8_t tag, size_t n) {
    return std::vector<uint8_t>(n, tag);
}

// Pushes video frames at the given times; types from the string ('I' key, 'P' other).
void push_video(const std::string &types, uint64_t first_ms, uint64_t step_ms) {
    for (size_t i = 0; i < types.size(); ++i) {
        tk::push_frame(VEXO_STREAM_MAIN, types[i] == 'I' ? VEXO_FRAME_I : VEXO_FRAME_P,
                       bytes_of(static_cast<uint8_t>(i), 10 + i), first_ms + i * step_ms, i);
    }
}

// ---- clock -------------------------------------------------------------------------------------

TEST_F(KitSelfTest, ClockSleepAdvancesVirtualTimeAndLocalTimeUsesZoneOffset) {
    tk::set_time(1700000000);
    EXPECT_EQ(uni_time_get_posix(), 1700000000u);
    vexo_hal_system_sleep(1500);
    EXPECT_EQ(tk::now_ms(), 1700000001500u);
    EXPECT_EQ(uni_time_get_posix(), 1700000001u);
    EXPECT_EQ(tk::sleeps_of(""), std::vector<uint32_t>{1500});

    tk::freeze_clock(true);
    vexo_hal_system_sleep(10000);
    EXPECT_EQ(tk::now_ms(), 1700000001500u);
    tk::freeze_clock(false);

    // 2023-11-14 22:13:20 UTC; +2 h puts it at 00:13:21 the next day.
    tk::set_zone_offset(7200);
    struct tm local;
    std::memset(&local, 0, sizeof(local));
    ASSERT_EQ(uni_local_time_get_custom(1700000001, &local), 0);
    EXPECT_EQ(local.tm_hour, 0);
    EXPECT_EQ(local.tm_min, 13);
    EXPECT_EQ(local.tm_mday, 15);
}

// ---- ring buffer -------------------------------------------------------------------------------

TEST_F(KitSelfTest, RingReaderStartsAtLiveEndAndRetryRepeatsLastFrame) {
    push_video("IPP", 1000, 40);
    vexo_ring_buffer_user_t user = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(user, 0), nullptr);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, VEXO_STREAM_MAIN), 1080u);

    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_P, {1, 2, 3}, 1120, 77);
    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_I, {4, 5}, 1160, 78);
    vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_frame(user, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->timestamp, 1120u);
    EXPECT_EQ(f->pts, 77u);
    ASSERT_EQ(f->size, 3u);
    EXPECT_EQ(f->data[2], 3);
    f = vexo_ipc_ring_buffer_get_frame(user, 1);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->timestamp, 1120u);
    f = vexo_ipc_ring_buffer_get_frame(user, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->timestamp, 1160u);
    EXPECT_EQ(f->type, static_cast<uint32_t>(VEXO_FRAME_I));
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(user, 0), nullptr);
    EXPECT_EQ(vexo_ipc_ring_buffer_close(user), 0);
    EXPECT_EQ(tk::open_reader_count(), 0u);
}

TEST_F(KitSelfTest, GeneratorFollowsClockAndMatchesHistory) {
    tk::set_time_ms(5000000);
    tk::StreamConfig cfg;
    cfg.capacity_secs = 4;
    tk::start_stream(cfg);
    vexo_ring_buffer_user_t video = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    vexo_ring_buffer_user_t audio = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    tk::advance(3000);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, VEXO_STREAM_MAIN), 5003000u);

    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(video, 20, 1), 0); // back to the key at +2 s
    ASSERT_EQ(vexo_ipc_ring_buffer_sync_stream(video, audio), 0);
    size_t frames = 0;
    while (vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 0)) {
        int32_t stream = f->type == VEXO_FRAME_AUDIO ? VEXO_STREAM_AUDIO : VEXO_STREAM_MAIN;
        std::optional<tk::FrameInfo> info = tk::frame_at(stream, f->timestamp);
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->pts, f->timestamp * 1000);
        std::vector<uint8_t> want = tk::frame_bytes(*info);
        ASSERT_EQ(want.size(), f->size);
        EXPECT_EQ(std::memcmp(want.data(), f->data, f->size), 0);
        ++frames;
    }
    EXPECT_EQ(frames, 52u); // 5002000 .. 5003000: 26 video at 25 fps, 26 audio at 40 ms
    EXPECT_EQ(tk::frame_at(VEXO_STREAM_MAIN, 5002000)->type, static_cast<uint32_t>(VEXO_FRAME_I));

    // An hour later the ring holds only its capacity; bytes depend on (stream, index) alone.
    tk::advance(3600000);
    EXPECT_EQ(tk::frames_produced(VEXO_STREAM_MAIN), 25u * 3603 + 1);
    EXPECT_EQ(tk::ring_frames(VEXO_STREAM_MAIN).size(), 101u);
    std::optional<tk::FrameInfo> mid = tk::frame_at(VEXO_STREAM_MAIN, 5000000 + 1800000);
    ASSERT_TRUE(mid.has_value());
    EXPECT_EQ(mid->index, 45000u);
    EXPECT_EQ(tk::frame_bytes(*mid), tk::generated_bytes(VEXO_STREAM_MAIN, 45000, 1, 6000));
    tk::stop_stream();
    vexo_ipc_ring_buffer_close(video);
    vexo_ipc_ring_buffer_close(audio);
}

} // namespace
