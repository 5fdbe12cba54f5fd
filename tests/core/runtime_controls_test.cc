// Pause/resume, audio, pre-record length and the state queries, before and after init; the
// exported calls seen from C.
#include "core_test_util.h"

extern "C" int c_abi_exercise_uninitialised(void);

namespace {

using core_test::dbg;
using core_test::err;

class CoreRuntime : public KitTest {};

TEST_F(CoreRuntime, CAbiCallsOnUninitialisedModuleGiveFixedAnswers) {
    EXPECT_EQ(c_abi_exercise_uninitialised(), 0);
    EXPECT_EQ(tk::calls("DeleteThrdHandle"), 1u); // uninit before init: a null handle
}

TEST_F(CoreRuntime, BeforeInitControlsChangeNothingAndQueriesReadTheirFields) {
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(-1), -2);
    EXPECT_EQ(err("pre_record_time error\xef\xbc\x9a-1"), 1u);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(1), -1);
    vexo_ipc_cloud_storage_pause();
    vexo_ipc_cloud_storage_resume();
    vexo_ipc_cloud_storage_set_audio_stat(5);
    EXPECT_EQ(err("cloud storage not inited"), 4u);
    EXPECT_EQ(cloud_storage_ctl.audio_enable + cloud_storage_ctl.pre_record_time, 0);
    cloud_storage_ctl.have_config = 1;
    EXPECT_EQ(vexo_ipc_cloud_storage_get_if_have_config(), 0);
    cloud_storage_ctl.store_mode = STORE_MODE_EVENT;
    EXPECT_EQ(vexo_ipc_cloud_storage_get_store_mode(), 1);

    vexo_hal_mutex_create_init(&cloud_storage_ctl.event_mutex);
    cloud_storage_ctl.events[4].status = EVENT_READY; // a used slot, no recording running
    EXPECT_EQ(vexo_ipc_cloud_storage_get_status(), 1);
    cloud_storage_ctl.events[4].status = EVENT_NONE;
    cloud_storage_ctl.upload_status = UPLOAD_STATUS_FINISHED;
    EXPECT_EQ(vexo_ipc_cloud_storage_get_status(), 0);
    cloud_storage_ctl.upload_status = UPLOAD_STATUS_RUNNING;
    EXPECT_EQ(vexo_ipc_cloud_storage_get_status(), 1);
}

TEST_F(CoreRuntime, PreRecordTimeMustStayBelowRingCapacityMinusTwo) {
    ASSERT_EQ(init_default(), 0);
    struct Row {
        int32_t ring_secs, value, result, stored;
    };
    const Row rows[] = {
        {10, 7, 0, 7}, {10, 8, -2, 7}, {10, 0, 0, 0}, {2, 0, -2, 0}, {-1, 1, -1, 0}};
    for (const Row &r : rows) {
        SCOPED_TRACE(std::to_string(r.ring_secs) + "/" + std::to_string(r.value));
        tk::clear_logs();
        tk::set_max_buf_secs(r.ring_secs);
        EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(r.value), r.result);
        EXPECT_EQ(cloud_storage_ctl.pre_record_time, r.stored);
        const std::string too_long = "pre_record too long, pre record " + std::to_string(r.value) +
                                     " seconds, ringbuf max :" + std::to_string(r.ring_secs) +
                                     " seconds. valid size[0 ~ (ringbuf_max -2)]";
        EXPECT_EQ(err(too_long), r.result == -2 ? 1u : 0u);
        EXPECT_EQ(err("ringbuf not inited, can't set cloud pre record"), r.result == -1 ? 1u : 0u);
    }
}

TEST_F(CoreRuntime, PauseResumeAudioAndConfigQueriesAfterInit) {
    ASSERT_EQ(init_default(), 0);
    vexo_ipc_cloud_storage_pause();
    vexo_ipc_cloud_storage_pause();
    EXPECT_EQ(cloud_storage_ctl.enable, 0);
    EXPECT_EQ(dbg("pause cloud storage done"), 1u);
    EXPECT_EQ(dbg("cloud storage is already disabled now"), 1u);
    vexo_ipc_cloud_storage_resume();
    vexo_ipc_cloud_storage_resume();
    EXPECT_EQ(cloud_storage_ctl.enable, 1);
    EXPECT_EQ(dbg("resume cloud storage done"), 1u);
    EXPECT_EQ(dbg("cloud storage is already enabled now"), 1u);
    vexo_ipc_cloud_storage_set_audio_stat(5);
    EXPECT_EQ(cloud_storage_ctl.audio_enable, 5);
    // The upload thread fetches the configuration; the kit answers event mode.
    EXPECT_TRUE(wait_until([] { return vexo_ipc_cloud_storage_get_if_have_config() == 1; }));
    EXPECT_TRUE(wait_until([] { return vexo_ipc_cloud_storage_get_store_mode() == 1; }));
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ(vexo_ipc_cloud_storage_get_if_have_config(), 0);
}

} // namespace
