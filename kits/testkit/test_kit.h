/// The test kit: an in-memory implementation of every platform call, scripted and inspected
/// by unit tests through the calls below.
///
/// Every platform call may run concurrently on the module's threads, the test thread and a
/// thread delivering MQTT messages; the readers below return copies. Time is virtual: sleeps
/// advance the clock instead of waiting, so hours of module behaviour run in milliseconds.
#ifndef VEXO_TEST_KIT_H
#define VEXO_TEST_KIT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vexo_platform.h"

namespace tk {

// ---- whole kit -------------------------------------------------------------------------------

/// Puts every service back to its defaults and releases what the kit still holds. Call it only
/// while no thread started through the kit is running.
void reset();

/// Number of calls made to the platform entry point of that C name since the last reset.
uint64_t calls(const std::string &entry);
/// The next `times` calls of the named entry point return `code` instead of doing their work
/// (a queued 0 lets one call run normally). Honoured by: CreateAndStart, DeleteThrdHandle,
/// vexo_hal_mutex_create_init, uni_local_time_get_custom, log_seq_insert_log,
/// log_seq_insert_report_log, iot_wd_utils_serialize, iot_wd_utils_deserialize,
/// iot_wd_common_read, iot_wd_common_write (the name is still recorded), vexo_hw_aes_*,
/// OpensslAES_CBC128_encrypt, vexo_ipc_ring_buffer_open (null), _anchor_user, _sync_stream,
/// _if_delay, _close, cloud_cfg_broadcast_update_status, cloud_put_data_to_file (the upload is
/// still recorded, with that rc), mqtt_attach, vexo_ipc_alarm_event (still recorded),
/// vexo_ipc_get_snapshot_cb, vexo_ipc_skill_enable, cloud_get_storage_config and
/// cloud_get_storage_restriction_config (record not filled) and
/// iot_httpc_common_post_no_remalloc (the post is still recorded, no result object, no queued
/// answer used). Configuration answers and HTTP posts also have their own queues below.
void queue_result(const std::string &entry, int32_t code, uint32_t times = 1);
/// Runs `hook` on the calling thread at the start of every call of the named entry point,
/// outside the kit's locks (an empty function removes it). Lets a test act at a given moment.
void set_hook(const std::string &entry, std::function<void()> hook);

/// A wrong use of the kit by its caller: unlocking a mutex not held, freeing an unknown pointer,
/// using a closed ring-buffer reader, and so on.
struct Misuse {
    std::string category; // "mutex", "memory", "ring", "kv", "thread", "log", "crypto"
    std::string message;
};
std::vector<Misuse> misuses();
/// Misuses of one category, or of all when category is empty.
size_t misuse_count(const std::string &category = "");

// ---- fault plan ------------------------------------------------------------------------------
//
// Every call below that can fail is a fallible call: each one is counted, overall and per kind,
// from the last reset, and the plan can make it fail with the failure its contract gives:
// null from Malloc, vexo_hal_system_malloc, ring_buffer_open and the get calls; -1 from every
// other kind (a configuration record is then not filled, a post hands out no result object,
// an upload and an alarm are still recorded with rc -1, a failed key-value write stores
// nothing). A result queued with queue_result (or fail_alloc_call, fail_open) takes precedence;
// the call is still counted. The MD5 calls return nothing and cannot fail.

enum class Fallible : uint8_t {
    malloc,
    system_malloc,
    kv_read,
    kv_write,
    serialize,
    deserialize,
    aes_init,
    aes_update_key,
    aes_encrypt, // vexo_hw_aes_encrypt_cbc and OpensslAES_CBC128_encrypt
    ring_open,
    ring_anchor,
    ring_get, // get_frame and get_av_frame
    ring_sync,
    storage_config,
    restriction,
    api_post,
    upload,
    alarm,
    snapshot,
    mqtt_attach,
    thread_create,
    mutex_create,
    kind_count
};
const char *fallible_name(Fallible kind);
uint64_t fallible_calls();
uint64_t fallible_calls(Fallible kind);
/// The fallible call with that overall index (1 = the first since reset) fails; 0: none.
void fail_nth_fallible(uint64_t n);
/// Every call of that kind fails while on.
void fail_every(Fallible kind, bool on);
/// Clears both kinds of failure; the counts go on.
void faults_off();
struct InjectedFault {
    uint64_t index; // overall index of the call that failed
    Fallible kind;
    std::string thread; // kit thread name, "" for others
};
/// Every call the plan made fail since reset, in order.
std::vector<InjectedFault> injected_faults();

// ---- virtual clock ---------------------------------------------------------------------------

/// Default after reset: 1705305600 (2024-01-15 08:00:00 UTC), zone offset 0.
void set_time(uint32_t posix_seconds);
void set_time_ms(uint64_t ms);
uint64_t now_ms();
/// Moves the clock forward (what every vexo_hal_system_sleep does for its caller).
void advance(uint64_t ms);
/// Offset of local time from UTC in seconds, used by uni_local_time_get_custom.
void set_zone_offset(int32_t seconds);
/// While frozen, sleeps leave the clock alone and only yield the CPU.
void freeze_clock(bool frozen);
/// Total milliseconds slept by all threads, and by the kit thread of that name ("" for threads
/// not started through the kit).
uint64_t total_sleep_ms();
uint64_t sleep_ms_of(const std::string &thread_name);
/// The first 10000 sleep durations of that thread, in call order.
std::vector<uint32_t> sleeps_of(const std::string &thread_name);

// ---- threads ---------------------------------------------------------------------------------

struct ThreadInfo {
    std::string name;
    uint32_t stack_size;
    int32_t priority;
    bool handle_deleted; // DeleteThrdHandle was called for it
    bool finished;       // its function and exit hook have returned
};
/// Every thread started through CreateAndStart since the last reset, in start order.
std::vector<ThreadInfo> threads();
size_t running_thread_count();
/// Waits in real time until every kit thread has finished (and joins them). true on success.
bool wait_threads_exited(uint32_t real_ms);

// ---- mutexes ---------------------------------------------------------------------------------

size_t mutex_count();
/// Mutexes currently held by some thread.
size_t locked_mutex_count();

// ---- memory ----------------------------------------------------------------------------------

enum class Pool { malloc, system };
struct AllocStats {
    uint64_t calls;             // allocation calls made by the module
    uint64_t failed;            // of which were made to fail
    uint64_t outstanding;       // blocks not yet freed (kit-made blocks handed out included)
    uint64_t outstanding_bytes; //
    uint64_t peak_bytes;        //
};
AllocStats alloc_stats(Pool pool);
/// The nth allocation call of the pool from now fails (1 = the next one).
void fail_alloc_call(Pool pool, uint32_t nth);
/// The next allocation call of the pool asking for exactly `size` bytes fails.
void fail_alloc_size(Pool pool, size_t size);
/// Sizes of the blocks of the pool still outstanding, oldest first.
std::vector<size_t> outstanding_blocks(Pool pool);

// ---- random ----------------------------------------------------------------------------------

/// Values handed out by the next calls (each clamped to the call's range). With the queue
/// empty a call returns its range, the top of 0 .. range.
void queue_random(uint32_t value);
/// The range argument of every call, in order.
std::vector<uint32_t> random_calls();

// ---- logs ------------------------------------------------------------------------------------

enum class Level { err, debug, trace };
struct LogLine {
    Level level;
    std::string text; // formatted
    std::string file;
    int32_t line;
    uint64_t at_ms; // virtual clock
};
std::vector<LogLine> logs();
/// Lines of that level whose text equals `text` exactly.
size_t count_logs(Level level, const std::string &text);
/// Whether a line of that level contains `part`.
bool has_log(Level level, const std::string &part);
/// Trace lines are recorded only when enabled (default off). Set VEXO_TEST_LOG=1 in the
/// environment to echo every line, traces included, to stderr.
void record_trace(bool on);
void clear_logs();

struct SeqEntry {
    bool report; // log_seq_insert_report_log
    std::string module;
    uint32_t seq;
    uint32_t kind;
    int64_t value;    // kinds 0, 1 (int32_t) and 3 (uint32_t)
    std::string text; // kind 4
};
std::vector<SeqEntry> seq_log();
std::vector<SeqEntry> seq_entries(uint32_t seq);

// ---- media ring buffer -----------------------------------------------------------------------
//
// How the kit's ring buffer behaves where the platform leaves room:
// - A reader opened on an empty stream gets every frame pushed afterwards.
// - Every get call on a reader (get_av_frame: on both readers) frees the copy it handed out
//   before, even when it returns null; the frame handed out is a fresh copy held by the
//   reader of its stream.
// - retry = 1 with nothing handed out yet reads normally. get_av_frame with retry = 1 hands
//   out again whichever frame the pair handed out last.
// - anchor_user: position = live end - frames_back (clamped to the oldest); with to_key the
//   key frame at or before it, else the oldest key frame after it, else -1 (cursor unchanged).
// - sync_stream: audio to its first frame not older than the video reader's next frame, or
//   to the audio live end when the video reader is at its live end.
// - A null reader handle returns null / -1 quietly; an unknown or closed one is also misuse.
// - get_lastest_timestamp is the time stamp of the frame entered last.

/// Frame generator run by the clock: video on stream 0, audio on stream 9. Video frame k has
/// time stamp start + k * 1000 / fps and is a key frame when k % gop == 0; audio frame j has
/// time stamp start + j * audio_period_ms. pts is the time stamp in microseconds.
struct StreamConfig {
    uint32_t fps = 25;
    uint32_t gop = 50;
    uint32_t i_frame_bytes = 6000;
    uint32_t p_frame_bytes = 1500;
    bool audio = true;
    uint32_t audio_period_ms = 40;
    uint32_t audio_frame_bytes = 320;
    uint32_t capacity_secs = 10;
};
/// Media parameters of the camera the default StreamConfig simulates: main stream 25 fps,
/// GOP 50, 1024 kbit/s, 1920x1080, H.264; audio channel 9 on, G.711 A-law, 8000 Hz, 16 bits,
/// mono.
vexo_ipc_media_info_t sample_media_info();
/// Starts the generator at the current time; frames appear as the clock reaches them.
void start_stream(const StreamConfig &config = StreamConfig());
/// Stops the generator after producing what is due now.
void stop_stream();
/// Appends one frame by hand; it becomes the newest frame of the stream.
void push_frame(int32_t stream, uint32_t type, const std::vector<uint8_t> &bytes,
                uint64_t timestamp_ms, uint64_t pts);
/// Seconds a stream keeps (default 10): frames older than newest minus this are dropped.
void set_capacity_secs(int32_t stream, uint32_t secs);

/// A frame ever produced on a stream, kept after the ring has dropped it.
struct FrameInfo {
    int32_t stream;
    uint64_t index; // position in the stream's history, from 0
    uint32_t type;
    uint64_t timestamp; // ms
    uint64_t pts;
    uint32_t size;
};
/// The bytes of a frame: generated frames are rebuilt from (stream, index).
std::vector<uint8_t> frame_bytes(const FrameInfo &frame);
/// The bytes the generator gives frame `index` of `stream` of that type and size.
std::vector<uint8_t> generated_bytes(int32_t stream, uint64_t index, uint32_t type, uint32_t size);
uint64_t frames_produced(int32_t stream);
/// The first frame of the stream with exactly that time stamp.
std::optional<FrameInfo> frame_at(int32_t stream, uint64_t timestamp_ms);
/// Frames with from_ms <= time stamp <= to_ms, in production order.
std::vector<FrameInfo> frames_between(int32_t stream, uint64_t from_ms, uint64_t to_ms);
/// Frames the stream holds now, oldest first.
std::vector<FrameInfo> ring_frames(int32_t stream);

/// vexo_ipc_ring_buffer_open on that stream returns null for its next `times` calls.
void fail_open(int32_t stream, uint32_t times = 1);
/// if_delay answers non-zero for a reader whose next frame is older than the stream's newest
/// by more than `ms`, or was dropped by the ring. Until a test sets it, the limit is half a
/// second short of the stream's capacity (half the capacity below two seconds), as on the
/// host kit.
void set_delay_threshold_ms(uint64_t ms);
/// The next `times` if_delay calls answer 1 whatever the readers' positions; the reader asked
/// is caught up on its next get like any reader reported behind.
void force_delay(uint32_t times);
/// A lagging reader moved by the kit: after if_delay answered non-zero for it, or once the
/// ring dropped its next frame, its next get moves it to the newest key frame held (an audio
/// stream: its newest frame; none held: the live end), and the audio reader read beside it
/// in get_av_frame to the first audio frame not older than that. An audio reader that fell
/// behind on its own is moved beside the video reader's next frame. anchor_user and
/// sync_stream in between position the reader instead.
struct ReaderJump {
    int32_t stream = 0;         // of the reader that had fallen behind
    uint64_t lag_ms = 0;        // its next frame (or the oldest held) behind the newest
    uint64_t skipped = 0;       // frames the reader passed over
    uint64_t audio_skipped = 0; // frames the audio reader beside it passed over
    uint64_t overwritten = 0;   // of all those, the ones the ring had dropped already
    uint64_t at_ms = 0;         // virtual clock
};
/// Every jump since the last reset, in order: one entry per jump, however many frames.
std::vector<ReaderJump> reader_jumps();
void set_max_frame_size(int32_t bytes); // default -1
void set_max_buf_secs(int32_t secs);    // default 10
size_t open_reader_count();

// ---- cloud -----------------------------------------------------------------------------------

/// A configuration record as the service sends it; texts are cut to their field.
vexo_storage_config_t make_storage_config(const std::string &store_mode, int32_t event_duration,
                                          int32_t slice_duration, int32_t silence_interval,
                                          int32_t count_left,
                                          const std::string &cloud_type = "local",
                                          const std::string &prefix = "media",
                                          const std::string &suffix = "127.0.0.1:8080");
/// Next answers of cloud_get_storage_config; the record is copied out only with rc 0. Once
/// the queue is empty the default answers: rc 0 with ("event", 30, 10, 0, 20) after reset.
void queue_storage_config(int32_t rc, const vexo_storage_config_t &record);
void set_default_storage_config(int32_t rc, const vexo_storage_config_t &record);
/// Next answers of cloud_get_storage_restriction_config (durations copied only with rc 0);
/// the default after reset is rc -1.
void queue_restriction(int32_t rc, int32_t event_duration, int32_t slice_duration);
void set_default_restriction(int32_t rc, int32_t event_duration, int32_t slice_duration);

struct Upload {
    std::string file_name;
    std::vector<uint8_t> bytes; // empty when keeping bytes is off
    uint32_t size;
    std::string scheme;
    int32_t flag;
    std::string content_type;
    std::string store_mode; // of the record passed
    std::string cloud_type; //
    uint64_t at_ms;
    int32_t rc; // what the kit answered
};
/// Every cloud_put_data_to_file call (its answers come from queue_result, default 0).
std::vector<Upload> uploads();
/// Keeping the bytes of each upload (default on); off keeps only the sizes, for long runs.
void keep_upload_bytes(bool on);

/// Next answer of iot_httpc_common_post_no_remalloc for that API name: rc and the JSON text of
/// the result object handed to the caller (none: no object, *result set to null).
void queue_post_answer(const std::string &api, int32_t rc,
                       std::optional<std::string> json = std::nullopt);
void set_default_post_answer(const std::string &api, int32_t rc,
                             std::optional<std::string> json = std::nullopt);
struct Post {
    std::string api;
    std::string version;
    bool uuid_null;
    bool extra_header_null;
    std::string dev_id;
    std::string body; // text up to the first zero within post_len
    uint32_t post_len;
    uint64_t at_ms;
};
std::vector<Post> posts();
std::vector<Post> posts_of(const std::string &api);
/// The gateway id get_gw_cntl reports (default "vexo-test-0001"). Set it before init: the
/// module reads the record without the kit's lock.
void set_gw_id(const std::string &id);

// ---- key-value store -------------------------------------------------------------------------

void put_record(const std::string &name, const std::vector<uint8_t> &bytes);
std::optional<std::vector<uint8_t>> get_record(const std::string &name);
void erase_record(const std::string &name);
/// Stores "md5_encrypt_key" with md5_value = md5 text, md5_len, encrypt_key_value = key and
/// encrypt_key_len as the module writes them (the lengths as given, even if they disagree).
void put_key_record(const std::string &md5, uint32_t md5_len, const std::vector<uint8_t> &key,
                    uint32_t key_len);
/// Stores "storage_restriction" with the 32-bit field "slice_duration".
void put_slice_record(int32_t value);

struct KvField {
    std::string key;
    uint8_t type;
    std::vector<uint8_t> value;
};
/// Serialises fields in the kit's record format (what iot_wd_utils_serialize produces).
std::vector<uint8_t> encode_record(const std::vector<KvField> &fields);
/// Decodes a record; empty optional when it is not a valid record.
std::optional<std::vector<KvField>> decode_record(const std::vector<uint8_t> &bytes);
/// A field of a stored record, decoded; empty when the record or the field is missing.
std::optional<std::vector<uint8_t>> record_field(const std::string &name, const std::string &field);
std::optional<int32_t> record_int(const std::string &name, const std::string &field);
/// Record names of every iot_wd_common_write call, in order.
std::vector<std::string> kv_writes();
/// Read buffers handed out and not yet given back with iot_wd_common_free_data.
size_t kv_outstanding_reads();

// ---- crypto ----------------------------------------------------------------------------------

/// Whether vexo_hw_aes_crypt_init sets up a hardware engine (default off).
void set_hw_engine(bool on);
uint64_t hw_encrypt_calls();
uint64_t sw_encrypt_calls();
/// AES-128-CBC decryption with PKCS#7; empty optional when the padding is wrong.
std::optional<std::vector<uint8_t>> aes_cbc_decrypt(const uint8_t key[16], const uint8_t iv[16],
                                                    const std::vector<uint8_t> &cipher);
std::vector<uint8_t> aes_cbc_encrypt(const uint8_t key[16], const uint8_t iv[16],
                                     const std::vector<uint8_t> &plain);
/// 32 lower-case hex digits.
std::string md5_hex(const std::vector<uint8_t> &bytes);

// ---- MQTT, alarm, snapshot, skill ------------------------------------------------------------

/// Parses json and runs the handler attached for the protocol on the calling thread. false
/// when no handler is attached or the text does not parse.
bool deliver_mqtt(uint32_t protocol, const std::string &json);
bool mqtt_attached(uint32_t protocol);

struct Alarm {
    uint32_t kind;
    uint32_t reserved0;
    uint32_t with_picture;
    uint32_t time;
    uint32_t reserved1;
    uint32_t flags[3];
    uint32_t reserved2[4];
    bool extra_null;
    std::string extra;
    bool picture_null;
    uint32_t picture_size;
    std::vector<uint8_t> picture; // picture_size bytes from the record's pointer
};
/// Every vexo_ipc_alarm_event call (answers from queue_result, default 0).
std::vector<Alarm> alarms();
/// The picture the snapshot call delivers (default: 2048 bytes of a fake JPEG).
void set_snapshot(const std::vector<uint8_t> &picture);
/// The size the snapshot call reports instead of the picture's own (e.g. 0, or oversize).
void set_snapshot_size(std::optional<int32_t> size);

struct Skill {
    uint32_t skill;
    std::vector<uint8_t> param; // the 512 bytes
};
std::vector<Skill> skills();

} // namespace tk

#endif
