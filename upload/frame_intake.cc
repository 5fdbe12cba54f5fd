/// Frame intake: appends each frame to the slice buffer as an entry with a 24-byte header,
/// encrypting key frames and audio frames, and cuts slices, 30-minute groups and days on key
/// frames so that every media file starts where a player can start decoding.
#include <cstring>
#include <ctime>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr uint32_t AES_KEY_BITS = 128;
constexpr uint32_t CIPHER_BLOCK = 16;

/// 1 from the start of each media file until its first key frame: P frames before it could
/// not be decoded and are dropped.
int32_t is_first_video_frame = 1;
/// Latch of the midnight restart: set when it happens, cleared by the first key frame whose
/// local minute is above 0.
int32_t day_switch = 0;

void put_le32(uint8_t *out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void put_le64(uint8_t *out, uint64_t value) {
    for (int i = 0; i < 8; ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void write_entry_header(uint8_t *out, const media_entry_header_t &header) {
    put_le32(out, header.type);
    put_le32(out + 4, header.length);
    put_le64(out + 8, header.timestamp);
    put_le64(out + 16, header.pts);
}

bool is_encrypted_type(uint32_t type) {
    return type == VEXO_FRAME_I || type == VEXO_FRAME_AUDIO;
}

/// Encrypts the payload straight into the slice buffer; returns the cipher-text length.
uint32_t encrypt_payload(cloud_storage_ctl_t &ctl, const upload_frame_t &frame, uint8_t *out) {
    uint32_t out_len = 0;
    if (ctl.aes_handle.engine != 0) {
        out_len = s_max_frame_size + CIPHER_BLOCK;
        vexo_hw_aes_encrypt_cbc(&ctl.aes_handle, ctl.aes_iv, AES_KEY_BITS, frame.data, frame.size,
                                out, &out_len);
    } else {
        OpensslAES_CBC128_encrypt(frame.data, frame.size, out, &out_len, ctl.encrypt_key,
                                  ctl.aes_iv);
    }
    return out_len;
}

/// Day, group and slice boundaries, tested on key frames only. Returns 0 when the frame
/// belongs to the current file, else the intake's result.
int32_t handle_boundaries(cloud_storage_ctl_t &ctl, uint32_t now) {
    struct tm local = {};
    uni_local_time_get_custom(now, &local);
    if (local.tm_min > 0) {
        day_switch = 0;
    } else if (day_switch == 0 && local.tm_hour == 0 && local.tm_min == 0 &&
               static_cast<uint32_t>(local.tm_sec) <= ctl.slice_duration) {
        CS_DBG("new day start");
        __cloud_storage_upload_restart(now);
        day_switch = 1;
        return CS_BOUNDARY;
    }

    if (static_cast<int32_t>(now - ctl.recording_start_time) >
        static_cast<int32_t>(CS_GROUP_SECONDS)) {
        CS_TRACE("update group");
        __cloud_storage_upload_restart(now);
        return CS_BOUNDARY;
    }

    if (static_cast<int32_t>(now - ctl.slice_start_time) >=
        static_cast<int32_t>(ctl.slice_duration)) {
        CS_TRACE("update slice");
        int32_t ret = __upload_media_slice(now);
        if (ret == 0) {
            return CS_BOUNDARY;
        }
        CS_ERR("fail to upload slice");
        return ret;
    }
    return CS_OK;
}

} // namespace

void cloud_storage_reset_intake_statics() {
    is_first_video_frame = 1;
    day_switch = 0;
}

int32_t __upload_frame(const upload_frame_t *frame) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const uint32_t now = static_cast<uint32_t>(frame->timestamp / 1000);
    CS_TRACE("upload frame type %d, timestamp %llu", static_cast<int>(frame->type),
             static_cast<unsigned long long>(frame->timestamp));

    if (frame->type == VEXO_FRAME_I) {
        int32_t ret = handle_boundaries(ctl, now);
        if (ret != CS_OK) {
            return ret;
        }
    }

    if (ctl.media_data_len + frame->size + MEDIA_ENTRY_SLACK >= ctl.media_buffer_size) {
        CS_ERR("memory insufficient to buffer data[%d + %d > %d]",
               static_cast<int>(ctl.media_data_len), static_cast<int>(frame->size),
               static_cast<int>(ctl.media_buffer_size));
        int32_t ret = __upload_media_slice(now);
        if (ret == 0) {
            return CS_BUFFER_FULL;
        }
        CS_ERR("fail to upload slice %d", static_cast<int>(ret));
        return ret;
    }

    media_entry_header_t header = {frame->type, frame->size, frame->timestamp, frame->pts};
    if (ctl.media_data_len == 0) {
        is_first_video_frame = 1;
    }
    uint8_t *entry = ctl.media_buffer + ctl.media_data_len;

    if (is_encrypted_type(frame->type)) {
        header.length = encrypt_payload(ctl, *frame, entry + MEDIA_ENTRY_HEADER_SIZE);
        write_entry_header(entry, header);
        ctl.media_data_len += MEDIA_ENTRY_HEADER_SIZE + header.length;
        if (frame->type == VEXO_FRAME_I) {
            is_first_video_frame = 0;
        }
    } else {
        if (is_first_video_frame != 0) {
            CS_ERR("P frame arrive before I frame, skip");
            CS_TRACE("upload frame done");
            return CS_OK;
        }
        write_entry_header(entry, header);
        std::memcpy(entry + MEDIA_ENTRY_HEADER_SIZE, frame->data, frame->size);
        ctl.media_data_len += MEDIA_ENTRY_HEADER_SIZE + frame->size;
    }

    if (frame->type != VEXO_FRAME_AUDIO) {
        ctl.buffer_end_time = now; // audio never moves the end of the buffered data
    }
    CS_TRACE("upload frame done");
    return CS_OK;
}
