/// The module's worker thread: the only reader of the ring buffer and the only uploader. It
/// waits for the service configuration, repairs the event table, then polls: it follows the
/// pause flag, the store mode and the event table, opens and closes cloud recordings and
/// hands each frame to frame intake. Every pass either processes one frame or sleeps briefly.
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr uint32_t SLEEP_FRAME_POLL_MS = 10;
constexpr uint32_t SLEEP_ANCHOR_RETRY_MS = 20;
constexpr uint32_t SLEEP_IDLE_MS = 100;
constexpr uint32_t SLEEP_PAUSED_MS = 300;
constexpr uint32_t SLEEP_SILENCE_MS = 300;
constexpr uint32_t SLEEP_RETRY_MS = 500;
constexpr uint32_t CONFIG_BACKOFF_BASE_MS = 500;
constexpr uint32_t CONFIG_BACKOFF_MAX_FACTOR = 59;
constexpr uint32_t ORDER_RETRY_SECONDS = 3600;
constexpr uint32_t CONFIG_REFRESH_SECONDS = 1799;

uint32_t frame_seconds(const vexo_ring_buffer_frame_t *frame) {
    return static_cast<uint32_t>(frame->timestamp / 1000);
}

bool audio_channel_present(const cloud_storage_ctl_t &ctl) {
    return ctl.media_info.channel_enable[CS_AUDIO_CHANNEL] != 0;
}

bool thread_is_current(const cloud_storage_ctl_t &ctl, const upload_thread_state &st) {
    return ctl.thread_generation == st.generation;
}

/// An audio/video read yields exactly one pending frame, or none.
void take_av_frame(upload_thread_state &st, vexo_ring_buffer_frame_t *frame) {
    if (frame != nullptr && frame->type == VEXO_FRAME_AUDIO) {
        st.pending_audio = frame;
        st.pending_video = nullptr;
    } else {
        st.pending_video = frame;
        st.pending_audio = nullptr;
    }
}

/// Video-only read: a pending audio frame is deliberately left as it is.
void read_video_only(upload_thread_state &st) {
    st.pending_video = vexo_ipc_ring_buffer_get_frame(st.video_handle, st.retry);
}

void note_video_time(upload_thread_state &st) {
    if (st.pending_video != nullptr) {
        st.last_frame_time = frame_seconds(st.pending_video);
    }
}

void fill_frame_record(upload_thread_state &st, const vexo_ring_buffer_frame_t *frame) {
    st.frame.type = frame->type;
    st.frame.data = frame->data;
    st.frame.size = frame->size;
    st.frame.pts = frame->pts;
    st.frame.timestamp = frame->timestamp;
}

/// While audio is off, an audio frame's payload is replaced by zeros of the same size.
void mute_audio_payload(upload_thread_state &st) {
    const uint32_t size = st.frame.size;
    if (st.mute_buffer == nullptr || st.mute_buffer_size < size) {
        if (st.mute_buffer != nullptr) {
            vexo_hal_system_free(st.mute_buffer);
        }
        st.mute_buffer = static_cast<uint8_t *>(vexo_hal_system_malloc(size));
        if (st.mute_buffer == nullptr) {
            CS_ERR("malloc failed\n");
            st.mute_buffer_size = 0;
            return; // the frame goes out with its own data
        }
        std::memset(st.mute_buffer, 0, size);
        st.mute_buffer_size = size;
    }
    st.frame.data = st.mute_buffer;
}

/// The reader fell behind the live end: close this recording; in event mode the next pass
/// anchors again with pre-record and opens a new one.
void handle_delay(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t pass_start) {
    cs_seq::report_code(21, static_cast<int32_t>(uni_time_get_posix() - pass_start));
    CS_DBG("ring buffer delay too much");
    __cloud_storage_upload_finish(ctl.uploaded_end_time);
    if (ctl.store_mode == STORE_MODE_EVENT) {
        st.restart_pending = 1;
    }
}

enum class intake_outcome { taken, offer_again, failed };

/// Hands one pending frame to frame intake and applies the loop's rules to the result.
intake_outcome offer_frame(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t now) {
    int32_t ret = __upload_frame(&st.frame);
    if (ret == CS_OK) {
        st.retry = 0;
        return intake_outcome::taken;
    }
    if (ret == CS_BOUNDARY) {
        // The same frame is read again and lands in the new file.
        if (vexo_ipc_ring_buffer_if_delay(st.video_handle) != 0) {
            handle_delay(ctl, st, now);
        }
        st.retry = 1;
        return intake_outcome::offer_again;
    }
    __cloud_storage_upload_finish(ctl.uploaded_end_time);
    st.retry = 1;
    if (ctl.store_mode == STORE_MODE_EVENT) {
        st.restart_pending = 1;
    }
    return intake_outcome::failed;
}

/// Processing of the pending frames, video first.
void process_pending(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t now) {
    if (st.pending_video != nullptr) {
        fill_frame_record(st, st.pending_video);
        intake_outcome outcome = offer_frame(ctl, st, now);
        if (outcome == intake_outcome::failed) {
            st.pending_video = nullptr;
        }
        if (outcome != intake_outcome::taken) {
            return;
        }
    }
    if (st.pending_audio != nullptr) {
        fill_frame_record(st, st.pending_audio);
        if (ctl.audio_enable == 0) {
            mute_audio_payload(st);
        }
        intake_outcome outcome = offer_frame(ctl, st, now);
        if (outcome == intake_outcome::failed) {
            st.pending_audio = nullptr;
        }
        if (outcome != intake_outcome::taken) {
            return;
        }
    }
    if (st.pending_video == nullptr && st.pending_audio == nullptr) {
        vexo_hal_system_sleep(SLEEP_FRAME_POLL_MS);
    }
    if (vexo_ipc_ring_buffer_if_delay(st.video_handle) != 0) {
        handle_delay(ctl, st, now);
    }
    CS_TRACE("cloud storage loop end");
}

/// No valid order: keep the table empty and ask for the configuration again no sooner than
/// an hour after the order was found invalid, at a random moment within the following hour.
void pass_no_order(cloud_storage_ctl_t &ctl, uint32_t now) {
    __force_all_event_stop(&ctl, now);
    const uint32_t invalid_since = ctl.order_invalid_time;
    // NOLINTNEXTLINE(bugprone-branch-clone): the two empty branches are two different waits
    if (now - invalid_since < ORDER_RETRY_SECONDS) {
        // too early
    } else if (invalid_since >= ctl.config_retry_time) {
        ctl.config_retry_time = now + vexo_hal_get_random_data(ORDER_RETRY_SECONDS);
        CS_DBG("backoff from %u to %u", now, ctl.config_retry_time);
    } else if (now < ctl.config_retry_time) {
        // waiting for the scheduled moment
    } else {
        CS_DBG("active require cloud storage config");
        ctl.config_retry_time = 0;
        if (__update_cloud_storage_config() == 0 && ctl.store_mode == STORE_MODE_ALLTIME) {
            __cloud_storage_upload_start(now);
        }
    }
    vexo_hal_system_sleep(SLEEP_RETRY_MS);
}

void pass_alltime(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t now) {
    __stop_event_if_needed(&ctl, now, st.last_frame_time);
    if (audio_channel_present(ctl) && ctl.audio_enable != 0) {
        take_av_frame(
            st, vexo_ipc_ring_buffer_get_av_frame(st.video_handle, st.audio_handle, st.retry));
    } else {
        read_video_only(st);
    }
    note_video_time(st);
    if (ctl.upload_status != UPLOAD_STATUS_RUNNING) {
        uint32_t start = now;
        if (st.pending_audio != nullptr) {
            start = frame_seconds(st.pending_audio);
        } else if (st.pending_video != nullptr) {
            start = frame_seconds(st.pending_video);
        }
        if (__cloud_storage_upload_start(start) != 0) {
            vexo_hal_system_sleep(SLEEP_RETRY_MS);
            return;
        }
    }
    __start_event_if_needed(&ctl);
    process_pending(ctl, st, now);
}

/// Stop due events by frame time, start a waiting one, and go on recording while any
/// event remains.
void continue_event_recording(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t now) {
    __stop_event_if_needed(&ctl, st.last_frame_time, st.last_frame_time);
    __start_event_if_needed(&ctl);
    if (__event_list_is_empty(&ctl) == 0) {
        st.restart_pending = 0;
        process_pending(ctl, st, now);
        return;
    }
    CS_DBG("no event exist now, stop uploading");
    st.restart_pending = 0;
    __cloud_storage_upload_finish(ctl.uploaded_end_time);
    vexo_hal_system_sleep(SLEEP_IDLE_MS);
}

/// Reads the first video frame after anchoring; audio frames met on the way are dropped.
/// Null only when the module is uninitialised meanwhile.
vexo_ring_buffer_frame_t *first_pre_record_video(cloud_storage_ctl_t &ctl,
                                                 upload_thread_state &st) {
    for (;;) {
        vexo_ring_buffer_frame_t *frame =
            vexo_ipc_ring_buffer_get_av_frame(st.video_handle, st.audio_handle, 0);
        if (frame != nullptr && frame->type != VEXO_FRAME_AUDIO) {
            return frame;
        }
        CS_ERR("not get pre video, retry");
        vexo_hal_system_sleep(SLEEP_FRAME_POLL_MS);
        if (ctl.inited == 0) {
            return nullptr;
        }
    }
}

/// Start of an event recording: re-check silence and quota, step the reader back by the
/// pre-record time and open the cloud recording at the first video frame.
void pass_pre_record_start(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t now) {
    if (__check_silence_time(now) != 0) {
        CS_DBG("cloud storage event enter silence time");
        vexo_hal_system_sleep(SLEEP_SILENCE_MS);
        __stop_event_if_needed(&ctl, now, st.last_frame_time);
        return;
    }
    if (__check_event_count() != 0) {
        CS_ERR("cloud storage event over limits today");
        vexo_hal_system_sleep(SLEEP_IDLE_MS);
        __force_all_event_stop(&ctl, now);
        return;
    }

    CS_DBG("get pre record av needed");
    const uint32_t frames_back =
        static_cast<uint32_t>(ctl.pre_record_time) * ctl.media_info.video_fps[0];
    while (vexo_ipc_ring_buffer_anchor_user(st.video_handle, frames_back, 1) != 0) {
        vexo_hal_system_sleep(SLEEP_ANCHOR_RETRY_MS);
        if (ctl.inited == 0) {
            return; // an empty stream must not keep uninit from ending the thread
        }
    }
    if (st.audio_handle != nullptr) {
        vexo_ipc_ring_buffer_sync_stream(st.video_handle, st.audio_handle);
    }

    vexo_ring_buffer_frame_t *frame = nullptr;
    if (audio_channel_present(ctl)) {
        frame = first_pre_record_video(ctl, st);
        st.pending_audio = nullptr;
        if (frame == nullptr) {
            return;
        }
    } else {
        frame = vexo_ipc_ring_buffer_get_frame(st.video_handle, st.retry);
        if (frame == nullptr) {
            vexo_hal_system_sleep(SLEEP_ANCHOR_RETRY_MS);
            return;
        }
    }

    if (__cloud_storage_upload_start(frame_seconds(frame)) != 0) {
        vexo_hal_system_sleep(SLEEP_RETRY_MS);
        __stop_event_if_needed(&ctl, now, st.last_frame_time);
        return;
    }
    if (vexo_ipc_ring_buffer_if_delay(st.video_handle) != 0) {
        handle_delay(ctl, st, now);
        st.restart_pending = 1; // whatever the store mode became meanwhile
        __stop_event_if_needed(&ctl, uni_time_get_posix(), ctl.uploaded_end_time);
        vexo_hal_system_sleep(SLEEP_IDLE_MS);
        return;
    }
    st.pending_video = frame;
    st.last_frame_time = frame_seconds(frame);
    continue_event_recording(ctl, st, now);
}

void pass_event(cloud_storage_ctl_t &ctl, upload_thread_state &st, uint32_t now) {
    if (__event_list_is_empty(&ctl) != 0) {
        vexo_hal_system_sleep(SLEEP_IDLE_MS);
        return;
    }
    if (__pre_record_av_needed(&ctl) != 0 || st.restart_pending != 0) {
        pass_pre_record_start(ctl, st, now);
        return;
    }
    if (audio_channel_present(ctl)) {
        // Audio is read whether it is on or off; muted frames keep the timeline intact.
        take_av_frame(
            st, vexo_ipc_ring_buffer_get_av_frame(st.video_handle, st.audio_handle, st.retry));
    } else {
        read_video_only(st);
    }
    note_video_time(st);
    continue_event_recording(ctl, st, now);
}

} // namespace

bool cloud_storage_thread_startup(upload_thread_state *st) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    st->frame = upload_frame_t{};

    st->video_handle = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_MAIN, 0);
    if (st->video_handle == nullptr) {
        CS_ERR("vexo_ipc_ring_buffer_open video failed");
        return false;
    }
    if (audio_channel_present(ctl)) {
        st->audio_handle = vexo_ipc_ring_buffer_open(0, 0, VEXO_STREAM_AUDIO, 0);
    }

    // Until the service answers, back off from 500 ms doubling up to 32 s.
    uint32_t factor = 1;
    for (;;) {
        int32_t ret = __update_cloud_storage_config();
        if (ret == CS_OK || ret == CS_ORDER_EXPIRED) {
            break;
        }
        vexo_hal_system_sleep(CONFIG_BACKOFF_BASE_MS * factor);
        if (factor <= CONFIG_BACKOFF_MAX_FACTOR) {
            factor *= 2;
        }
    }

    int32_t count_check = __check_event_count();
    if (count_check != 0) {
        CS_ERR("check cloud storage count failed, op_ret = %d", static_cast<int>(count_check));
    }
    cloud_storage_reconcile_events(&ctl, count_check);
    return true;
}

bool cloud_storage_thread_pass(upload_thread_state *st) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.inited == 0 || !thread_is_current(ctl, *st)) {
        return false;
    }
    uint32_t now = uni_time_get_posix();
    CS_TRACE("cloud storage loop time %u, enable %d, type %d", now, static_cast<int>(ctl.enable),
             static_cast<int>(ctl.store_mode));

    if (ctl.enable == 0) {
        // Uninit clears enable right after inited: a pass that saw inited set must not take
        // that for a pause and close the recording.
        if (ctl.inited == 0) {
            return false;
        }
        if (st->pause_handled == 0) {
            cs_seq::report_time(20, now);
            __force_all_event_stop(&ctl, now);
            if (ctl.upload_status == UPLOAD_STATUS_RUNNING) {
                __cloud_storage_upload_finish(ctl.uploaded_end_time);
            }
        }
        vexo_hal_system_sleep(SLEEP_PAUSED_MS);
        st->pause_handled = 1;
        return true;
    }
    st->pause_handled = 0;

    if (ctl.store_mode == STORE_MODE_NONE) {
        pass_no_order(ctl, now);
        return true;
    }

    if (now - ctl.config_time > CONFIG_REFRESH_SECONDS) {
        if (__update_cloud_storage_config() != 0) {
            CS_ERR("fail to update cloud storage config");
            __stop_event_if_needed(&ctl, now, st->last_frame_time);
            vexo_hal_system_sleep(SLEEP_RETRY_MS);
            return true;
        }
    }

    switch (ctl.store_mode) {
    case STORE_MODE_ALLTIME:
        pass_alltime(ctl, *st, now);
        break;
    case STORE_MODE_EVENT:
        pass_event(ctl, *st, now);
        break;
    default:
        process_pending(ctl, *st, now); // only frames still pending
        break;
    }
    return true;
}

void cloud_storage_thread_exit(upload_thread_state *st) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    // A thread overtaken by a newer init leaves the buffer, the events and AES to the
    // current thread and only releases what is its own.
    const bool current = thread_is_current(ctl, *st);
    if (current && ctl.media_buffer != nullptr) {
        CS_DBG("free media_buffer");
        Free(ctl.media_buffer.exchange(nullptr));
    }
    if (st->mute_buffer != nullptr) {
        vexo_hal_system_free(st->mute_buffer);
        st->mute_buffer = nullptr;
    }
    if (current) {
        __force_all_event_stop(&ctl, uni_time_get_posix());
        vexo_hw_aes_crypt_uninit(&ctl.aes_handle);
    }
    vexo_ipc_ring_buffer_close(st->video_handle);
    if (st->audio_handle != nullptr) {
        vexo_ipc_ring_buffer_close(st->audio_handle);
    }
    // A recording still running gets no stop notification on this path.
}

void __thread_cloud_storage(void * /*arg*/) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    upload_thread_state st = {};
    st.generation = ctl.thread_generation;
    // A thread that could not open its reader still owns the media buffer, the events and
    // AES that init handed it: it releases them like a thread that ran.
    if (cloud_storage_thread_startup(&st)) {
        while (cloud_storage_thread_pass(&st)) {
        }
    }
    cloud_storage_thread_exit(&st);
}
