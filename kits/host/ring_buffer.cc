// The media ring buffer: the camera's side pushes frames into one ring per stream number, the
// module's readers walk them with cursors of their own.
//
// A cursor is the position of the frame its reader gets next; a stream's live end is the
// position its next pushed frame gets, so a reader at the live end is caught up.
//
// A reader that falls behind is caught up here, not by the module: once if_delay has reported
// it (its next frame lags the newest by more than the lag limit), or once the ring has
// overwritten its next frame, its next get call first moves it to the newest key frame held,
// and the audio reader read beside it in get_av_frame to the first audio frame not older than
// that key frame. An anchor_user in between positions the reader instead. Each jump is
// counted and logged once, with the frames it passed over.
//
// Reader handles are numbers from an ever-increasing counter, never addresses: a handle that
// was closed, or dropped by ring_reset, can never come back as someone else's reader, and
// every call checks the handle it is given against the registry.
//
// A handed-out record and the bytes it points to belong to the reader: they stay valid until
// that reader hands out another frame or is closed, even if the ring drops the frame meanwhile.
// The bytes are shared between readers; callers only read them.
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "host_internal.h"
#include "ring_stream.h"
#include "vexo_ring_buffer.h"

namespace hostkit {
namespace {

/// Stream numbers 0 .. kStreamCount - 1 exist: main video 0, sub video 1, audio 9, spare.
constexpr int32_t kStreamCount = 16;

struct Reader {
    uintptr_t handle = 0;
    int32_t stream = 0;
    uint64_t next = 0;
    /// if_delay reported this reader behind: its next get moves it to the catch-up point.
    bool jump_due = false;
    /// The frame handed out last, for retry; kept alive here while the ring may drop it.
    ring::FramePtr last;
    /// When it was handed out (g_tick), so get_av_frame's retry finds the newer of a pair.
    uint64_t last_tick = 0;
    std::unique_ptr<vexo_ring_buffer_frame_t> record;
};

std::mutex g_mu;
uint64_t g_span_ms = 10000;
uint64_t g_lag_limit_ms = ring::default_lag_limit_ms(10);
std::map<int32_t, ring::Stream> g_streams;
std::map<uintptr_t, Reader> g_readers;
uintptr_t g_next_handle = 1;
uint64_t g_tick = 0;

bool valid_stream(int32_t stream) {
    return stream >= 0 && stream < kStreamCount;
}

/// The kit is one device with one channel; anything else is the caller's mistake.
bool valid_source(int32_t device, int32_t channel, int32_t stream, const char *call) {
    if (device != 0 || channel != 0) {
        internal::log_error("%s: no device %d channel %d (the kit has device 0 channel 0)", call,
                            static_cast<int>(device), static_cast<int>(channel));
        return false;
    }
    if (!valid_stream(stream)) {
        internal::log_error("%s: no stream %d (streams are 0..%d)", call, static_cast<int>(stream),
                            static_cast<int>(kStreamCount - 1));
        return false;
    }
    return true;
}

ring::Stream &stream_for(int32_t stream) {
    return g_streams.try_emplace(stream, g_span_ms).first->second;
}

const ring::Stream *find_stream(int32_t stream) {
    auto it = g_streams.find(stream);
    return it == g_streams.end() ? nullptr : &it->second;
}

Reader *find_reader(vexo_ring_buffer_user_t user, const char *call) {
    if (user == nullptr) {
        internal::log_error("%s: null reader", call);
        return nullptr;
    }
    auto it = g_readers.find(reinterpret_cast<uintptr_t>(user));
    if (it == g_readers.end()) {
        internal::log_error("%s: unknown or closed reader %p", call, user);
        return nullptr;
    }
    return &it->second;
}

/// The frame the reader gets next, or the oldest held when the ring overwrote that one; null
/// when it is at the live end.
const ring::Frame *peek(const Reader &reader) {
    const ring::Stream &stream = stream_for(reader.stream);
    const uint64_t position = std::max(reader.next, stream.oldest());
    return position < stream.live_end() ? stream.at(position).get() : nullptr;
}

/// The reader must be moved before it gets another frame.
bool must_catch_up(const Reader &reader) {
    return reader.jump_due || reader.next < stream_for(reader.stream).oldest();
}

/// What one reader passed over in a jump.
struct Skip {
    uint64_t frames = 0;
    uint64_t overwritten = 0; ///< of those, the ones the ring had dropped already
    uint64_t lag_ms = 0;      ///< how far its next frame was behind the newest
};

/// Moves the reader forward to position (never back, so no frame comes twice).
Skip move_forward(Reader &reader, uint64_t position) {
    const ring::Stream &stream = stream_for(reader.stream);
    Skip skip;
    reader.jump_due = false;
    if (position <= reader.next) {
        return skip;
    }
    const ring::Frame *next = peek(reader);
    skip.lag_ms = next != nullptr && stream.newest().timestamp_ms > next->timestamp_ms
                      ? stream.newest().timestamp_ms - next->timestamp_ms
                      : 0;
    skip.frames = position - reader.next;
    if (reader.next < stream.oldest()) {
        skip.overwritten = std::min(position, stream.oldest()) - reader.next;
    }
    reader.next = position;
    return skip;
}

/// The audio position paired with a video reader: the first audio frame not older than the
/// video reader's next frame, or, with none, than anything it got; with no video at all the
/// audio stream's own catch-up point.
uint64_t audio_beside(const Reader &video, const ring::Stream &audio) {
    const ring::Stream &video_stream = stream_for(video.stream);
    if (const ring::Frame *next = peek(video)) {
        return audio.first_not_older(next->timestamp_ms);
    }
    if (!video_stream.empty()) {
        return audio.first_not_older(video_stream.newest().timestamp_ms + 1);
    }
    return audio.catch_up_point();
}

/// Counts one jump (a pair's moves together) and logs it in one line; nothing when no frame
/// was passed over.
void report_jump(const Reader &lead, const Skip &lead_skip, const Reader *audio,
                 const Skip &audio_skip) {
    const uint64_t frames = lead_skip.frames + audio_skip.frames;
    if (frames == 0) {
        return;
    }
    const uint64_t overwritten = lead_skip.overwritten + audio_skip.overwritten;
    internal::count_catch_up(frames, overwritten);
    const Reader &moved = lead_skip.frames > 0 ? lead : *audio;
    const ring::Frame *at = peek(moved);
    internal::log_error(
        "ring buffer: reader %lu on stream %d fell %llu ms behind; moved to %llu "
        "ms, %llu frame(s) skipped (%llu audio, %llu overwritten)",
        static_cast<unsigned long>(moved.handle), static_cast<int>(moved.stream),
        static_cast<unsigned long long>(std::max(lead_skip.lag_ms, audio_skip.lag_ms)),
        static_cast<unsigned long long>(at != nullptr ? at->timestamp_ms : 0),
        static_cast<unsigned long long>(frames),
        static_cast<unsigned long long>(audio != nullptr ? audio_skip.frames : 0),
        static_cast<unsigned long long>(overwritten));
}

/// Catches up a reader (and the audio reader read beside it, if any) before a get call; true
/// when either moved, so that a retry hands out the frame at the new place.
bool catch_up(Reader *lead, Reader *audio) {
    Skip lead_skip;
    Skip audio_skip;
    if (lead != nullptr && must_catch_up(*lead)) {
        lead_skip = move_forward(*lead, stream_for(lead->stream).catch_up_point());
        if (audio != nullptr) {
            // Aligned to the key frame the lead now stands on, whether or not it lagged itself.
            audio_skip = move_forward(*audio, audio_beside(*lead, stream_for(audio->stream)));
        }
    } else if (audio != nullptr && must_catch_up(*audio)) {
        const ring::Stream &audio_stream = stream_for(audio->stream);
        audio_skip = move_forward(*audio, lead != nullptr ? audio_beside(*lead, audio_stream)
                                                          : audio_stream.catch_up_point());
    }
    report_jump(lead != nullptr ? *lead : *audio, lead_skip, audio, audio_skip);
    return lead_skip.frames > 0 || audio_skip.frames > 0;
}

/// A fresh record for the frame, owned by the reader; the previous one is freed, so a caller
/// holding on to it past the next get shows up under the address sanitizer.
vexo_ring_buffer_frame_t *hand_out(Reader &reader, ring::FramePtr frame) {
    auto record = std::make_unique<vexo_ring_buffer_frame_t>();
    record->type = frame->type;
    record->data = frame->bytes.get();
    record->size = frame->size;
    record->seq = frame->seq;
    record->pts = frame->pts;
    record->timestamp = frame->timestamp_ms;
    reader.record = std::move(record);
    reader.last = std::move(frame);
    reader.last_tick = ++g_tick;
    return reader.record.get();
}

/// Hands out the reader's next frame and moves its cursor on; null when caught up. The
/// cursor is never behind the oldest frame here: catch_up ran first.
vexo_ring_buffer_frame_t *take_next(Reader &reader) {
    ring::Stream &stream = stream_for(reader.stream);
    if (reader.next >= stream.live_end()) {
        return nullptr;
    }
    ring::FramePtr frame = stream.at(reader.next);
    ++reader.next;
    return hand_out(reader, std::move(frame));
}

/// Hands out again the frame the reader got last; null when it got none yet.
vexo_ring_buffer_frame_t *repeat_last(Reader &reader) {
    if (!reader.last) {
        return nullptr;
    }
    return hand_out(reader, reader.last);
}

/// A copy of a pushed frame, or null (with the reason logged) when it cannot be taken.
std::unique_ptr<ring::Frame> copy_frame(int32_t stream, uint32_t type, const uint8_t *data,
                                        uint32_t size, uint64_t pts, uint64_t timestamp_ms) {
    if (!valid_stream(stream)) {
        internal::log_error("ring_push: no stream %d (streams are 0..%d)", static_cast<int>(stream),
                            static_cast<int>(kStreamCount - 1));
        return nullptr;
    }
    if (data == nullptr && size > 0) {
        internal::log_error("ring_push: stream %d: null data of %u bytes", static_cast<int>(stream),
                            size);
        return nullptr;
    }
    if (uint64_t{size} + ring::kFrameOverhead > ring::kMaxStreamBytes) {
        internal::log_error("ring_push: stream %d: frame of %u bytes is larger than a ring",
                            static_cast<int>(stream), size);
        return nullptr;
    }
    auto frame = std::make_unique<ring::Frame>();
    frame->type = type;
    frame->pts = pts;
    frame->timestamp_ms = timestamp_ms;
    frame->size = size;
    frame->bytes = std::make_unique<uint8_t[]>(size == 0 ? 1 : size);
    if (size > 0) {
        std::memcpy(frame->bytes.get(), data, size);
    }
    return frame;
}

} // namespace

namespace internal {

void ring_reset(const Options &options) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (!g_readers.empty()) {
        log_debug("ring buffer reset with %zu reader(s) still open; their handles are void",
                  g_readers.size());
    }
    g_readers.clear();
    g_streams.clear();
    g_span_ms = uint64_t{options.ring_seconds} * 1000;
    g_lag_limit_ms = options.ring_delay_ms != 0 ? options.ring_delay_ms
                                                : ring::default_lag_limit_ms(options.ring_seconds);
}

} // namespace internal

void ring_declare(int32_t stream, int32_t max_frame_size) {
    if (!valid_stream(stream)) {
        internal::log_error("ring_declare: no stream %d (streams are 0..%d)",
                            static_cast<int>(stream), static_cast<int>(kStreamCount - 1));
        return;
    }
    if (max_frame_size == 0 || max_frame_size < -1) {
        internal::log_error("ring_declare: stream %d: max frame size %d taken as unknown",
                            static_cast<int>(stream), static_cast<int>(max_frame_size));
        max_frame_size = -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    ring::Stream &s = stream_for(stream);
    s.declared = true;
    s.max_frame_size = max_frame_size;
}

void ring_push(int32_t stream, uint32_t type, const uint8_t *data, uint32_t size, uint64_t pts,
               uint64_t timestamp_ms) {
    std::unique_ptr<ring::Frame> frame = copy_frame(stream, type, data, size, pts, timestamp_ms);
    if (!frame) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        ring::Stream &s = stream_for(stream);
        // The module sizes its buffers by the declared size: a larger frame would not fit.
        if (s.max_frame_size > 0 && size > static_cast<uint32_t>(s.max_frame_size)) {
            internal::log_error("ring_push: stream %d: frame of %u bytes above the declared %d",
                                static_cast<int>(stream), size, static_cast<int>(s.max_frame_size));
            return;
        }
        s.push(std::move(frame));
    }
    internal::count_frame_pushed();
}

} // namespace hostkit

using hostkit::g_mu;
using hostkit::Reader;

extern "C" {

vexo_ring_buffer_user_t vexo_ipc_ring_buffer_open(int32_t device, int32_t channel, int32_t stream,
                                                  int32_t user_kind) {
    static_cast<void>(user_kind);
    std::lock_guard<std::mutex> lock(g_mu);
    if (!hostkit::valid_source(device, channel, stream, "ring_buffer_open")) {
        return nullptr;
    }
    // A stream nobody has declared yet still gets readers: the camera may start later.
    Reader reader;
    const uintptr_t handle = hostkit::g_next_handle++;
    reader.handle = handle;
    reader.stream = stream;
    reader.next = hostkit::stream_for(stream).live_end();
    hostkit::g_readers.emplace(handle, std::move(reader));
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an opaque handle, never dereferenced
    return reinterpret_cast<vexo_ring_buffer_user_t>(handle);
}

vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_frame(vexo_ring_buffer_user_t user,
                                                         int32_t retry) {
    std::lock_guard<std::mutex> lock(g_mu);
    Reader *reader = hostkit::find_reader(user, "ring_buffer_get_frame");
    if (reader == nullptr) {
        return nullptr;
    }
    const bool moved = hostkit::catch_up(reader, nullptr);
    return retry != 0 && !moved ? hostkit::repeat_last(*reader) : hostkit::take_next(*reader);
}

vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_av_frame(vexo_ring_buffer_user_t video,
                                                            vexo_ring_buffer_user_t audio,
                                                            int32_t retry) {
    std::lock_guard<std::mutex> lock(g_mu);
    // Either handle may be null: that side has no stream (a camera without audio).
    Reader *rv =
        video != nullptr ? hostkit::find_reader(video, "ring_buffer_get_av_frame") : nullptr;
    Reader *ra =
        audio != nullptr ? hostkit::find_reader(audio, "ring_buffer_get_av_frame") : nullptr;
    if ((video != nullptr && rv == nullptr) || (audio != nullptr && ra == nullptr) ||
        (rv == nullptr && ra == nullptr)) {
        return nullptr;
    }
    // A lone audio reader catches up as a lead; beside video it follows the video reader.
    const bool moved = rv != nullptr ? hostkit::catch_up(rv, ra) : hostkit::catch_up(ra, nullptr);
    if (retry != 0 && !moved) {
        // The pair handed out last whichever of the two got a frame more recently.
        const uint64_t tv = rv != nullptr && rv->last ? rv->last_tick : 0;
        const uint64_t ta = ra != nullptr && ra->last ? ra->last_tick : 0;
        if (tv == 0 && ta == 0) {
            return nullptr;
        }
        return hostkit::repeat_last(tv > ta ? *rv : *ra);
    }
    const hostkit::ring::Frame *fv = rv != nullptr ? hostkit::peek(*rv) : nullptr;
    const hostkit::ring::Frame *fa = ra != nullptr ? hostkit::peek(*ra) : nullptr;
    if (fv != nullptr && (fa == nullptr || fv->timestamp_ms <= fa->timestamp_ms)) {
        return hostkit::take_next(*rv);
    }
    return fa != nullptr ? hostkit::take_next(*ra) : nullptr;
}

int32_t vexo_ipc_ring_buffer_anchor_user(vexo_ring_buffer_user_t user, uint32_t frames_back,
                                         int32_t to_key_frame) {
    std::lock_guard<std::mutex> lock(g_mu);
    Reader *reader = hostkit::find_reader(user, "ring_buffer_anchor_user");
    if (reader == nullptr) {
        return -1;
    }
    hostkit::ring::Stream &stream = hostkit::stream_for(reader->stream);
    if (stream.empty()) {
        return -1;
    }
    const uint64_t held = stream.live_end() - stream.oldest();
    uint64_t position = frames_back >= held ? stream.oldest() : stream.live_end() - frames_back;
    if (to_key_frame != 0) {
        std::optional<uint64_t> key = stream.key_frame_near(position);
        if (!key) {
            return -1;
        }
        position = *key;
    }
    // Positioned here: a catch-up that if_delay made due no longer applies.
    reader->next = position;
    reader->jump_due = false;
    return 0;
}

int32_t vexo_ipc_ring_buffer_sync_stream(vexo_ring_buffer_user_t video,
                                         vexo_ring_buffer_user_t audio) {
    std::lock_guard<std::mutex> lock(g_mu);
    Reader *rv = hostkit::find_reader(video, "ring_buffer_sync_stream");
    Reader *ra = hostkit::find_reader(audio, "ring_buffer_sync_stream");
    if (rv == nullptr || ra == nullptr) {
        return -1;
    }
    const hostkit::ring::Frame *fv = hostkit::peek(*rv);
    const hostkit::ring::Stream &audio_stream = hostkit::stream_for(ra->stream);
    ra->next =
        fv != nullptr ? audio_stream.first_not_older(fv->timestamp_ms) : audio_stream.live_end();
    ra->jump_due = false;
    return 0;
}

int32_t vexo_ipc_ring_buffer_if_delay(vexo_ring_buffer_user_t user) {
    std::lock_guard<std::mutex> lock(g_mu);
    Reader *reader = hostkit::find_reader(user, "ring_buffer_if_delay");
    if (reader == nullptr) {
        return -1;
    }
    const hostkit::ring::Stream &stream = hostkit::stream_for(reader->stream);
    // A next frame the ring overwrote is further behind than anything still held.
    bool behind = reader->next < stream.oldest();
    if (!behind && reader->next < stream.live_end()) {
        const uint64_t next_ms = stream.at(reader->next)->timestamp_ms;
        const uint64_t newest_ms = stream.newest().timestamp_ms;
        behind = newest_ms > next_ms && newest_ms - next_ms > hostkit::g_lag_limit_ms;
    }
    if (behind) {
        reader->jump_due = true;
    }
    return behind ? 1 : 0;
}

int32_t vexo_ipc_ring_buffer_close(vexo_ring_buffer_user_t user) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (hostkit::find_reader(user, "ring_buffer_close") == nullptr) {
        return -1;
    }
    hostkit::g_readers.erase(reinterpret_cast<uintptr_t>(user));
    return 0;
}

uint64_t vexo_ipc_ring_buffer_get_lastest_timestamp(int32_t device, int32_t channel,
                                                    int32_t stream) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (!hostkit::valid_source(device, channel, stream, "ring_buffer_get_lastest_timestamp")) {
        return 0;
    }
    const hostkit::ring::Stream *s = hostkit::find_stream(stream);
    return s == nullptr || s->empty() ? 0 : s->newest().timestamp_ms;
}

int32_t vexo_ipc_ring_buffer_get_max_frame_size(int32_t device, int32_t channel, int32_t stream) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (!hostkit::valid_source(device, channel, stream, "ring_buffer_get_max_frame_size")) {
        return -1;
    }
    const hostkit::ring::Stream *s = hostkit::find_stream(stream);
    return s == nullptr ? -1 : s->max_frame_size;
}

int32_t vexo_ipc_ring_buffer_get_max_buf_secs(int32_t device, int32_t channel, int32_t stream) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (!hostkit::valid_source(device, channel, stream, "ring_buffer_get_max_buf_secs")) {
        return -1;
    }
    const hostkit::ring::Stream *s = hostkit::find_stream(stream);
    return s != nullptr && s->declared ? static_cast<int32_t>(hostkit::g_span_ms / 1000) : -1;
}

} // extern "C"
