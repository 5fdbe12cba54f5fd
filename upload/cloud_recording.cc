/// Cloud recordings: opening one with the start notification, uploading each filled slice
/// as a media file named after the recording's start, closing with the stop notification,
/// and closing-and-reopening in one step at group and day boundaries.
#include <cstdio>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"
#include "core/kit_lock.h"

namespace {

constexpr const char *UPLOAD_SCHEME = "https";
constexpr const char *UPLOAD_CONTENT_TYPE = "media/av";

/// Longest text of an int ("-2147483648").
constexpr size_t INT_TEXT_MAX = 11;
/// Any start time with a four-digit count of seconds: every first name, and every next name
/// up to 9999 s after the start (a recording is closed on its first key frame after 1799 s),
/// fits the 24-byte name.
static_assert(INT_TEXT_MAX + sizeof("_0000.media") <= CS_FILE_NAME_SIZE,
              "a name with a four-digit count fits media_file_name");

/// Hands the buffered slice to the kit's upload call under upload_mutex.
int32_t put_media_buffer(cloud_storage_ctl_t &ctl) {
    kit_lock lock(ctl.upload_mutex);
    return cloud_put_data_to_file(&ctl.storage_config, UPLOAD_SCHEME, 0, ctl.media_file_name,
                                  UPLOAD_CONTENT_TYPE, ctl.media_buffer, ctl.media_data_len);
}

void name_first_file(cloud_storage_ctl_t &ctl, uint32_t start) {
    // NOLINTNEXTLINE(cert-err33-c): never cut, any start time fits (static_assert above)
    std::snprintf(ctl.media_file_name, sizeof ctl.media_file_name, "%d_0000.media",
                  static_cast<int>(start));
}

/// The file that begins now is named by the seconds elapsed since the recording began.
/// Within 9999 s of the start the name always fits (static_assert above). Only a frame clock
/// set far back or far on between key frames gives a longer count, and a name that would pass
/// 23 characters is then cut to fit the 24-byte field.
void name_next_file(cloud_storage_ctl_t &ctl, uint32_t now) {
    // NOLINTNEXTLINE(cert-err33-c): cut only on a clock jump (see above), as intended
    std::snprintf(ctl.media_file_name, sizeof ctl.media_file_name, "%d_%04d.media",
                  static_cast<int>(ctl.recording_start_time),
                  static_cast<int>(now - ctl.recording_start_time));
}

int32_t notify_start(cloud_storage_ctl_t &ctl) {
    return cloud_storage_start_notify(ctl.recording_start_time, &ctl.media_info, ctl.slice_duration,
                                      ctl.encrypt_key_md5, ctl.encrypt_key);
}

void take_event_from_quota(cloud_storage_ctl_t &ctl) {
    if (ctl.store_mode == STORE_MODE_EVENT && ctl.count_left != 0) {
        int32_t left = ctl.count_left.fetch_sub(1) - 1;
        CS_DBG("cloud storage event count left - 1: %d", static_cast<int>(left));
    }
}

/// The start notification handed over a new key (already in encrypt_key): put it to use.
void install_new_key(cloud_storage_ctl_t &ctl) {
    CS_DBG("encrypt key updated");
    __update_encrypt_key(ctl.encrypt_key, ctl.encrypt_key_md5);
    ctl.key_update_needed = 0;
}

} // namespace

int32_t __upload_media_slice(uint32_t now) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    cs_seq::time(60, now);
    if (ctl.media_data_len == 0) {
        return CS_FAIL;
    }
    CS_TRACE("upload buffer data size %d to file %s", static_cast<int>(ctl.media_data_len),
             ctl.media_file_name);
    cs_seq::code(61, static_cast<int32_t>(ctl.media_data_len));

    int32_t ret = put_media_buffer(ctl);

    // The data of a failed upload is dropped and the name moves on all the same, so that the
    // next file is named by its own start.
    ctl.media_data_len = 0;
    ctl.slice_start_time = now;
    name_next_file(ctl, now);
    CS_DBG("new media file name %s", ctl.media_file_name);

    if (ret == 0) {
        ctl.uploaded_end_time = ctl.buffer_end_time;
        return CS_OK;
    }
    CS_ERR("fail to upload media file");
    cs_seq::report_code(62, ret);
    return CS_UPLOAD_FAILED;
}

int32_t __cloud_storage_upload_start(uint32_t start_time) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    ctl.slice_start_time = start_time;
    ctl.buffer_end_time = start_time;
    ctl.uploaded_end_time = start_time;
    ctl.recording_start_time = start_time;
    ctl.media_data_len = 0;
    name_first_file(ctl, start_time);
    CS_DBG("start: media_file name %s", ctl.media_file_name);

    int32_t ret = notify_start(ctl);
    if (ret == CS_ORDER_INVALID) {
        CS_ERR("cloud storage order invalid");
        ctl.order_invalid_time = start_time;
        ctl.store_mode = STORE_MODE_NONE;
        return CS_ORDER_INVALID;
    }
    if (ret == CS_NEW_KEY) {
        install_new_key(ctl);
        take_event_from_quota(ctl);
        // Announce the recording again, now with the new key's md5.
        ret = notify_start(ctl);
        if (ret != 0) {
            CS_ERR("fail to notify cloud start 2, ret %d", static_cast<int>(ret));
            return ret;
        }
    }
    if (ret == CS_OK) {
        // After a key update this comes on top of the decrease above: such a start costs two
        // of the day's events, deliberately.
        take_event_from_quota(ctl);
        ctl.upload_status = UPLOAD_STATUS_RUNNING;
        return CS_OK;
    }
    CS_ERR("fail to notify cloud start, ret %d", static_cast<int>(ret));
    return ret;
}

int32_t __cloud_storage_upload_finish(uint32_t end_time) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.store_mode == STORE_MODE_EVENT && ctl.silence_interval != 0) {
        ctl.silence_end_time = end_time + ctl.silence_interval;
    }

    uint32_t reported_end = end_time;
    if (ctl.media_data_len != 0) {
        CS_DBG("upload rest media buffer size %d to %s", static_cast<int>(ctl.media_data_len),
               ctl.media_file_name);
        if (put_media_buffer(ctl) != 0) {
            CS_ERR("fail to upload media file");
            cloud_storage_stop_notify(ctl.recording_start_time, ctl.uploaded_end_time);
            ctl.upload_status = UPLOAD_STATUS_FINISHED;
            return CS_UPLOAD_FAILED;
        }
        ctl.uploaded_end_time = ctl.buffer_end_time;
        reported_end = ctl.buffer_end_time;
        // media_data_len and the file name stay: the next start clears them.
    }
    cloud_storage_stop_notify(ctl.recording_start_time, reported_end);
    ctl.upload_status = UPLOAD_STATUS_FINISHED;
    return CS_OK;
}

int32_t __cloud_storage_upload_restart(uint32_t now) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.media_data_len != 0) {
        CS_TRACE("upload rest media buffer size %d to %s", static_cast<int>(ctl.media_data_len),
                 ctl.media_file_name);
        if (put_media_buffer(ctl) == 0) {
            ctl.uploaded_end_time = ctl.buffer_end_time;
        }
    }
    cloud_storage_stop_notify(ctl.recording_start_time, ctl.uploaded_end_time);

    // No silence period and no change of upload_status: the recording goes straight on.
    ctl.recording_start_time = now;
    ctl.slice_start_time = now;
    ctl.uploaded_end_time = now;
    ctl.media_data_len = 0;
    name_first_file(ctl, now);

    int32_t ret = notify_start(ctl);
    if (ret == CS_ORDER_INVALID) {
        CS_DBG("order expire");
        ctl.order_invalid_time = now;
        ctl.store_mode = STORE_MODE_NONE;
        return CS_ORDER_INVALID;
    }
    if (ret == CS_NEW_KEY) {
        // The cloud was told the old md5; the new key applies to the data that follows and
        // is not announced again, nor taken from the quota.
        install_new_key(ctl);
        return CS_NEW_KEY;
    }
    if (ret == CS_OK) {
        return CS_OK;
    }
    CS_ERR("fail to notify cloud start, ret %d", static_cast<int>(ret));
    return ret;
}
