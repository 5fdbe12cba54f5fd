/// Runtime controls and queries: pause/resume, audio, pre-record length and state queries.
/// The settings are single words that the upload thread polls.
#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

extern "C" int32_t vexo_ipc_cloud_storage_get_store_mode(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    return ctl.store_mode;
}

extern "C" int32_t vexo_ipc_cloud_storage_get_if_inited(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    return ctl.inited != 0 ? 1 : 0;
}

extern "C" int32_t vexo_ipc_cloud_storage_get_if_have_config(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.inited == 0) {
        return 0;
    }
    return ctl.have_config != 0 ? 1 : 0;
}

extern "C" void vexo_ipc_cloud_storage_set_audio_stat(int32_t value) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.inited == 0) {
        CS_ERR("cloud storage not inited");
        return;
    }
    ctl.audio_enable = value;
}

extern "C" void vexo_ipc_cloud_storage_pause(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    CS_DBG("pause cloud storage");
    if (ctl.inited == 0) {
        CS_ERR("cloud storage not inited");
        return;
    }
    if (ctl.enable == 0) {
        CS_DBG("cloud storage is already disabled now");
        return;
    }
    ctl.enable = 0;
    CS_DBG("pause cloud storage done");
}

extern "C" void vexo_ipc_cloud_storage_resume(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    CS_DBG("resume cloud storage");
    if (ctl.inited == 0) {
        CS_ERR("cloud storage not inited");
        return;
    }
    if (ctl.enable != 0) {
        CS_DBG("cloud storage is already enabled now");
        return;
    }
    ctl.enable = 1;
    CS_DBG("resume cloud storage done");
}

extern "C" int32_t vexo_ipc_cloud_storage_get_status(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    // The table is asked under its lock; upload_status is read after the lock is released.
    if (__event_list_is_empty(&ctl) == 0) {
        return 1;
    }
    return ctl.upload_status == UPLOAD_STATUS_RUNNING ? 1 : 0;
}

extern "C" int32_t vexo_ipc_cloud_storage_set_pre_record_time(int32_t seconds) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (seconds < 0) {
        CS_ERR("pre_record_time error\xef\xbc\x9a%d", static_cast<int>(seconds));
        return CS_BAD_ARG;
    }
    if (ctl.inited == 0) {
        CS_ERR("cloud storage not inited");
        return CS_FAIL;
    }
    int32_t max = vexo_ipc_ring_buffer_get_max_buf_secs(0, 0, 0);
    if (max < 0) {
        CS_ERR("ringbuf not inited, can't set cloud pre record");
        return CS_FAIL;
    }
    // Strict bound: max - 2 itself is refused although the message names it as valid.
    if (seconds >= max - 2) {
        CS_ERR("pre_record too long, pre record %d seconds, ringbuf max :%d seconds. valid "
               "size[0 ~ (ringbuf_max -2)]",
               static_cast<int>(seconds), static_cast<int>(max));
        return CS_BAD_ARG;
    }
    ctl.pre_record_time = seconds;
    return CS_OK;
}
