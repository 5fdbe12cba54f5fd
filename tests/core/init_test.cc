// Init and uninit: argument checks, key check, slice duration, buffer size, failure paths and
// what a successful init announces to the kit.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "core_test_util.h"

namespace {

using core_test::dbg;
using core_test::err;
using core_test::seqs;

class CoreInit : public KitTest {
  protected:
    static int32_t init_with(const vexo_ipc_media_info_t &media) {
        vexo_ipc_cloud_storage_hooks_t hooks = default_hooks();
        return vexo_ipc_cloud_storage_init(&media, &hooks);
    }
};

std::atomic<int> g_hook_calls{0};
void count_hook() {
    ++g_hook_calls;
}

TEST_F(CoreInit, ArgumentChecksComeBeforeTheAlreadyInitedCheckAnd2048IsAccepted) {
    vexo_ipc_media_info_t media = default_media_info();
    media.video_bitrate[0] = 2049;
    EXPECT_EQ(init_with(media), -2);
    EXPECT_EQ(vexo_ipc_cloud_storage_init(&media, nullptr), -2); // hooks checked first
    EXPECT_EQ(tk::calls("vexo_hal_mutex_create_init"), 0u);
    media.video_bitrate[0] = 2048; // accepted; without audio the buffer is video only
    media.channel_enable[CS_AUDIO_CHANNEL] = 0;
    ASSERT_EQ(init_with(media), 0);
    EXPECT_EQ(seqs({2}), "2:L:1:" + std::to_string(11 * 262144) + " ");
    media.video_bitrate[0] = 2049;
    EXPECT_EQ(init_with(media), -2);
    media.video_bitrate[0] = 2048;
    EXPECT_EQ(init_with(media), -1);
    EXPECT_EQ(err("invalid param"), 1u);
    EXPECT_EQ(err("main video stream bitrate too big: 2049"), 2u);
    EXPECT_EQ(err("cloud storage already inited"), 1u);
}

struct SliceCase {
    const char *name;
    int32_t stored; // -1: no record
    int32_t cloud;  // -1: the restriction call fails
    uint32_t gop, fps, expected;
    const char *log; // for a value the cloud offers out of range: the fallback's log
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
    const bool from_cloud = c.cloud >= 0 && (c.stored < 3 || c.stored > 60);
    const auto writes = tk::kv_writes();
    EXPECT_EQ(std::count(writes.begin(), writes.end(), "storage_restriction"), from_cloud ? 1 : 0);
    if (from_cloud) { // the value persisted is the one used, after falling back to 10
        EXPECT_EQ(tk::record_int("storage_restriction", "slice_duration"),
                  static_cast<int32_t>(c.expected));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Core, CoreSliceDuration,
    ::testing::Values(
        SliceCase{"Stored3", 3, 20, 50, 25, 3, "case 1 read slice duration from db 3"},
        SliceCase{"Stored60", 60, 20, 50, 25, 60, "case 1 read slice duration from db 60"},
        SliceCase{"Stored2UsesCloud", 2, 60, 50, 25, 60, "case 2 get slice duration from cloud 60"},
        SliceCase{"Stored61UsesCloud", 61, 3, 50, 25, 3, "case 2 get slice duration from cloud 3"},
        SliceCase{"Cloud2Gives10", -1, 2, 50, 25, 10,
                  "slice duration 2 is too small or too large, use default 10"},
        SliceCase{"Cloud61Gives10", -1, 61, 50, 25, 10,
                  "slice duration 61 is too small or too large, use default 10"},
        SliceCase{"Gop120Fps20", -1, -1, 120, 20, 12, "case 3 use default slice duration 12"},
        SliceCase{"Gop250Fps25", -1, -1, 250, 25, 10, "case 3 use default slice duration 10"},
        SliceCase{"Gop300Fps25", -1, -1, 300, 25, 12, "case 3 use default slice duration 12"}),
    [](const auto &p) { return std::string(p.param.name); });

// The buffer holds the slice plus one second of video and of audio, whose bytes per second are
// truncated: 11 * (131072 + 16537) here; the default stream is sized in the success test.
TEST_F(CoreInit, SliceBufferAllocationFailureReportsAndLeavesModuleUninited) {
    vexo_ipc_media_info_t media = default_media_info();
    media.audio_sample[CS_AUDIO_CHANNEL] = 11025;
    media.audio_databits[CS_AUDIO_CHANNEL] = 12;
    tk::fail_alloc_size(tk::Pool::malloc, 1623699);
    EXPECT_EQ(init_with(media), -3);
    EXPECT_EQ(err("fail to malloc buffer for cloud storage size 1623699. [bitrate 1024, "
                  "slice_duration 10]"),
              1u);
    EXPECT_EQ(seqs({0, 1, 2, 5}), "0:L:1:-2 1:R:1:-3 ");
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
    EXPECT_EQ(tk::alloc_stats(tk::Pool::malloc).outstanding, 0u);
    EXPECT_FALSE(tk::mqtt_attached(300));
    EXPECT_EQ(init_default(), -1);
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ(init_default(), 0);
    EXPECT_EQ(tk::threads().size(), 1u);
}

TEST_F(CoreInit, SuccessAttachesHandlersEnablesSkillLogsSequenceAndStartsThread) {
    cloud_storage_ctl.events[0].status = EVENT_READY; // leftovers init must reset
    cloud_storage_ctl.encrypt_key[0] = 0xff;
    g_hook_calls = 0;
    vexo_ipc_media_info_t media = default_media_info();
    vexo_ipc_cloud_storage_hooks_t hooks = {count_hook, 11, 99, 22};
    ASSERT_EQ(vexo_ipc_cloud_storage_init(&media, &hooks), 0);

    EXPECT_EQ(g_hook_calls, 1);
    EXPECT_TRUE(tk::mqtt_attached(300) && tk::mqtt_attached(307));
    std::vector<uint8_t> param(512, 0);
    param[0] = 3; // first 32-bit word 3 (little-endian targets)
    ASSERT_EQ(tk::skills().size(), 1u);
    EXPECT_EQ(tk::skills()[0].skill, 0u);
    EXPECT_EQ(tk::skills()[0].param, param);
    EXPECT_EQ(seqs({0, 1, 2, 5}), "0:L:1:-2 2:L:1:1617792 5:R:0:0 "); // no key record: -2
    // Without a stored key the engine starts with the all-zero key.
    EXPECT_EQ(
        std::vector<uint8_t>(cloud_storage_ctl.encrypt_key, cloud_storage_ctl.encrypt_key + 16),
        std::vector<uint8_t>(16, 0));
    EXPECT_EQ(dbg("init cloud storage success"), 1u);

    EXPECT_EQ(tk::threads().size(), 1u);
    const cloud_storage_event &slot = cloud_storage_ctl.events[0];
    EXPECT_TRUE(slot.id == EVENT_ID_NONE && slot.status == 0 && slot.type == EVENT_TYPE_NONE);
}

TEST_F(CoreInit, InitAgainAfterThreadLeftChoosesSliceAndAllocatesAnew) {
    ASSERT_EQ(init_default(), 0);
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ(cloud_storage_ctl.enable, 0);
    EXPECT_EQ(cloud_storage_ctl.thread_handle, nullptr);
    ASSERT_TRUE(wait_until([] { return tk::running_thread_count() == 0; }));
    EXPECT_TRUE(tk::threads()[0].handle_deleted);

    tk::put_slice_record(8);
    tk::set_max_frame_size(200000);
    ASSERT_EQ(init_default(), 0);
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
}

} // namespace
