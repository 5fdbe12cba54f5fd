/// Initialisation and teardown: validates the stream parameters, prepares the control block,
/// checks the stored key, chooses the slice duration, sizes the slice buffer and starts the
/// upload thread.
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr uint32_t THREAD_STACK_SIZE = 0x10000;
constexpr int32_t THREAD_PRIORITY = 3;
const vexo_thread_param_t s_thread_param = {THREAD_STACK_SIZE, THREAD_PRIORITY, "cloud_storage"};

constexpr uint32_t MQTT_ORDER_CHANGE = 300;
constexpr uint32_t MQTT_REMOTE_TRIGGER = 307;
constexpr uint32_t SKILL_CLOUD_STORAGE = 0;
constexpr uint32_t SKILL_PARAM_SIZE = 512;
constexpr uint32_t SKILL_PARAM_FIRST_WORD = 3;

constexpr int32_t DEFAULT_PRE_RECORD_SECONDS = 2;

bool slice_duration_valid(uint32_t seconds) {
    return seconds >= CS_MIN_SLICE_DURATION && seconds <= CS_MAX_SLICE_DURATION;
}

/// Slice duration when neither the store nor the cloud offers one: derived from the key
/// frame interval so that slices end on key frames.
uint32_t slice_duration_from_gop(const vexo_ipc_media_info_t &media) {
    // A zero frame rate would divide by zero; it is taken as "no key frame interval known".
    uint32_t q = media.video_fps[0] == 0 ? 0 : media.video_gop[0] / media.video_fps[0];
    if (q > 9) {
        return q;
    }
    if (q > 5) {
        return 2 * q;
    }
    return CS_DEFAULT_SLICE_DURATION;
}

/// Stored value, else the cloud's restriction value (persisted), else one derived from the
/// stream.
uint32_t choose_slice_duration(cloud_storage_ctl_t &ctl) {
    uint32_t seconds = 0;
    if (__base_slice_duration_read(KV_SLICE_RECORD, &seconds) == 0 &&
        slice_duration_valid(seconds)) {
        CS_DBG("case 1 read slice duration from db %d", static_cast<int>(seconds));
        return seconds;
    }
    if (cloud_get_storage_restriction_config(&ctl.storage_config) == 0) {
        seconds = static_cast<uint32_t>(ctl.storage_config.slice_duration);
        if (!slice_duration_valid(seconds)) {
            CS_DBG("slice duration %d is too small or too large, use default %d",
                   static_cast<int>(seconds), static_cast<int>(CS_DEFAULT_SLICE_DURATION));
            seconds = CS_DEFAULT_SLICE_DURATION;
        }
        __base_slice_duration_write(KV_SLICE_RECORD, seconds);
        CS_DBG("case 2 get slice duration from cloud %d", static_cast<int>(seconds));
        return seconds;
    }
    seconds = slice_duration_from_gop(ctl.media_info);
    CS_DBG("case 3 use default slice duration %d", static_cast<int>(seconds));
    return seconds;
}

/// One second of slack on top of the slice: video at the configured bit rate, plus raw audio
/// when the audio channel is present. 32-bit arithmetic, as on the camera.
uint32_t media_buffer_bytes(const vexo_ipc_media_info_t &media, uint32_t slice_duration) {
    uint32_t size = (slice_duration + 1) * (media.video_bitrate[0] * 1024 / 8);
    if (media.channel_enable[CS_AUDIO_CHANNEL] != 0) {
        uint32_t audio_bytes_per_second =
            (media.audio_sample[CS_AUDIO_CHANNEL] * media.audio_databits[CS_AUDIO_CHANNEL]) / 8;
        size += (slice_duration + 1) * audio_bytes_per_second;
    }
    return size;
}

void reset_event_table(cloud_storage_ctl_t &ctl) {
    // No lock: handlers attached by an earlier init may be live, but nothing adds events
    // before start_worker sets inited.
    for (cloud_storage_event &slot : ctl.events) {
        std::memset(&slot, 0, sizeof slot);
        slot.id = EVENT_ID_NONE;
        slot.status = EVENT_NONE;
        slot.type = EVENT_TYPE_NONE;
    }
}

/// Everything that comes before the slice buffer: the mutexes, the largest frame, the IV, the
/// caller's hooks, the stored key with the AES engine, and the stream parameters.
void prepare(cloud_storage_ctl_t &ctl, const vexo_ipc_media_info_t &media,
             const vexo_ipc_cloud_storage_hooks_t &hooks) {
    vexo_hal_mutex_create_init(&ctl.upload_mutex);
    vexo_hal_mutex_create_init(&ctl.event_mutex);

    int32_t max_frame = vexo_ipc_ring_buffer_get_max_frame_size(0, 0, 0);
    s_max_frame_size =
        max_frame == -1 ? CS_DEFAULT_MAX_FRAME_SIZE : static_cast<uint32_t>(max_frame);

    std::memcpy(ctl.aes_iv, s_aes_iv, sizeof s_aes_iv);
    std::memset(ctl.aes_iv + sizeof s_aes_iv, 0, sizeof ctl.aes_iv - sizeof s_aes_iv);

    ctl.start_hook = hooks.start_hook;
    ctl.user_word_1 = hooks.user_word_1;
    ctl.user_word_2 = hooks.user_word_2;
    if (ctl.start_hook != nullptr) {
        ctl.start_hook();
    }

    std::memset(ctl.encrypt_key, 0, sizeof ctl.encrypt_key);
    std::memset(ctl.encrypt_key_md5, 0, sizeof ctl.encrypt_key_md5);
    int32_t key_check = __check_md5_encrypt_key();
    cs_seq::code(0, key_check);

    // Without a valid key the engine starts with the all-zero key; the cloud's new key
    // replaces it when the first recording starts.
    vexo_hw_aes_crypt_init(&ctl.aes_handle, ctl.encrypt_key);

    std::memcpy(&ctl.media_info, &media, sizeof ctl.media_info);
}

/// Chooses the slice duration and takes the slice buffer: CS_OK, or CS_NO_MEMORY with
/// nothing that prepare did undone.
int32_t allocate(cloud_storage_ctl_t &ctl) {
    // A buffer still held by an earlier upload thread that has not yet left keeps its size
    // and slice duration.
    if (ctl.media_buffer == nullptr) {
        ctl.slice_duration = choose_slice_duration(ctl);
        ctl.media_buffer_size = media_buffer_bytes(ctl.media_info, ctl.slice_duration);
        auto *buffer = static_cast<uint8_t *>(Malloc(ctl.media_buffer_size));
        if (buffer == nullptr) {
            CS_ERR("fail to malloc buffer for cloud storage size %d. [bitrate %d, "
                   "slice_duration %d]",
                   static_cast<int>(ctl.media_buffer_size),
                   static_cast<int>(ctl.media_info.video_bitrate[0]),
                   static_cast<int>(ctl.slice_duration));
            cs_seq::report_code(1, CS_NO_MEMORY);
            return CS_NO_MEMORY;
        }
        ctl.media_buffer = buffer;
    }
    CS_DBG("cloud storage seize %d bytes memory for media data, each slice %d seconds",
           static_cast<int>(ctl.media_buffer_size), static_cast<int>(ctl.slice_duration));
    cs_seq::code(2, static_cast<int32_t>(ctl.media_buffer_size));
    return CS_OK;
}

/// Resets the event table and the defaults, marks the module initialised and starts the
/// upload thread unless one is still there: CS_OK, or CS_FAIL when the thread cannot be
/// created (the buffer is freed then, inited stays 1 and a second init is refused until
/// uninit).
int32_t start_worker(cloud_storage_ctl_t &ctl) {
    reset_event_table(ctl);
    ctl.store_mode = STORE_MODE_NONE;
    ctl.pre_record_time = DEFAULT_PRE_RECORD_SECONDS;
    ctl.audio_enable = 1;
    ctl.upload_status = UPLOAD_STATUS_NONE;
    ctl.enable = 1;
    ctl.inited = 1;

    if (ctl.thread_handle == nullptr) {
        ctl.thread_generation.fetch_add(1);
        int32_t ret = CreateAndStart(&ctl.thread_handle, nullptr, nullptr, __thread_cloud_storage,
                                     nullptr, &s_thread_param);
        if (ret != 0) {
            CS_ERR("cloud task create failed ret[%d]", static_cast<int>(ret));
            Free(ctl.media_buffer.exchange(nullptr));
            return CS_FAIL;
        }
    }
    return CS_OK;
}

/// Makes the running module known: the MQTT handlers, the skill registry and the logs.
void announce(cloud_storage_ctl_t &ctl) {
    mqtt_attach(MQTT_ORDER_CHANGE, __cloud_storage_order_change_callback);
    mqtt_attach(MQTT_REMOTE_TRIGGER, __cloud_storage_iot_event_trigger_callback);

    // upload_status is not cleared again here: it was cleared before the thread started,
    // and by now an all-time thread may already have opened its recording.
    ctl.enable = 1;

    uint8_t skill_param[SKILL_PARAM_SIZE] = {};
    const uint32_t first_word = SKILL_PARAM_FIRST_WORD;
    std::memcpy(skill_param, &first_word, sizeof first_word);
    vexo_ipc_skill_enable(SKILL_CLOUD_STORAGE, skill_param);

    cs_seq::report_none(5);
    CS_DBG("init cloud storage success");
}

} // namespace

extern "C" int32_t vexo_ipc_cloud_storage_init(const vexo_ipc_media_info_t *media,
                                               const vexo_ipc_cloud_storage_hooks_t *hooks) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    CS_DBG("init cloud storage begin");
    if (media == nullptr || hooks == nullptr) {
        CS_ERR("invalid param");
        return CS_BAD_ARG;
    }
    if (media->video_bitrate[0] > CS_MAX_BITRATE_KBPS) {
        CS_ERR("main video stream bitrate too big: %d", static_cast<int>(media->video_bitrate[0]));
        return CS_BAD_ARG;
    }
    if (ctl.inited != 0) {
        CS_ERR("cloud storage already inited");
        return CS_FAIL;
    }

    prepare(ctl, *media, *hooks);
    int32_t ret = allocate(ctl);
    if (ret != CS_OK) {
        return ret;
    }
    ret = start_worker(ctl);
    if (ret != CS_OK) {
        return ret;
    }
    announce(ctl);
    return CS_OK;
}

extern "C" void vexo_ipc_cloud_storage_uninit(void) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    CS_DBG("uninit begin");
    ctl.inited = 0;
    ctl.enable = 0;
    // The thread sees inited 0 at the top of its next pass and releases the slice buffer,
    // the events, AES and its readers itself.
    DeleteThrdHandle(ctl.thread_handle);
    ctl.thread_handle = nullptr;
    CS_DBG("uninit done");
}
