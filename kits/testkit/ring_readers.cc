// The test kit's ring-buffer readers: opening and closing them, handing out frames, and
// the catch-up of a reader that fell behind.
//
// A reader that falls behind is caught up by the kit: once if_delay answered non-zero for it,
// or once the ring dropped its next frame, its next get call first moves it to the newest key
// frame held (and, in get_av_frame, the audio reader to the first audio frame not older than
// that key frame); anchor_user in between positions it instead. Each jump is recorded.
#include <algorithm>
#include <cstring>
#include <memory>

#include "kit_internal.h"
#include "ring_state.h"

namespace {

using namespace tk::ring;

/// The copy a reader holds of the frame it was handed last; both parts are fresh allocations
/// each time, so a stale pointer in the caller shows up under the address sanitizer.
struct Hold {
    std::unique_ptr<vexo_ring_buffer_frame_t> record;
    std::unique_ptr<uint8_t[]> data;
};

struct Reader {
    int32_t stream = 0;
    int32_t kind = 0;
    uint64_t next = 0;
    bool jump_due = false; // if_delay answered non-zero: the next get catches up first
    bool has_last = false;
    Frame last;
    Hold hold;
    int av_last = -1; // on a video reader: which of the pair get_av_frame handed out last
};

std::map<const void *, std::unique_ptr<Reader>> g_readers;
std::optional<uint64_t> g_delay_threshold_ms;
std::vector<tk::ReaderJump> g_jumps;
uint32_t g_force_delay = 0;
int32_t g_max_frame_size = -1;
int32_t g_max_buf_secs = 10;

Reader *find_reader(const void *user, const char *what) {
    if (user == nullptr) {
        return nullptr;
    }
    auto it = g_readers.find(user);
    if (it == g_readers.end()) {
        tk::detail::record_misuse("ring", std::string(what) + " with an unknown or closed reader");
        return nullptr;
    }
    return it->second.get();
}

/// The frame the reader gets next (the oldest held when the ring dropped that one), or null
/// when it is at the live end.
const Frame *peek(const Reader &r) {
    Stream &s = g_streams[r.stream];
    uint64_t pos = std::max(r.next, s.base);
    if (pos >= s.live_end()) {
        return nullptr;
    }
    return &s.ring[pos - s.base];
}

/// The newest key frame held (audio frames each stand alone), else the live end.
uint64_t catch_up_point(const Stream &s) {
    for (uint64_t i = s.ring.size(); i-- > 0;) {
        if (s.ring[i].type == VEXO_FRAME_I || s.ring[i].type == VEXO_FRAME_AUDIO) {
            return s.base + i;
        }
    }
    return s.live_end();
}

/// The first position whose frame is not older than ts; the live end when none.
uint64_t first_not_older(const Stream &s, uint64_t ts) {
    for (uint64_t i = 0; i < s.ring.size(); ++i) {
        if (s.ring[i].timestamp >= ts) {
            return s.base + i;
        }
    }
    return s.live_end();
}

bool must_catch_up(const Reader &r) {
    return r.jump_due || r.next < g_streams[r.stream].base;
}

/// The lag beyond which if_delay reports a reader: the threshold a test set, else half a
/// second short of what the stream holds (half of it below two seconds), as the host kit.
uint64_t lag_limit_ms(const Stream &s) {
    if (g_delay_threshold_ms) {
        return *g_delay_threshold_ms;
    }
    return s.capacity_ms >= 2000 ? s.capacity_ms - 500 : s.capacity_ms / 2;
}

/// Moves a reader forward (never back) to pos; the frames passed over.
uint64_t move_forward(Reader &r, uint64_t pos) {
    r.jump_due = false;
    if (pos <= r.next) {
        return 0;
    }
    uint64_t skipped = pos - r.next;
    r.next = pos;
    return skipped;
}

/// Audio position beside a video reader: first audio frame not older than the video's next
/// frame (than anything it got when it is at the live end).
uint64_t audio_beside(const Reader &video, const Stream &audio) {
    const Stream &vs = g_streams[video.stream];
    if (const Frame *f = peek(video)) {
        return first_not_older(audio, f->timestamp);
    }
    return vs.ring.empty() ? catch_up_point(audio)
                           : first_not_older(audio, vs.ring.back().timestamp + 1);
}

/// Catches up a reader (and the audio reader beside it) before a get; true when one moved.
bool catch_up(Reader &lead, Reader *audio) {
    tk::ReaderJump jump;
    jump.stream = lead.stream;
    if (must_catch_up(lead)) {
        const Stream &s = g_streams[lead.stream];
        const Frame *f = peek(lead);
        jump.lag_ms = f != nullptr ? s.ring.back().timestamp - f->timestamp : 0;
        jump.overwritten = lead.next < s.base ? s.base - lead.next : 0;
        jump.skipped = move_forward(lead, catch_up_point(s));
        if (audio != nullptr) {
            const Stream &as = g_streams[audio->stream];
            jump.overwritten += audio->next < as.base ? as.base - audio->next : 0;
            jump.audio_skipped = move_forward(*audio, audio_beside(lead, as));
        }
    } else if (audio != nullptr && must_catch_up(*audio)) {
        const Stream &as = g_streams[audio->stream];
        jump.stream = audio->stream;
        const Frame *f = peek(*audio);
        jump.lag_ms = f != nullptr ? as.ring.back().timestamp - f->timestamp : 0;
        jump.overwritten = audio->next < as.base ? as.base - audio->next : 0;
        jump.audio_skipped = move_forward(*audio, audio_beside(lead, as));
    }
    if (jump.skipped + jump.audio_skipped == 0) {
        return false;
    }
    jump.overwritten = std::min(jump.overwritten, jump.skipped + jump.audio_skipped);
    jump.at_ms = tk::now_ms();
    g_jumps.push_back(jump);
    return true;
}

vexo_ring_buffer_frame_t *hand_out(Reader &r, const Frame &f) {
    uint32_t size = static_cast<uint32_t>(f.data->size());
    r.hold.data = std::make_unique<uint8_t[]>(size == 0 ? 1 : size);
    if (size > 0) {
        std::memcpy(r.hold.data.get(), f.data->data(), size);
    }
    r.hold.record = std::make_unique<vexo_ring_buffer_frame_t>();
    vexo_ring_buffer_frame_t *rec = r.hold.record.get();
    rec->type = f.type;
    rec->data = r.hold.data.get();
    rec->size = size;
    rec->seq = f.seq;
    rec->pts = f.pts;
    rec->timestamp = f.timestamp;
    if (&r.last != &f) {
        r.last = f;
    }
    r.has_last = true;
    return rec;
}

} // namespace

namespace tk::detail {

void reset_ring_buffer() {
    std::lock_guard<std::mutex> lock(g_mu);
    reset_streams();
    g_readers.clear();
    g_delay_threshold_ms.reset();
    g_jumps.clear();
    g_force_delay = 0;
    g_max_frame_size = -1;
    g_max_buf_secs = 10;
}

} // namespace tk::detail

namespace tk {

void fail_open(int32_t stream, uint32_t times) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_streams[stream].open_failures += times;
}

void set_delay_threshold_ms(uint64_t ms) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_delay_threshold_ms = ms;
}

std::vector<ReaderJump> reader_jumps() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_jumps;
}

void force_delay(uint32_t times) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_force_delay += times;
}

void set_max_frame_size(int32_t bytes) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_max_frame_size = bytes;
}

void set_max_buf_secs(int32_t secs) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_max_buf_secs = secs;
}

size_t open_reader_count() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_readers.size();
}

} // namespace tk

extern "C" {

vexo_ring_buffer_user_t vexo_ipc_ring_buffer_open(int32_t device, int32_t channel, int32_t stream,
                                                  int32_t user_kind) {
    static_cast<void>(device);
    static_cast<void>(channel);
    if (tk::detail::enter("vexo_ipc_ring_buffer_open")) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    Stream &s = g_streams[stream];
    if (s.open_failures > 0) {
        --s.open_failures;
        return nullptr;
    }
    materialise();
    auto r = std::make_unique<Reader>();
    r->stream = stream;
    r->kind = user_kind;
    r->next = s.live_end();
    void *handle = r.get();
    g_readers[handle] = std::move(r);
    return handle;
}

vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_frame(vexo_ring_buffer_user_t user,
                                                         int32_t retry) {
    tk::detail::count("vexo_ipc_ring_buffer_get_frame");
    if (tk::detail::fault(tk::Fallible::ring_get)) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    Reader *r = find_reader(user, "get_frame");
    if (r == nullptr) {
        return nullptr;
    }
    r->hold = Hold();
    const bool moved = catch_up(*r, nullptr);
    if (retry != 0 && r->has_last && !moved) {
        return hand_out(*r, r->last);
    }
    const Frame *f = peek(*r);
    if (f == nullptr) {
        return nullptr;
    }
    ++r->next;
    return hand_out(*r, *f);
}

vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_av_frame(vexo_ring_buffer_user_t video,
                                                            vexo_ring_buffer_user_t audio,
                                                            int32_t retry) {
    tk::detail::count("vexo_ipc_ring_buffer_get_av_frame");
    if (tk::detail::fault(tk::Fallible::ring_get)) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    Reader *rv = find_reader(video, "get_av_frame (video)");
    if (rv == nullptr) {
        return nullptr;
    }
    Reader *ra = find_reader(audio, "get_av_frame (audio)");
    rv->hold = Hold();
    if (ra != nullptr) {
        ra->hold = Hold();
    }
    const bool moved = catch_up(*rv, ra);
    if (retry != 0 && rv->av_last >= 0 && !moved) {
        Reader *src = rv->av_last == 1 && ra != nullptr ? ra : rv;
        if (src->has_last) {
            return hand_out(*src, src->last);
        }
    }
    const Frame *fv = peek(*rv);
    const Frame *fa = ra != nullptr ? peek(*ra) : nullptr;
    if (fv != nullptr && (fa == nullptr || fv->timestamp <= fa->timestamp)) {
        ++rv->next;
        rv->av_last = 0;
        return hand_out(*rv, *fv);
    }
    if (fa != nullptr) {
        ++ra->next;
        rv->av_last = 1;
        return hand_out(*ra, *fa);
    }
    return nullptr;
}

int32_t vexo_ipc_ring_buffer_anchor_user(vexo_ring_buffer_user_t user, uint32_t frames_back,
                                         int32_t to_key_frame) {
    if (auto scripted = tk::detail::enter("vexo_ipc_ring_buffer_anchor_user")) {
        return *scripted;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    Reader *r = find_reader(user, "anchor_user");
    if (r == nullptr) {
        return -1;
    }
    Stream &s = g_streams[r->stream];
    if (s.ring.empty()) {
        return -1;
    }
    uint64_t size = s.ring.size();
    uint64_t pos = frames_back >= size ? s.base : s.live_end() - frames_back;
    if (to_key_frame != 0) {
        uint64_t from = std::min(pos, s.live_end() - 1) - s.base;
        bool found = false;
        for (uint64_t i = from + 1; i-- > 0;) {
            if (s.ring[i].type == VEXO_FRAME_I) {
                pos = s.base + i;
                found = true;
                break;
            }
        }
        for (uint64_t i = from + 1; !found && i < size; ++i) {
            if (s.ring[i].type == VEXO_FRAME_I) {
                pos = s.base + i;
                found = true;
            }
        }
        if (!found) {
            return -1;
        }
    }
    r->next = pos;
    r->jump_due = false;
    return 0;
}

int32_t vexo_ipc_ring_buffer_sync_stream(vexo_ring_buffer_user_t video,
                                         vexo_ring_buffer_user_t audio) {
    if (auto scripted = tk::detail::enter("vexo_ipc_ring_buffer_sync_stream")) {
        return *scripted;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    Reader *rv = find_reader(video, "sync_stream (video)");
    Reader *ra = find_reader(audio, "sync_stream (audio)");
    if (rv == nullptr || ra == nullptr) {
        return -1;
    }
    const Stream &sa = g_streams[ra->stream];
    const Frame *fv = peek(*rv);
    ra->next = fv != nullptr ? first_not_older(sa, fv->timestamp) : sa.live_end();
    ra->jump_due = false;
    return 0;
}

int32_t vexo_ipc_ring_buffer_if_delay(vexo_ring_buffer_user_t user) {
    if (auto scripted = tk::detail::enter("vexo_ipc_ring_buffer_if_delay")) {
        return *scripted;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    Reader *r = find_reader(user, "if_delay");
    bool behind = false;
    if (g_force_delay > 0) {
        --g_force_delay;
        behind = true;
    } else if (r != nullptr) {
        const Stream &s = g_streams[r->stream];
        behind = r->next < s.base; // its next frame was dropped: further back than any held
        if (!behind && r->next < s.live_end()) {
            behind = s.ring[r->next - s.base].timestamp + lag_limit_ms(s) < s.ring.back().timestamp;
        }
    }
    if (behind && r != nullptr) {
        r->jump_due = true;
    }
    return behind ? 1 : 0;
}

int32_t vexo_ipc_ring_buffer_close(vexo_ring_buffer_user_t user) {
    if (auto scripted = tk::detail::enter("vexo_ipc_ring_buffer_close")) {
        return *scripted;
    }
    if (user == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    if (g_readers.erase(user) == 0) {
        tk::detail::record_misuse("ring", "close of an unknown or closed reader");
        return -1;
    }
    return 0;
}

uint64_t vexo_ipc_ring_buffer_get_lastest_timestamp(int32_t device, int32_t channel,
                                                    int32_t stream) {
    static_cast<void>(device);
    static_cast<void>(channel);
    tk::detail::count("vexo_ipc_ring_buffer_get_lastest_timestamp");
    std::lock_guard<std::mutex> lock(g_mu);
    materialise();
    const Stream &s = g_streams[stream];
    return s.ring.empty() ? 0 : s.ring.back().timestamp;
}

int32_t vexo_ipc_ring_buffer_get_max_frame_size(int32_t device, int32_t channel, int32_t stream) {
    static_cast<void>(device);
    static_cast<void>(channel);
    static_cast<void>(stream);
    tk::detail::count("vexo_ipc_ring_buffer_get_max_frame_size");
    std::lock_guard<std::mutex> lock(g_mu);
    return g_max_frame_size;
}

int32_t vexo_ipc_ring_buffer_get_max_buf_secs(int32_t device, int32_t channel, int32_t stream) {
    static_cast<void>(device);
    static_cast<void>(channel);
    static_cast<void>(stream);
    tk::detail::count("vexo_ipc_ring_buffer_get_max_buf_secs");
    std::lock_guard<std::mutex> lock(g_mu);
    return g_max_buf_secs;
}

} // extern "C"
