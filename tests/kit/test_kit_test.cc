// The test kit's own behaviour that module tests rely on: ring-buffer positioning and ordering,
// the generator and its history, the cipher rules, the record serialiser, the clock, and the
// checks the kit makes on its callers.
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include "test_kit.h"

namespace {

class KitSelfTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::reset(); }
    void TearDown() override {
        EXPECT_TRUE(tk::wait_threads_exited(10000));
        tk::reset();
    }
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

uint64_t next_ts(vexo_ring_buffer_user_t user) {
    vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_frame(user, 0);
    return f == nullptr ? 0 : f->timestamp;
}

// ---- clock -------------------------------------------------------------------------------------

TEST_F(KitSelfTest, ClockSleepAdvancesVirtualTimeAndLocalTimeUsesZoneOffset) {
    tk::set_time(1700000000);
    EXPECT_EQ(uni_time_get_posix(), 1700000000u);
    vexo_hal_system_sleep(1500);
    EXPECT_EQ(tk::now_ms(), 1700000001500u);
    EXPECT_EQ(uni_time_get_posix(), 1700000001u);
    EXPECT_EQ(tk::total_sleep_ms(), 1500u);
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
    EXPECT_EQ(local.tm_sec, 21);
    EXPECT_EQ(local.tm_mday, 15);
    EXPECT_NE(uni_local_time_get_custom(1, nullptr), 0);
}

// ---- ring buffer
// ---------------------------------------------------------------------------------

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
    EXPECT_EQ(f->data[0], 1);
    f = vexo_ipc_ring_buffer_get_frame(user, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->timestamp, 1160u);
    EXPECT_EQ(f->type, static_cast<uint32_t>(VEXO_FRAME_I));
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(user, 0), nullptr);
    EXPECT_EQ(vexo_ipc_ring_buffer_close(user), 0);
    EXPECT_EQ(tk::open_reader_count(), 0u);
    EXPECT_EQ(vexo_ipc_ring_buffer_close(user), -1);
    EXPECT_EQ(tk::misuse_count("ring"), 1u);

    tk::fail_open(VEXO_STREAM_AUDIO);
    EXPECT_EQ(vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0), nullptr);
    user = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    EXPECT_NE(user, nullptr);
    vexo_ipc_ring_buffer_close(user);
}

TEST_F(KitSelfTest, RingAnchorStepsBackToKeyFrame) {
    vexo_ring_buffer_user_t user = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    EXPECT_NE(vexo_ipc_ring_buffer_anchor_user(user, 5, 1), 0); // empty stream

    // Times 0, 40, ... 360: key frames at 120 and 280.
    push_video("PPPIPPPIPP", 0, 40);
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(user, 4, 0), 0); // no key: 6th frame
    EXPECT_EQ(next_ts(user), 240u);
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(user, 4, 1), 0); // back to the key at 120
    EXPECT_EQ(next_ts(user), 120u);
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(user, 0, 1), 0); // live end: key at or before
    EXPECT_EQ(next_ts(user), 280u);
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(user, 100, 1), 0); // clamped to the oldest,
    EXPECT_EQ(next_ts(user), 120u);                               // then the key after it

    tk::queue_result("vexo_ipc_ring_buffer_anchor_user", -1, 2);
    EXPECT_NE(vexo_ipc_ring_buffer_anchor_user(user, 1, 1), 0);
    EXPECT_NE(vexo_ipc_ring_buffer_anchor_user(user, 1, 1), 0);
    EXPECT_EQ(vexo_ipc_ring_buffer_anchor_user(user, 1, 1), 0);
    EXPECT_EQ(tk::calls("vexo_ipc_ring_buffer_anchor_user"), 8u);

    vexo_ring_buffer_user_t audio = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    tk::push_frame(VEXO_STREAM_AUDIO, VEXO_FRAME_AUDIO, {1}, 10, 0);
    EXPECT_NE(vexo_ipc_ring_buffer_anchor_user(audio, 1, 1), 0); // no key frame at all
    vexo_ipc_ring_buffer_close(audio);
    vexo_ipc_ring_buffer_close(user);
}

TEST_F(KitSelfTest, RingSyncAndAvOrderingVideoFirstOnEqualTimes) {
    for (uint64_t t = 0; t <= 200; t += 40) {
        tk::push_frame(VEXO_STREAM_MAIN, t == 0 ? VEXO_FRAME_I : VEXO_FRAME_P, {1}, t + 20, 0);
        tk::push_frame(VEXO_STREAM_AUDIO, VEXO_FRAME_AUDIO, {2}, t, 0);
    }
    vexo_ring_buffer_user_t video = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    vexo_ring_buffer_user_t audio = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(audio, 6, 0), 0); // audio back to its oldest
    // Video at the live end: audio goes to its live end too.
    ASSERT_EQ(vexo_ipc_ring_buffer_sync_stream(video, audio), 0);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_frame(audio, 0), nullptr);

    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(video, 3, 0), 0); // video next at 140
    ASSERT_EQ(vexo_ipc_ring_buffer_sync_stream(video, audio), 0);
    std::vector<std::pair<uint32_t, uint64_t>> got;
    while (vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 0)) {
        got.emplace_back(f->type, f->timestamp);
    }
    std::vector<std::pair<uint32_t, uint64_t>> want = {
        {0, 140}, {3, 160}, {0, 180}, {3, 200}, {0, 220}};
    EXPECT_EQ(got, want);

    tk::push_frame(VEXO_STREAM_AUDIO, VEXO_FRAME_AUDIO, {3}, 260, 0);
    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_P, {4}, 260, 0);
    vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->type, static_cast<uint32_t>(VEXO_FRAME_P)); // equal times: video first
    f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->type, static_cast<uint32_t>(VEXO_FRAME_AUDIO));
    f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 1); // the pair's last again
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->type, static_cast<uint32_t>(VEXO_FRAME_AUDIO));
    EXPECT_EQ(f->data[0], 3);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_av_frame(video, audio, 0), nullptr);
    vexo_ipc_ring_buffer_close(video);
    vexo_ipc_ring_buffer_close(audio);
}

TEST_F(KitSelfTest, RingDropsOldFramesAndLaggingReaderMovesToOldest) {
    tk::set_capacity_secs(VEXO_STREAM_MAIN, 1);
    vexo_ring_buffer_user_t user = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    tk::set_delay_threshold_ms(500);
    push_video("IPPPPPPPPPPPPPPPPPPPPPPPPPPPPP", 0, 100); // 0 .. 2900 ms
    std::vector<tk::FrameInfo> ring = tk::ring_frames(VEXO_STREAM_MAIN);
    ASSERT_FALSE(ring.empty());
    EXPECT_EQ(ring.front().timestamp, 1900u);
    EXPECT_EQ(ring.back().timestamp, 2900u);
    EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(user), 1); // its next frame is the oldest, 1900
    EXPECT_EQ(next_ts(user), 1900u);
    EXPECT_EQ(vexo_ipc_ring_buffer_anchor_user(user, 2, 0), 0);
    EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(user), 0);
    tk::force_delay(1);
    EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(user), 1);
    EXPECT_EQ(vexo_ipc_ring_buffer_if_delay(user), 0);

    // The history keeps what the ring dropped.
    EXPECT_EQ(tk::frames_produced(VEXO_STREAM_MAIN), 30u);
    std::optional<tk::FrameInfo> old = tk::frame_at(VEXO_STREAM_MAIN, 300);
    ASSERT_TRUE(old.has_value());
    EXPECT_EQ(old->index, 3u);
    EXPECT_EQ(tk::frame_bytes(*old), bytes_of(3, 13));
    vexo_ipc_ring_buffer_close(user);
}

TEST_F(KitSelfTest, GeneratorFollowsClockAndMatchesHistory) {
    tk::set_time_ms(5000000);
    tk::StreamConfig cfg;
    cfg.capacity_secs = 4;
    tk::start_stream(cfg);
    vexo_ring_buffer_user_t video = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    vexo_ring_buffer_user_t audio = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, VEXO_STREAM_MAIN), 5000000u);
    tk::advance(3000);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, VEXO_STREAM_MAIN), 5003000u);
    EXPECT_EQ(vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, VEXO_STREAM_AUDIO), 5003000u);

    ASSERT_EQ(vexo_ipc_ring_buffer_anchor_user(video, 20, 1), 0); // back to the key at +2 s
    ASSERT_EQ(vexo_ipc_ring_buffer_sync_stream(video, audio), 0);
    size_t video_frames = 0;
    size_t audio_frames = 0;
    uint64_t last_ts = 0;
    while (vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 0)) {
        EXPECT_GE(f->timestamp, last_ts);
        last_ts = f->timestamp;
        int32_t stream = f->type == VEXO_FRAME_AUDIO ? VEXO_STREAM_AUDIO : VEXO_STREAM_MAIN;
        std::optional<tk::FrameInfo> info = tk::frame_at(stream, f->timestamp);
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->type, f->type);
        EXPECT_EQ(info->pts, f->timestamp * 1000);
        std::vector<uint8_t> want = tk::frame_bytes(*info);
        ASSERT_EQ(want.size(), f->size);
        EXPECT_EQ(std::memcmp(want.data(), f->data, f->size), 0);
        (stream == VEXO_STREAM_MAIN ? video_frames : audio_frames)++;
    }
    EXPECT_EQ(video_frames, 26u); // 5002000 .. 5003000 at 25 fps
    EXPECT_EQ(audio_frames, 26u); // same span at 40 ms
    EXPECT_EQ(tk::frame_at(VEXO_STREAM_MAIN, 5002000)->type, static_cast<uint32_t>(VEXO_FRAME_I));
    EXPECT_EQ(tk::frame_at(VEXO_STREAM_MAIN, 5002040)->type, static_cast<uint32_t>(VEXO_FRAME_P));

    // An hour later: the ring holds only its capacity, the history counts every frame, and
    // bytes are a function of (stream, index) alone.
    tk::advance(3600000);
    EXPECT_EQ(tk::frames_produced(VEXO_STREAM_MAIN), 25u * 3603 + 1);
    std::vector<tk::FrameInfo> ring = tk::ring_frames(VEXO_STREAM_MAIN);
    EXPECT_EQ(ring.size(), 101u);
    EXPECT_EQ(ring.back().timestamp, 5000000u + 3603000);
    std::optional<tk::FrameInfo> mid = tk::frame_at(VEXO_STREAM_MAIN, 5000000 + 1800000);
    ASSERT_TRUE(mid.has_value());
    EXPECT_EQ(mid->index, 45000u);
    EXPECT_EQ(mid->type, static_cast<uint32_t>(VEXO_FRAME_I));
    EXPECT_EQ(tk::frame_bytes(*mid), tk::generated_bytes(VEXO_STREAM_MAIN, 45000, 1, 6000));
    EXPECT_NE(tk::frame_bytes(*mid), tk::generated_bytes(VEXO_STREAM_MAIN, 45050, 1, 6000));
    EXPECT_EQ(tk::frames_between(VEXO_STREAM_AUDIO, 5001000, 5002000).size(), 26u);
    // The lagging reader moves to the oldest frame.
    EXPECT_EQ(next_ts(video), ring.front().timestamp);
    tk::stop_stream();
    vexo_ipc_ring_buffer_close(video);
    vexo_ipc_ring_buffer_close(audio);
}

// ---- crypto
// --------------------------------------------------------------------------------------

TEST_F(KitSelfTest, CipherLeavesIvUnchangedAndHardwareMatchesSoftware) {
    const uint8_t key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    uint8_t iv[16];
    for (int i = 0; i < 16; ++i) {
        iv[i] = static_cast<uint8_t>(0xA0 + i);
    }
    const uint8_t iv_before[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                                   0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
    for (uint32_t len : {0u, 15u, 16u, 100u}) {
        std::vector<uint8_t> plain = bytes_of(static_cast<uint8_t>(len), len);
        std::vector<uint8_t> out(len + 32);
        uint32_t out_len = 0;
        ASSERT_EQ(OpensslAES_CBC128_encrypt(plain.data(), len, out.data(), &out_len, key, iv), 0);
        EXPECT_EQ(out_len, (len / 16 + 1) * 16);
        EXPECT_EQ(std::memcmp(iv, iv_before, 16), 0);
        out.resize(out_len);
        EXPECT_EQ(tk::aes_cbc_decrypt(key, iv, out), plain);
    }
    std::vector<uint8_t> garbage(32, 0x55);
    EXPECT_FALSE(tk::aes_cbc_decrypt(key, iv, garbage).has_value());

    vexo_hw_aes_t ctx;
    std::memset(&ctx, 0, sizeof(ctx));
    ASSERT_EQ(vexo_hw_aes_crypt_init(&ctx, key), 0);
    EXPECT_EQ(ctx.engine, 0u); // engine off by default
    EXPECT_EQ(vexo_hw_aes_update_key(&ctx, key), 0);

    tk::set_hw_engine(true);
    ASSERT_EQ(vexo_hw_aes_crypt_init(&ctx, key), 0);
    EXPECT_NE(ctx.engine, 0u);
    std::vector<uint8_t> plain = bytes_of(7, 40);
    std::vector<uint8_t> out(48);
    uint32_t room = 47;
    EXPECT_NE(vexo_hw_aes_encrypt_cbc(&ctx, iv, 128, plain.data(), 40, out.data(), &room), 0);
    room = 48;
    ASSERT_EQ(vexo_hw_aes_encrypt_cbc(&ctx, iv, 128, plain.data(), 40, out.data(), &room), 0);
    EXPECT_EQ(room, 48u);
    EXPECT_EQ(out, tk::aes_cbc_encrypt(key, iv, plain));
    EXPECT_EQ(std::memcmp(iv, iv_before, 16), 0);

    const uint8_t key2[16] = {9};
    ASSERT_EQ(vexo_hw_aes_update_key(&ctx, key2), 0);
    room = 48;
    ASSERT_EQ(vexo_hw_aes_encrypt_cbc(&ctx, iv, 128, plain.data(), 40, out.data(), &room), 0);
    EXPECT_EQ(tk::aes_cbc_decrypt(key2, iv, out), plain);
    EXPECT_EQ(vexo_hw_aes_crypt_uninit(&ctx), 0);
    EXPECT_EQ(ctx.engine, 0u);
    EXPECT_EQ(tk::hw_encrypt_calls(), 2u);
    EXPECT_EQ(tk::sw_encrypt_calls(), 4u);

    uni_md5_ctx_t md5;
    uint8_t digest[16];
    uni_md5_init(&md5);
    uni_md5_update(&md5, reinterpret_cast<const uint8_t *>("ab"), 2);
    uni_md5_update(&md5, reinterpret_cast<const uint8_t *>("c"), 1);
    uni_md5_final(&md5, digest);
    EXPECT_EQ(digest[0], 0x90);
    EXPECT_EQ(digest[15], 0x72);
    EXPECT_EQ(tk::md5_hex({'a', 'b', 'c'}), "900150983cd24fb0d6963f7d28e17f72");
}

// ---- key-value store
// -----------------------------------------------------------------------------

TEST_F(KitSelfTest, KvRecordsRoundTripAndDamagedRecordsAreRejected) {
    uint8_t md5[32];
    std::memset(md5, 'a', sizeof(md5));
    int32_t md5_len = 32;
    uint8_t key[16] = {1, 2, 3};
    vexo_kv_entry_t entries[] = {{"md5_value", VEXO_KV_BYTES, md5, 32},
                                 {"md5_len", VEXO_KV_INT, &md5_len, 4},
                                 {"encrypt_key_value", VEXO_KV_BYTES, key, 16}};
    uint8_t *out = nullptr;
    uint32_t out_len = 0;
    ASSERT_EQ(iot_wd_utils_serialize(entries, 3, &out, &out_len), 0);
    ASSERT_EQ(iot_wd_common_write("md5_encrypt_key", out, out_len), 0);
    Free(out);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "md5_len"), 32);

    uint8_t *data = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(iot_wd_common_read("md5_encrypt_key", &data, &len), 0);
    EXPECT_EQ(len, out_len);
    int32_t got_len = 0;
    uint8_t got_key[4] = {0};
    vexo_kv_entry_t wanted[] = {{"md5_len", VEXO_KV_INT, &got_len, 4},
                                {"encrypt_key_value", VEXO_KV_BYTES, got_key, 4}};
    ASSERT_EQ(iot_wd_utils_deserialize(data, wanted, 2), 0);
    EXPECT_EQ(got_len, 32);
    EXPECT_EQ(got_key[2], 3); // only the first 4 bytes asked for
    vexo_kv_entry_t missing[] = {{"encrypt_key_len", VEXO_KV_INT, &got_len, 4}};
    EXPECT_NE(iot_wd_utils_deserialize(data, missing, 1), 0);
    data[len / 2] ^= 0x40;
    EXPECT_NE(iot_wd_utils_deserialize(data, wanted, 2), 0);
    data[0] = 'X';
    EXPECT_NE(iot_wd_utils_deserialize(data, wanted, 2), 0);
    EXPECT_EQ(tk::kv_outstanding_reads(), 1u);
    EXPECT_EQ(iot_wd_common_free_data(data), 0);
    EXPECT_EQ(tk::kv_outstanding_reads(), 0u);

    EXPECT_EQ(iot_wd_common_read("storage_restriction", &data, &len), -6);
    tk::put_slice_record(12);
    tk::queue_result("iot_wd_common_read", -30);
    EXPECT_EQ(iot_wd_common_read("storage_restriction", &data, &len), -30);
    ASSERT_EQ(iot_wd_common_read("storage_restriction", &data, &len), 0);
    int32_t slice = 0;
    vexo_kv_entry_t slice_entry[] = {{"slice_duration", VEXO_KV_INT, &slice, 4}};
    EXPECT_EQ(iot_wd_utils_deserialize(data, slice_entry, 1), 0);
    EXPECT_EQ(slice, 12);
    iot_wd_common_free_data(data);

    tk::put_key_record("0123456789abcdef0123456789abcdef", 32, std::vector<uint8_t>(16, 9), 16);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "encrypt_key_len"), 16);
    EXPECT_EQ(tk::record_field("md5_encrypt_key", "encrypt_key_value"),
              std::vector<uint8_t>(16, 9));
    EXPECT_EQ(tk::kv_writes(), std::vector<std::string>{"md5_encrypt_key"});
}

// ---- memory, mutexes, threads
// --------------------------------------------------------------------

TEST_F(KitSelfTest, AllocatorsCountFailOnScriptAndReportBadFrees) {
    tk::fail_alloc_call(tk::Pool::malloc, 2);
    void *a = Malloc(10);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(Malloc(10), nullptr);
    tk::fail_alloc_size(tk::Pool::system, 64);
    EXPECT_EQ(vexo_hal_system_malloc(64), nullptr);
    void *b = vexo_hal_system_malloc(64);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding_bytes, 10u);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::system).failed, 1u);
    Free(nullptr);
    EXPECT_EQ(tk::misuse_count(), 0u);
    Free(b); // wrong allocator
    EXPECT_EQ(tk::misuse_count("memory"), 1u);
    Free(a);
    Free(a); // twice
    EXPECT_EQ(tk::misuse_count("memory"), 2u);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::system).outstanding, 0u);
}

TEST_F(KitSelfTest, MutexReportsMisuseInsteadOfDeadlocking) {
    vexo_mutex_t m = nullptr;
    ASSERT_EQ(vexo_hal_mutex_create_init(&m), 0);
    EXPECT_EQ(vexo_hal_mutex_lock(nullptr), -1);
    EXPECT_EQ(vexo_hal_mutex_unlock(nullptr), -1);
    EXPECT_EQ(vexo_hal_mutex_unlock(m), -1); // not held
    ASSERT_EQ(vexo_hal_mutex_lock(m), 0);
    EXPECT_EQ(tk::locked_mutex_count(), 1u);
    EXPECT_EQ(vexo_hal_mutex_lock(m), -1); // second lock by the holder
    std::thread other([m] { EXPECT_EQ(vexo_hal_mutex_unlock(m), -1); });
    other.join();
    EXPECT_EQ(tk::misuse_count("mutex"), 3u);
    EXPECT_EQ(vexo_hal_mutex_unlock(m), 0);
    EXPECT_EQ(tk::locked_mutex_count(), 0u);
}

std::atomic<bool> g_release{false};
std::atomic<bool> g_saw_handle{false};
vexo_thread_t g_handle = nullptr;

void thread_body(void *arg) {
    // The handle is in place before the thread body runs.
    g_saw_handle = *static_cast<vexo_thread_t *>(arg) != nullptr;
    while (!g_release.load()) {
        vexo_hal_system_sleep(100);
    }
}

TEST_F(KitSelfTest, ThreadsPublishHandleFirstAndDeleteDoesNotBlock) {
    g_release = false;
    g_saw_handle = false;
    g_handle = nullptr;
    vexo_thread_param_t param{4096, 5, "worker"};
    ASSERT_EQ(CreateAndStart(&g_handle, nullptr, nullptr, thread_body, &g_handle, &param), 0);
    EXPECT_EQ(DeleteThrdHandle(g_handle), 0); // returns while the thread still runs
    EXPECT_EQ(tk::running_thread_count(), 1u);
    EXPECT_FALSE(tk::wait_threads_exited(50));
    g_release = true;
    EXPECT_TRUE(tk::wait_threads_exited(10000));
    EXPECT_TRUE(g_saw_handle.load());
    std::vector<tk::ThreadInfo> info = tk::threads();
    ASSERT_EQ(info.size(), 1u);
    EXPECT_EQ(info[0].name, "worker");
    EXPECT_EQ(info[0].stack_size, 4096u);
    EXPECT_TRUE(info[0].handle_deleted);
    EXPECT_TRUE(info[0].finished);
    EXPECT_GT(tk::sleep_ms_of("worker"), 0u);
    EXPECT_EQ(DeleteThrdHandle(nullptr), 0);
    tk::queue_result("CreateAndStart", -5);
    EXPECT_EQ(CreateAndStart(&g_handle, nullptr, nullptr, thread_body, &g_handle, &param), -5);
}

std::atomic<int> g_mqtt_calls{0};
void mqtt_handler(cJSON *root) {
    cJSON *p = cJSON_GetObjectItem(root, "protocol");
    if (p != nullptr && p->valueint == 307) {
        ++g_mqtt_calls;
    }
}

std::atomic<bool> g_stop_reader{false};
std::atomic<uint64_t> g_frames_read{0};

void reader_body(void *) {
    vexo_ring_buffer_user_t video = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    vexo_ring_buffer_user_t audio = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    vexo_mutex_t m = nullptr;
    vexo_hal_mutex_create_init(&m);
    while (!g_stop_reader.load()) {
        vexo_hal_mutex_lock(m);
        vexo_ring_buffer_frame_t *f = vexo_ipc_ring_buffer_get_av_frame(video, audio, 0);
        vexo_hal_mutex_unlock(m);
        if (f == nullptr) {
            vexo_hal_system_sleep(10);
            continue;
        }
        ++g_frames_read;
        void *copy = Malloc(f->size);
        if (copy != nullptr) {
            std::memcpy(copy, f->data, f->size);
            Free(copy);
        }
        PrintTraceLog("reader", 1, "frame %u", f->seq);
    }
    vexo_ipc_ring_buffer_close(video);
    vexo_ipc_ring_buffer_close(audio);
}

TEST_F(KitSelfTest, ServicesCanBeUsedFromSeveralThreadsAtOnce) {
    g_stop_reader = false;
    g_frames_read = 0;
    tk::start_stream();
    vexo_thread_t handle = nullptr;
    vexo_thread_param_t param{0, 0, "reader"};
    ASSERT_EQ(CreateAndStart(&handle, nullptr, nullptr, reader_body, nullptr, &param), 0);
    ASSERT_EQ(mqtt_attach(300, mqtt_handler), 0);
    std::thread mqtt([] {
        for (int i = 0; i < 200; ++i) {
            tk::deliver_mqtt(300, "{\"protocol\":300}");
            PrintDebugLog("mqtt", 2, "delivered %d", i);
        }
    });
    while (g_frames_read.load() < 2000) {
        tk::ring_frames(VEXO_STREAM_MAIN);
        tk::has_log(tk::Level::debug, "delivered 1");
        std::this_thread::yield();
    }
    mqtt.join();
    g_stop_reader = true;
    EXPECT_TRUE(tk::wait_threads_exited(10000));
    EXPECT_EQ(DeleteThrdHandle(handle), 0);
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "delivered 199"), 1u);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    EXPECT_EQ(tk::locked_mutex_count(), 0u);
    EXPECT_EQ(tk::open_reader_count(), 0u);
    EXPECT_EQ(tk::misuse_count(), 0u);
}

// ---- logs, cloud, device
// -------------------------------------------------------------------------

TEST_F(KitSelfTest, LogsAndSequenceEntriesAreRecorded) {
    PrintErrLog("a.cc", 12, "fail %d of %s", 3, "x");
    PrintTraceLog("a.cc", 13, "hidden %d", 1);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail 3 of x"), 1u);
    EXPECT_TRUE(tk::has_log(tk::Level::err, "3 of"));
    EXPECT_FALSE(tk::has_log(tk::Level::trace, "hidden"));
    tk::record_trace(true);
    PrintTraceLog("a.cc", 14, "shown %d", 2);
    EXPECT_EQ(tk::count_logs(tk::Level::trace, "shown 2"), 1u);

    log_seq_insert_log("cloud_storage", 1, VEXO_SEQ_CODE, int32_t{-3});
    log_seq_insert_report_log("cloud_storage", 2, VEXO_SEQ_TIME, uint32_t{4000000000u});
    log_seq_insert_log("cloud_storage", 3, VEXO_SEQ_TEXT, "hello");
    ASSERT_EQ(tk::seq_entries(1).size(), 1u);
    EXPECT_EQ(tk::seq_entries(1)[0].value, -3);
    EXPECT_TRUE(tk::seq_entries(2)[0].report);
    EXPECT_EQ(tk::seq_entries(2)[0].value, 4000000000);
    EXPECT_EQ(tk::seq_entries(3)[0].text, "hello");
}

TEST_F(KitSelfTest, CloudAndDeviceCallsFollowTheirScripts) {
    vexo_storage_config_t cfg;
    std::memset(&cfg, 0, sizeof(cfg));
    tk::queue_storage_config(-2002, tk::make_storage_config("alltime", 1, 2, 3, 4));
    EXPECT_EQ(cloud_get_storage_config(&cfg, 1), -2002);
    EXPECT_EQ(cloud_get_storage_config(&cfg, 1), 0);
    EXPECT_STREQ(cfg.store_mode, "event");
    EXPECT_EQ(cfg.slice_duration, 10);
    EXPECT_EQ(cloud_get_storage_restriction_config(&cfg), -1);
    tk::queue_restriction(0, 45, 20);
    EXPECT_EQ(cloud_get_storage_restriction_config(&cfg), 0);
    EXPECT_EQ(cfg.slice_duration, 20);
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), 2u);

    tk::queue_result("cloud_put_data_to_file", -1);
    const uint8_t data[3] = {1, 2, 3};
    EXPECT_EQ(cloud_put_data_to_file(&cfg, "https", 0, "1_0001.media", "media/av", data, 3), -1);
    EXPECT_EQ(cloud_put_data_to_file(&cfg, "https", 0, "1_0002.media", "media/av", data, 3), 0);
    ASSERT_EQ(tk::uploads().size(), 2u);
    EXPECT_EQ(tk::uploads()[1].file_name, "1_0002.media");
    EXPECT_EQ(tk::uploads()[1].bytes, std::vector<uint8_t>({1, 2, 3}));
    EXPECT_EQ(tk::uploads()[1].store_mode, "event");

    const std::string start = "vexo.device.ipc.media.storage.notify.upload.start";
    char body[64] = "{\"startTime\":1}";
    cJSON *result = nullptr;
    tk::queue_post_answer(start, 0, "{\"needUpdate\":true,\"encryptKey\":\"k\"}");
    ASSERT_EQ(iot_httpc_common_post_no_remalloc(start.c_str(), "1.0", nullptr, "dev", body, 45,
                                                nullptr, &result),
              0);
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(result, "needUpdate")));
    cJSON_Delete(result);
    ASSERT_EQ(iot_httpc_common_post_no_remalloc(start.c_str(), "1.0", nullptr, "dev", body, 45,
                                                nullptr, &result),
              0);
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(result, "needUpdate")));
    cJSON_Delete(result);
    EXPECT_NE(iot_httpc_common_post_no_remalloc("other", "1.0", nullptr, "dev", body, 45, nullptr,
                                                &result),
              0);
    EXPECT_EQ(result, nullptr);
    ASSERT_EQ(tk::posts_of(start).size(), 2u);
    EXPECT_EQ(tk::posts_of(start)[0].body, "{\"startTime\":1}");
    EXPECT_EQ(tk::posts_of(start)[0].post_len, 45u);
    EXPECT_STREQ(get_gw_cntl()->gw_id, "vexo-test-0001");

    g_mqtt_calls = 0;
    EXPECT_FALSE(tk::deliver_mqtt(307, "{\"protocol\":307}"));
    ASSERT_EQ(mqtt_attach(307, mqtt_handler), 0);
    EXPECT_TRUE(tk::deliver_mqtt(307, "{\"protocol\":307,\"data\":{}}"));
    EXPECT_FALSE(tk::deliver_mqtt(307, "{not json"));
    EXPECT_EQ(g_mqtt_calls.load(), 1);

    uint8_t pic[4096];
    int32_t size = sizeof(pic);
    EXPECT_EQ(vexo_ipc_get_snapshot_cb(pic, &size), 0);
    EXPECT_EQ(size, 2048);
    tk::set_snapshot_size(0);
    size = sizeof(pic);
    vexo_ipc_get_snapshot_cb(pic, &size);
    EXPECT_EQ(size, 0);

    char extra[] = "\"ext\":{}";
    vexo_alarm_event_t ev;
    std::memset(&ev, 0, sizeof(ev));
    ev.kind = 4;
    ev.with_picture = 1;
    ev.extra = extra;
    ev.picture = pic;
    ev.picture_size = 16;
    tk::queue_result("vexo_ipc_alarm_event", -1);
    EXPECT_EQ(vexo_ipc_alarm_event(&ev), -1);
    ASSERT_EQ(tk::alarms().size(), 1u);
    EXPECT_EQ(tk::alarms()[0].extra, "\"ext\":{}");
    EXPECT_EQ(tk::alarms()[0].picture, std::vector<uint8_t>(pic, pic + 16));
}

} // namespace
