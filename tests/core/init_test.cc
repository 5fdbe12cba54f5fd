// Init and uninit: argument checks, key check, slice duration, buffer size, failure paths and
// what a successful init announces to the kit.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>

#include "core_test_util.h"

namespace {

using core_test::dbg;
using core_test::err;

class CoreInit : public KitTest {
  protected:
    static int32_t init_with(const vexo_ipc_media_info_t &media) {
        vexo_ipc_cloud_storage_hooks_t hooks = default_hooks();
        return vexo_ipc_cloud_storage_init(&media, &hooks);
    }
};

const std::vector<uint8_t> kKey = {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87,
                                   0x98, 0xa9, 0xba, 0xcb, 0xdc, 0xed, 0xfe, 0x0f};
std::atomic<int> g_hook_calls{0};
void count_hook() {
    ++g_hook_calls;
}

TEST_F(CoreInit, ArgumentChecksComeBeforeTheAlreadyInitedCheck) {
    vexo_ipc_media_info_t media = default_media_info();
    vexo_ipc_cloud_storage_hooks_t hooks = default_hooks();
    vexo_ipc_media_info_t too_fast = media;
    too_fast.video_bitrate[0] = 2049;
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "before init" : "after init");
        EXPECT_EQ(vexo_ipc_cloud_storage_init(nullptr, &hooks), -2);
        EXPECT_EQ(vexo_ipc_cloud_storage_init(&media, nullptr), -2);
        EXPECT_EQ(init_with(too_fast), -2);
        if (round == 0) {
            EXPECT_EQ(tk::calls("vexo_hal_mutex_create_init"), 0u);
            media.video_bitrate[0] = 2048;
            ASSERT_EQ(init_with(media), 0);
        }
    }
    EXPECT_EQ(init_with(media), -1);
    EXPECT_EQ(err("invalid param"), 4u);
    EXPECT_EQ(err("main video stream bitrate too big: 2049"), 2u);
    EXPECT_EQ(err("cloud storage already inited"), 1u);
    EXPECT_EQ(tk::threads().size(), 1u);
}

struct SliceCase {
    const char *name;
    int32_t stored; // -1: no record
    int32_t cloud;  // -1: the restriction call fails
    uint32_t gop, fps, expected;
    const char *log;
};
void PrintTo(const SliceCase &c, std::ostream *os) {
    *os << c.name;
}
class CoreSliceDuration : public CoreInit, public ::testing::WithParamInterface<SliceCase> {};

TEST_P(CoreSliceDuration, ChosenFromStoreThenCloudThenKeyFrameInterval) {
    const SliceCase &c = GetParam();
    if (c.stored >= 0) {
        tk::put_slice_record(c.stored);
    }
    if (c.cloud >= 0) {
        tk::set_default_restriction(0, 30, c.cloud);
    }
    vexo_ipc_media_info_t media = default_media_info();
    media.video_gop[0] = c.gop;
    media.video_fps[0] = c.fps;
    ASSERT_EQ(init_with(media), 0);
    EXPECT_EQ(cloud_storage_ctl.slice_duration, c.expected);
    EXPECT_EQ(dbg(c.log), 1u);
    const bool from_store = c.stored >= 3 && c.stored <= 60;
    const bool from_cloud = !from_store && c.cloud >= 0;
    EXPECT_EQ(tk::calls("cloud_get_storage_restriction_config"), from_store ? 0u : 1u);
    const auto writes = tk::kv_writes();
    EXPECT_EQ(std::count(writes.begin(), writes.end(), "storage_restriction"), from_cloud ? 1 : 0);
    if (from_cloud) {
        EXPECT_EQ(tk::record_int("storage_restriction", "slice_duration"),
                  static_cast<int32_t>(c.expected));
        const bool out_of_range = c.cloud < 3 || c.cloud > 60;
        EXPECT_EQ(dbg("slice duration " + std::to_string(c.cloud) +
                      " is too small or too large, use default 10"),
                  out_of_range ? 1u : 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Core, CoreSliceDuration,
    ::testing::Values(
        SliceCase{"Stored3", 3, 20, 50, 25, 3, "case 1 read slice duration from db 3"},
        SliceCase{"Stored60", 60, 20, 50, 25, 60, "case 1 read slice duration from db 60"},
        SliceCase{"Stored2UsesCloud", 2, 20, 50, 25, 20, "case 2 get slice duration from cloud 20"},
        SliceCase{"Stored61UsesCloud", 61, 3, 50, 25, 3, "case 2 get slice duration from cloud 3"},
        SliceCase{"Cloud0Gives10", -1, 0, 50, 25, 10, "case 2 get slice duration from cloud 10"},
        SliceCase{"Cloud61Gives10", -1, 61, 50, 25, 10, "case 2 get slice duration from cloud 10"},
        SliceCase{"Gop50Fps25", -1, -1, 50, 25, 10, "case 3 use default slice duration 10"},
        SliceCase{"Gop120Fps20", -1, -1, 120, 20, 12, "case 3 use default slice duration 12"},
        SliceCase{"Gop250Fps25", -1, -1, 250, 25, 10, "case 3 use default slice duration 10"},
        SliceCase{"Gop300Fps25", -1, -1, 300, 25, 12, "case 3 use default slice duration 12"}),
    core_test::row_name<SliceCase>);

TEST_F(CoreInit, BufferHoldsSlicePlusOneSecondOfVideoAndTruncatedAudio) {
    struct Row {
        uint32_t bitrate, audio, sample, bits, expected;
    };
    const Row rows[] = {{1024, 0, 8000, 16, 1441792},
                        {1024, 1, 8000, 16, 1441792 + 11 * 16000},
                        {2048, 0, 8000, 16, 11 * 262144},
                        {1024, 1, 11025, 12, 1441792 + 11 * 16537}};
    for (const Row &r : rows) {
        SCOPED_TRACE(r.expected);
        tk::reset();
        tk::put_slice_record(10);
        vexo_ipc_media_info_t media = default_media_info();
        media.video_bitrate[0] = r.bitrate;
        media.channel_enable[CS_AUDIO_CHANNEL] = r.audio;
        media.audio_sample[CS_AUDIO_CHANNEL] = r.sample;
        media.audio_databits[CS_AUDIO_CHANNEL] = r.bits;
        ASSERT_EQ(init_with(media), 0);
        EXPECT_EQ(tk::outstanding_blocks(tk::Pool::malloc).front(), r.expected);
        EXPECT_EQ(core_test::seqs({2}), "2:L:1:" + std::to_string(r.expected) + " ");
        EXPECT_EQ(dbg("cloud storage seize " + std::to_string(r.expected) +
                      " bytes memory for media data, each slice 10 seconds"),
                  1u);
        vexo_ipc_cloud_storage_uninit();
        ASSERT_TRUE(tk::wait_threads_exited(10000));
    }
}

enum class KeyRecord { valid, md5_31_chars, upper_case_md5, missing };
struct KeyCase {
    const char *name;
    KeyRecord record;
    int64_t check_result;
    const char *log;
};
void PrintTo(const KeyCase &c, std::ostream *os) {
    *os << c.name;
}
class CoreKeyCheck : public CoreInit, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(CoreKeyCheck, StoredKeyIsUsedOnlyWhenItsMd5Matches) {
    const KeyCase &c = GetParam();
    std::string md5 = tk::md5_hex(kKey);
    if (c.record == KeyRecord::md5_31_chars) {
        md5.pop_back();
    } else if (c.record == KeyRecord::upper_case_md5) {
        std::transform(md5.begin(), md5.end(), md5.begin(), ::toupper);
    }
    if (c.record != KeyRecord::missing) {
        tk::put_key_record(md5, static_cast<uint32_t>(md5.size()), kKey, 16);
    }
    ASSERT_EQ(init_default(), 0);
    const bool ok = c.record == KeyRecord::valid;
    EXPECT_EQ(ok ? dbg(c.log) : err(c.log), 1u);
    EXPECT_EQ(core_test::seqs({0}), "0:L:1:" + std::to_string(c.check_result) + " ");
    EXPECT_STREQ(cloud_storage_ctl.encrypt_key_md5, ok ? tk::md5_hex(kKey).c_str() : "0000");
    EXPECT_EQ(
        std::vector<uint8_t>(cloud_storage_ctl.encrypt_key, cloud_storage_ctl.encrypt_key + 16),
        ok ? kKey : std::vector<uint8_t>(16, 0));
    EXPECT_EQ(cloud_storage_ctl.key_update_needed, ok ? 0 : 1);
    EXPECT_EQ(dbg("__check_md5_encrypt_key fail, need update from server"), ok ? 0u : 1u);
    EXPECT_EQ(dbg("use current encrypt key"), ok ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Core, CoreKeyCheck,
    ::testing::Values(KeyCase{"Valid", KeyRecord::valid, 0, "encrypt key and md5 check pass"},
                      KeyCase{"Md5Of31Chars", KeyRecord::md5_31_chars, -1,
                              "len error md5_len 31, encrypt_key_len 16"},
                      KeyCase{"UpperCaseMd5", KeyRecord::upper_case_md5, -1,
                              "MD5 check failed!\r\n"},
                      KeyCase{"Missing", KeyRecord::missing, -2, "read key_key file failed.\r\n"}),
    core_test::row_name<KeyCase>);

TEST_F(CoreInit, SliceBufferAllocationFailureReportsAndLeavesModuleUninited) {
    tk::fail_alloc_size(tk::Pool::malloc, 1441792 + 11 * 16000);
    EXPECT_EQ(init_default(), -3);
    EXPECT_EQ(err("fail to malloc buffer for cloud storage size 1617792. [bitrate 1024, "
                  "slice_duration 10]"),
              1u);
    EXPECT_EQ(core_test::seqs({0, 1, 2, 5}), "0:L:1:-2 1:R:1:-3 ");
    EXPECT_EQ(vexo_ipc_cloud_storage_get_if_inited(), 0);
    EXPECT_TRUE(tk::threads().empty());
    EXPECT_FALSE(tk::mqtt_attached(300));
    EXPECT_EQ(init_default(), 0); // a retry repeats everything
}

TEST_F(CoreInit, ThreadCreationFailureFreesBufferButStaysInitedUntilUninit) {
    tk::queue_result("CreateAndStart", -7);
    EXPECT_EQ(init_default(), -1);
    EXPECT_EQ(err("cloud task create failed ret[-7]"), 1u);
    EXPECT_EQ(vexo_ipc_cloud_storage_get_if_inited(), 1);
    EXPECT_EQ(cloud_storage_ctl.media_buffer.load(), nullptr);
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    EXPECT_FALSE(tk::mqtt_attached(300));
    EXPECT_TRUE(tk::skills().empty());
    EXPECT_EQ(init_default(), -1);
    EXPECT_EQ(err("cloud storage already inited"), 1u);
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ(init_default(), 0);
    EXPECT_EQ(tk::threads().size(), 1u);
}

TEST_F(CoreInit, SuccessAttachesHandlersEnablesSkillLogsSequenceAndStartsThread) {
    cloud_storage_ctl.events[0].status = EVENT_READY; // leftovers init must reset
    cloud_storage_ctl.pre_record_time = 9;
    g_hook_calls = 0;
    vexo_ipc_media_info_t media = default_media_info();
    vexo_ipc_cloud_storage_hooks_t hooks = {count_hook, 11, 99, 22};
    ASSERT_EQ(vexo_ipc_cloud_storage_init(&media, &hooks), 0);

    EXPECT_EQ(g_hook_calls, 1);
    EXPECT_EQ(cloud_storage_ctl.user_word_1, 11u);
    EXPECT_EQ(cloud_storage_ctl.user_word_2, 22u);
    EXPECT_EQ(s_max_frame_size, 307200u);
    const uint8_t iv[16] = {0x5c, 0x1e, 0xa7, 0x33, 0x90, 0xd2, 0x4b, 0x68,
                            0xf1, 0x0a, 0x87, 0xc5, 0x26, 0xe9, 0x7d, 0xb4};
    EXPECT_EQ(std::memcmp(cloud_storage_ctl.aes_iv, iv, 16), 0);
    EXPECT_TRUE(tk::mqtt_attached(300) && tk::mqtt_attached(307));
    std::vector<uint8_t> param(512, 0);
    param[0] = 3; // first 32-bit word 3 (little-endian targets)
    ASSERT_EQ(tk::skills().size(), 1u);
    EXPECT_EQ(tk::skills()[0].skill, 0u);
    EXPECT_EQ(tk::skills()[0].param, param);

    EXPECT_EQ(core_test::seqs({0, 1, 2, 5}), "0:L:1:-2 2:L:1:1617792 5:R:0:0 ");
    EXPECT_EQ(dbg("init cloud storage success"), 1u);

    const auto threads = tk::threads();
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_EQ(threads[0].name, "cloud_storage");
    EXPECT_EQ(threads[0].stack_size, 65536u);
    EXPECT_EQ(threads[0].priority, 3);
    EXPECT_EQ(cloud_storage_ctl.pre_record_time, 2);
    EXPECT_EQ(cloud_storage_ctl.audio_enable, 1);
    vexo_hal_mutex_lock(cloud_storage_ctl.event_mutex);
    for (const cloud_storage_event &slot : cloud_storage_ctl.events) {
        EXPECT_TRUE(slot.id == EVENT_ID_NONE && slot.status == 0 && slot.type == EVENT_TYPE_NONE);
    }
    vexo_hal_mutex_unlock(cloud_storage_ctl.event_mutex);
}

TEST_F(CoreInit, InitAgainAfterThreadLeftChoosesSliceAndAllocatesAnew) {
    tk::put_slice_record(5);
    ASSERT_EQ(init_default(), 0);
    EXPECT_EQ(cloud_storage_ctl.slice_duration, 5u);
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ(cloud_storage_ctl.enable, 0);
    EXPECT_EQ(cloud_storage_ctl.thread_handle, nullptr);
    ASSERT_TRUE(tk::wait_threads_exited(10000));
    EXPECT_EQ(cloud_storage_ctl.media_buffer.load(), nullptr);
    EXPECT_TRUE(tk::threads()[0].handle_deleted);

    tk::put_slice_record(8);
    tk::set_max_frame_size(200000);
    ASSERT_EQ(init_default(), 0);
    EXPECT_EQ(cloud_storage_ctl.slice_duration, 8u);
    EXPECT_EQ(cloud_storage_ctl.media_buffer_size, 9u * (131072 + 16000));
    EXPECT_EQ(s_max_frame_size, 200000u);
    EXPECT_EQ(tk::threads().size(), 2u);
}

TEST_F(CoreInit, BufferStillHeldByEarlierThreadKeepsItsSizeAndSliceDuration) {
    auto *held = static_cast<uint8_t *>(Malloc(4096));
    cloud_storage_ctl.media_buffer = held;
    cloud_storage_ctl.media_buffer_size = 4096;
    cloud_storage_ctl.slice_duration = 7;
    tk::put_slice_record(20);
    ASSERT_EQ(init_default(), 0);
    EXPECT_EQ(cloud_storage_ctl.media_buffer.load(), held);
    EXPECT_EQ(cloud_storage_ctl.slice_duration, 7u);
    EXPECT_EQ(dbg("cloud storage seize 4096 bytes memory for media data, each slice 7 seconds"),
              1u);
    EXPECT_EQ(tk::calls("cloud_get_storage_restriction_config"), 0u);
}

} // namespace
