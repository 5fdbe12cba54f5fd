/* Compiled as C: proves that the public header is plain C and that every exported call
 * links with C linkage. Each call is made on an uninitialised module, where its answer is
 * fixed; the function returns how many answers were wrong. */

#include <stddef.h>
#include <string.h>

#include "vexo_ipc_cloud_storage.h"

#define EXPECT_EQ_C(failures, expr, want)                                                          \
    do {                                                                                           \
        if ((expr) != (want)) {                                                                    \
            ++(failures);                                                                          \
        }                                                                                          \
    } while (0)

int c_abi_exercise_uninitialised(void) {
    int failures = 0;
    vexo_ipc_media_info_t media;
    vexo_ipc_cloud_storage_hooks_t hooks = {NULL, 0, 0, 0};

    memset(&media, 0, sizeof media);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_init(NULL, &hooks), -2);
    media.video_bitrate[0] = 4096;
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_init(&media, &hooks), -2);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_if_inited(), 0);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_if_have_config(), 0);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_status(), 0);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_store_mode(), 0);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_set_pre_record_time(-1), -2);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_set_pre_record_time(1), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_start(), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_add_record_only(18, 10), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_add_record_only(0, 10), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_stop(), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_stop_async(), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_stop_immediately(), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_delete(1), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_set_event_type(1, 0), -1);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_event_status(0), 3);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_event_status_by_id(-1), 3);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_event_status_by_id(7), 0);
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_event_notify(1, 0), -1);
    vexo_ipc_cloud_storage_pause();
    vexo_ipc_cloud_storage_resume();
    vexo_ipc_cloud_storage_set_audio_stat(0);
    (void)vexo_ipc_cloud_storage_get_ready();
    vexo_ipc_cloud_storage_uninit();
    EXPECT_EQ_C(failures, vexo_ipc_cloud_storage_get_if_inited(), 0);
    return failures;
}
