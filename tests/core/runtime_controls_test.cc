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

// The C calls above pin the results; this pins the logs and the fields behind the queries.
TEST_F(CoreRuntime, BeforeInitControlsChangeNothingAndQueriesReadTheirFields) {
    vexo_ipc_cloud_storage_set_pre_record_time(-1);
    vexo_ipc_cloud_storage_set_pre_record_time(1);
    vexo_ipc_cloud_storage_pause();
    vexo_ipc_cloud_storage_resume();
    vexo_ipc_cloud_storage_set_audio_stat(5);
    EXPECT_EQ(err("pre_record_time error\xef\xbc\x9a-1"), 1u);
    EXPECT_EQ(err("cloud storage not inited"), 4u);
    EXPECT_EQ(cloud_storage_ctl.audio_enable + cloud_storage_ctl.pre_record_time, 0);
    cloud_storage_ctl.have_config = 1;
    EXPECT_EQ(vexo_ipc_cloud_storage_get_if_have_config(), 0);

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
    tk::set_max_buf_secs(10);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(7), 0);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(8), -2);
    EXPECT_EQ(cloud_storage_ctl.pre_record_time, 7);
    EXPECT_EQ(err("pre_record too long, pre record 8 seconds, ringbuf max :10 seconds. valid "
                  "size[0 ~ (ringbuf_max -2)]"),
              1u);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(0), 0);
    tk::set_max_buf_secs(2); // max - 2 itself is refused although the message names it valid
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(0), -2);
    tk::set_max_buf_secs(-1);
    EXPECT_EQ(vexo_ipc_cloud_storage_set_pre_record_time(1), -1);
    EXPECT_EQ(err("ringbuf not inited, can't set cloud pre record"), 1u);
    EXPECT_EQ(cloud_storage_ctl.pre_record_time, 0);
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
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ(vexo_ipc_cloud_storage_get_if_have_config(), 0);
}

} // namespace
