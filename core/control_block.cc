/// The module's one control block and its file-level statics.
#include <cstring>

#include "core/cloud_storage_internal.h"

cloud_storage_ctl_t cloud_storage_ctl;
uint32_t s_max_frame_size = 0;
const uint8_t s_aes_iv[16] = {0x5c, 0x1e, 0xa7, 0x33, 0x90, 0xd2, 0x4b, 0x68,
                              0xf1, 0x0a, 0x87, 0xc5, 0x26, 0xe9, 0x7d, 0xb4};

void cloud_storage_reset_statics() {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    ctl.inited = 0;
    ctl.upload_mutex = nullptr;
    ctl.thread_handle = nullptr;
    ctl.upload_status = 0;
    ctl.enable = 0;
    ctl.have_config = 0;
    std::memset(&ctl.storage_config, 0, sizeof ctl.storage_config);
    ctl.store_mode = 0;
    std::memset(&ctl.media_info, 0, sizeof ctl.media_info);
    ctl.config_time = 0;
    ctl.order_invalid_time = 0;
    ctl.config_retry_time = 0;
    ctl.pre_record_time = 0;
    ctl.count_left = 0;
    ctl.silence_interval = 0;
    std::memset(ctl.media_file_name, 0, sizeof ctl.media_file_name);
    ctl.media_buffer = nullptr;
    ctl.media_buffer_size = 0;
    ctl.media_data_len = 0;
    ctl.buffer_end_time = 0;
    ctl.uploaded_end_time = 0;
    ctl.silence_end_time = 0;
    ctl.slice_duration = 0;
    ctl.slice_start_time = 0;
    ctl.recording_start_time = 0;
    ctl.key_update_needed = 0;
    std::memset(ctl.encrypt_key, 0, sizeof ctl.encrypt_key);
    std::memset(ctl.aes_iv, 0, sizeof ctl.aes_iv);
    std::memset(ctl.encrypt_key_md5, 0, sizeof ctl.encrypt_key_md5);
    ctl.start_hook = nullptr;
    ctl.user_word_1 = 0;
    ctl.user_word_2 = 0;
    ctl.event_mutex = nullptr;
    std::memset(ctl.events, 0, sizeof ctl.events);
    std::memset(&ctl.aes_handle, 0, sizeof ctl.aes_handle);
    ctl.audio_enable = 0;
    ctl.thread_generation = 0;
    s_max_frame_size = 0;
    cloud_storage_reset_event_statics();
    cloud_storage_reset_config_statics();
    cloud_storage_reset_intake_statics();
}
