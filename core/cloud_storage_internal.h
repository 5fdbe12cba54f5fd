/// What crosses files inside the module: the control block, the event slot record, the
/// module's own result codes and every internal function. Hidden from the library's users;
/// unit tests include it to reach the internals directly.
#ifndef VEXO_CLOUD_STORAGE_INTERNAL_H
#define VEXO_CLOUD_STORAGE_INTERNAL_H

#include <atomic>
#include <cstdint>

#include "vexo_ipc_cloud_storage.h"
#include "vexo_platform.h"

#pragma GCC visibility push(hidden)

constexpr int32_t CS_OK = 0;
constexpr int32_t CS_FAIL = -1;
constexpr int32_t CS_BAD_ARG = -2;
constexpr int32_t CS_NO_MEMORY = -3;
constexpr int32_t CS_UPLOAD_FAILED = -5;
constexpr int32_t CS_START_NOTIFY_FAILED = -9;
constexpr int32_t CS_BUFFER_FULL = -112;
constexpr int32_t CS_NOT_ALLOWED = -2000;
constexpr int32_t CS_NEW_KEY = -2001;
constexpr int32_t CS_ORDER_INVALID = -2002;
constexpr int32_t CS_ORDER_EXPIRED = -2004;
constexpr int32_t CS_SERVICE_FAILED = -2006;
constexpr int32_t CS_BOUNDARY = -2015;
constexpr int32_t CS_KV_NO_RECORD = -6;
constexpr int32_t CS_KV_WRITE_FAILED = -17;
constexpr int32_t CS_KV_READ_FAILED = -18;

constexpr int32_t STORE_MODE_ALLTIME = 0;
constexpr int32_t STORE_MODE_EVENT = 1;
constexpr int32_t STORE_MODE_NONE = 2;

constexpr int32_t UPLOAD_STATUS_NONE = 0;
constexpr int32_t UPLOAD_STATUS_RUNNING = 2;
constexpr int32_t UPLOAD_STATUS_FINISHED = 4;

constexpr int32_t EVENT_NONE = 0;
constexpr int32_t EVENT_ONGOING = 1;
constexpr int32_t EVENT_READY = 2;
constexpr int32_t EVENT_INVALID = 3;

constexpr int32_t EVENT_NOTIFY_NONE = 0;
constexpr int32_t EVENT_NOTIFY_IOT = 1;
constexpr int32_t EVENT_NOTIFY_NORMAL = 2;
constexpr int32_t EVENT_NOTIFY_ALL = 3;

constexpr int32_t EVENT_TYPE_MD = 0;
constexpr int32_t EVENT_TYPE_IOT = 2;
constexpr int32_t EVENT_TYPE_UNKNOWN = 16;
constexpr int32_t EVENT_TYPE_MAX_VALID = 17;
constexpr int32_t EVENT_TYPE_NONE = 18;

constexpr uint32_t EVENT_ID_NONE = 0xFFFFFFFFu;
constexpr int CS_EVENT_SLOTS = 6;
constexpr uint32_t CS_NOTIFY_JSON_SIZE = 512;
constexpr uint32_t CS_FILE_NAME_SIZE = 24;
constexpr uint32_t CS_KEY_MD5_SIZE = 36;
constexpr uint32_t CS_MAX_BITRATE_KBPS = 2048;
constexpr uint32_t CS_DEFAULT_MAX_FRAME_SIZE = 0x4B000;
constexpr uint32_t CS_DEFAULT_SLICE_DURATION = 10;
constexpr uint32_t CS_MIN_SLICE_DURATION = 3;
constexpr uint32_t CS_MAX_SLICE_DURATION = 60;
constexpr uint32_t CS_GROUP_SECONDS = 1799;
constexpr uint32_t CS_AUDIO_CHANNEL = 9;

/// Plain event notification text, built when an event stops and by the event-notify call.
/// An array, not a pointer, so that printf-format checking still sees it.
constexpr char CS_EVENT_NOTIFY_FORMAT[] =
    "{\"v\":2,\"startTime\":%d,\"endTime\":%d,\"eventType\":%d}";

constexpr const char *KV_KEY_RECORD = "md5_encrypt_key";
constexpr const char *KV_SLICE_RECORD = "storage_restriction";

/// One slot of the event table.
struct cloud_storage_event {
    uint32_t id;
    int32_t status;
    int32_t type;
    uint32_t start_time;
    uint32_t end_time;
    int32_t fast_stop;
    int32_t notify_type;
    char notify_json[CS_NOTIFY_JSON_SIZE];
};
static_assert(sizeof(cloud_storage_event) == 28 + CS_NOTIFY_JSON_SIZE, "event slot layout");
static_assert(offsetof(cloud_storage_event, notify_json) == 28, "event slot layout");

/// A live slot holds an event that waits to start or is recording.
inline bool slot_is_live(const cloud_storage_event &slot) {
    return slot.status == EVENT_ONGOING || slot.status == EVENT_READY;
}

/// A single-word field read and written from several threads without a lock.
template <typename T> using cs_word = std::atomic<T>;
static_assert(sizeof(cs_word<int32_t>) == 4 && cs_word<int32_t>::is_always_lock_free,
              "shared words must be plain lock-free 32-bit words");
static_assert(sizeof(cs_word<uint32_t>) == 4 && cs_word<uint32_t>::is_always_lock_free,
              "shared words must be plain lock-free 32-bit words");

/// The module's one control block. Fields shared between threads without a lock are atomic
/// words of the same width, read and written as plain values (sequentially consistent); a
/// change takes effect at the reader's next look.
struct cloud_storage_ctl_t {
    cs_word<int32_t> inited;
    vexo_mutex_t upload_mutex;
    vexo_thread_t thread_handle;
    cs_word<int32_t> upload_status;
    cs_word<int32_t> enable;
    cs_word<int32_t> have_config;
    vexo_storage_config_t storage_config;
    cs_word<int32_t> store_mode;
    vexo_ipc_media_info_t media_info;
    cs_word<uint32_t> config_time;
    cs_word<uint32_t> order_invalid_time;
    uint32_t config_retry_time;
    cs_word<int32_t> pre_record_time;
    cs_word<int32_t> count_left;
    cs_word<uint32_t> silence_interval;
    char media_file_name[CS_FILE_NAME_SIZE];
    std::atomic<uint8_t *> media_buffer;
    uint32_t media_buffer_size;
    uint32_t media_data_len;
    uint32_t buffer_end_time;
    uint32_t uploaded_end_time;
    cs_word<uint32_t> silence_end_time;
    uint32_t slice_duration;
    uint32_t slice_start_time;
    uint32_t recording_start_time;
    int32_t key_update_needed;
    uint8_t encrypt_key[20]; // 16 key bytes and a zero word
    uint8_t aes_iv[20];      // 16 IV bytes and a zero word
    char encrypt_key_md5[CS_KEY_MD5_SIZE];
    void (*start_hook)(void);
    uint32_t user_word_1;
    uint32_t user_word_2;
    vexo_mutex_t event_mutex;
    cloud_storage_event events[CS_EVENT_SLOTS];
    vexo_hw_aes_t aes_handle;
    cs_word<int32_t> audio_enable;
    /// Bumped by init each time it starts an upload thread. A thread whose generation is no
    /// longer current (init ran again before it had left) ends without touching anything the
    /// current thread owns.
    cs_word<uint32_t> thread_generation;
};

/// Frame handed from the upload thread to frame intake.
struct upload_frame_t {
    uint32_t type;
    const uint8_t *data;
    uint32_t size;
    uint64_t pts;
    uint64_t timestamp; // ms
};

/// Header in front of every frame entry of a media file (little-endian on the wire).
struct media_entry_header_t {
    uint32_t type;
    uint32_t length;
    uint64_t timestamp;
    uint64_t pts;
};
constexpr uint32_t MEDIA_ENTRY_HEADER_SIZE = 24;
static_assert(sizeof(media_entry_header_t) == MEDIA_ENTRY_HEADER_SIZE, "entry header layout");
static_assert(offsetof(media_entry_header_t, timestamp) == 8, "entry header layout");
static_assert(offsetof(media_entry_header_t, pts) == 16, "entry header layout");
constexpr uint32_t MEDIA_ENTRY_SLACK = MEDIA_ENTRY_HEADER_SIZE + 16; // header + one cipher block

// core/control_block.cc: the control block and its statics. The partial resets live in the
// files whose statics they reset.

extern cloud_storage_ctl_t cloud_storage_ctl;
extern uint32_t s_max_frame_size;
extern const uint8_t s_aes_iv[16];

/// Puts every static of the module back to its program-start value (tests only: a process
/// normally starts once).
void cloud_storage_reset_statics();
void cloud_storage_reset_event_statics();  // next event id
void cloud_storage_reset_config_statics(); // daily refresh day and latch
void cloud_storage_reset_intake_statics(); // first-key-frame flag and midnight latch

// core/key_store.cc: the key record and the slice-duration record.

int32_t __base_md5_key_read(const char *name, uint8_t **md5, uint32_t *md5_len, uint8_t **key,
                            uint32_t *key_len);
int32_t __base_md5_key_write(const char *name, const uint8_t *md5, uint32_t md5_len,
                             const uint8_t *key, uint32_t key_len);
int32_t __base_slice_duration_read(const char *name, uint32_t *value);
/// Persists a slice duration in the "storage_restriction" record (errors are logged only).
void __base_slice_duration_write(const char *name, uint32_t value);
int32_t __update_encrypt_key(const uint8_t *key, char *md5_out);
/// Writes the md5 text of 16 key bytes (32 lower-case hex digits and a zero) into out[33].
void cloud_storage_key_md5_text(const uint8_t *key, char *out);
int32_t __check_md5_encrypt_key();

// events/event_table.cc and events/event_schedule.cc: the event table and its scheduling.

int32_t __add_event_to_list(cloud_storage_ctl_t *ctl, int32_t type, uint32_t start, uint32_t end,
                            const char *source_id);
void __delete_event_from_list(cloud_storage_ctl_t *ctl, uint32_t id);
cloud_storage_event *__get_event(cloud_storage_ctl_t *ctl, uint32_t id);
int32_t __get_event_status(cloud_storage_ctl_t *ctl, int32_t type);
int32_t __get_event_status_by_id(cloud_storage_ctl_t *ctl, uint32_t id);
int32_t __set_event_type_by_id(cloud_storage_ctl_t *ctl, uint32_t id, int32_t type);
int32_t __event_is_ongoing(cloud_storage_ctl_t *ctl, int32_t type);
int32_t __event_list_is_empty(cloud_storage_ctl_t *ctl);
int32_t __pre_record_av_needed(cloud_storage_ctl_t *ctl);
int32_t cloud_storage_event_notify(const char *text);
/// End time given to an event stopped now: the newest frame's time in the ring buffer, or
/// the wall clock while the ring buffer holds no frame.
uint32_t cloud_storage_stop_time_now();
/// Frees a slot (status 0, type 18, notify cleared); clears fast_stop when asked.
void cloud_storage_free_slot(cloud_storage_event *slot, bool clear_fast_stop);

void __start_event_if_needed(cloud_storage_ctl_t *ctl);
void __stop_event_if_needed(cloud_storage_ctl_t *ctl, uint32_t now, uint32_t report_end);
void __mark_event_to_stop(cloud_storage_ctl_t *ctl, int32_t type);
void __mark_event_to_fast_stop(cloud_storage_ctl_t *ctl, int32_t type);
void __force_all_event_stop(cloud_storage_ctl_t *ctl, uint32_t report_end);
/// The upload thread's start-up repair of the table, given the count check's result.
void cloud_storage_reconcile_events(cloud_storage_ctl_t *ctl, int32_t count_check);

// cloud/: notifications, service configuration, MQTT handlers.

int32_t httpc_ipc_cloud_storage_event_notify_v10(const char *gw_id, int32_t type,
                                                 const char *cloud_msg, cJSON **result);
int32_t httpc_ipc_cloud_storage_event_notify(int32_t type, const char *cloud_msg, cJSON **result);
int32_t cloud_storage_start_notify(uint32_t start_time, const vexo_ipc_media_info_t *media,
                                   uint32_t mtu, const char *key_md5, uint8_t *new_key);
int32_t cloud_storage_stop_notify(uint32_t start_time, uint32_t end_time);

int32_t __update_cloud_storage_config();
int32_t __check_silence_time(uint32_t now);
int32_t __check_event_count();
void __update_cloud_storage_config_new_day();

void __cloud_storage_iot_event_trigger_callback(cJSON *root);
void __cloud_storage_order_change_callback(cJSON *root);
void __cloud_storage_order_change(const char *action, const char *mode);

// upload/: cloud recording, frame intake, the worker thread.

int32_t __cloud_storage_upload_start(uint32_t start_time);
int32_t __upload_media_slice(uint32_t now);
int32_t __cloud_storage_upload_finish(uint32_t end_time);
int32_t __cloud_storage_upload_restart(uint32_t now);
int32_t __upload_frame(const upload_frame_t *frame);

/// State private to the upload thread, kept in one record so that tests can drive passes.
struct upload_thread_state {
    upload_frame_t frame;
    vexo_ring_buffer_user_t video_handle;
    vexo_ring_buffer_user_t audio_handle;
    vexo_ring_buffer_frame_t *pending_video;
    vexo_ring_buffer_frame_t *pending_audio;
    uint32_t last_frame_time;
    int32_t retry;
    int32_t restart_pending;
    int32_t pause_handled;
    uint8_t *mute_buffer;
    uint32_t mute_buffer_size;
    uint32_t generation; // thread_generation when this thread started
};
/// Opens the readers, waits for the configuration and repairs the event table. false when
/// the video reader cannot be opened (the thread then ends).
bool cloud_storage_thread_startup(upload_thread_state *st);
/// One pass of the loop; false once the module is no longer initialised.
bool cloud_storage_thread_pass(upload_thread_state *st);
/// The exit steps: frees the buffers, stops all events, releases AES and the readers.
void cloud_storage_thread_exit(upload_thread_state *st);
void __thread_cloud_storage(void *arg);

#pragma GCC visibility pop

#endif
