// Whole-module runs through the exported calls, with the real upload thread on the test kit:
// event recordings with pre-record, all-time recordings, a key handed out by the cloud, a failed
// upload, pause and uninit. The kit's clock moves with the module's own sleeps; the test waits for
// outcomes.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit_fixture.h"
#include "media_file.h"

namespace {

using media_file::Entry;
using Texts = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;
const uint8_t *bytes_of(const std::string &text) {
    return reinterpret_cast<const uint8_t *>(text.data());
}

constexpr char kStartApi[] = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr char kStopApi[] = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr uint32_t kSlice = 4;              // seconds per media file
constexpr uint32_t kEventSecs = 20;         // default event length
constexpr size_t kPreRecordFrames = 2 * 25; // default pre-record time x frame rate
const uint8_t kZeroKey[16] = {};            // no key stored and none handed out
const std::string kKeyText = "StoredKey0123456";
const Bytes kKey(kKeyText.begin(), kKeyText.end());

std::string file_name(uint32_t start, uint32_t elapsed) {
    char name[32];
    std::snprintf(name, sizeof name, "%u_%04u.media", start, elapsed);
    return name;
}

std::string start_body(uint32_t start, const std::string &md5) {
    return "{\"startTime\":" + std::to_string(start) +
           R"(,"payloadInfo":"{\"v\":1,\"vType\":\"2\",\"vFps\":25,\"vWide\":1920,)"
           R"(\"vHigh\":1080,\"aType\":\"103\",\"aSampling\":8000,\"aBitwide\":16,)"
           R"(\"aChannels\":1}","mtu":4,"enKeyMd5":")" +
           md5 + "\"}";
}

std::string stop_body(uint32_t start, uint32_t end) {
    return "{\"startTime\":" + std::to_string(start) + ",\"endTime\":" + std::to_string(end) + "}";
}

Texts bodies(const char *api) {
    Texts out;
    for (const tk::Post &post : tk::posts_of(api)) {
        out.push_back(post.body);
    }
    return out;
}

/// Names of the uploads, at most `limit` of them.
Texts names(const std::vector<tk::Upload> &uploads, size_t limit = SIZE_MAX) {
    Texts out;
    for (size_t i = 0; i < uploads.size() && i < limit; ++i) {
        out.push_back(uploads[i].file_name);
    }
    return out;
}

/// Names of the files of a recording that starts at `start` and holds frames up to the
/// second `last`: a new file at every key frame kSlice seconds after the previous file.
Texts slice_names(uint32_t start, uint32_t last) {
    Texts out;
    for (uint32_t elapsed = 0; start + elapsed <= last; elapsed += kSlice) {
        out.push_back(file_name(start, elapsed));
    }
    return out;
}

/// A small stream for long runs: 5 fps, one key frame per second, tiny frames.
const tk::StreamConfig kSmallStream = {5, 5, 64, 16, true, 200, 16, 10};

class SystemRun : public KitTest {
  protected:
    static void script_cloud(const char *mode, int32_t silence, int32_t count_left) {
        tk::set_default_restriction(0, kEventSecs, kSlice);
        tk::set_default_storage_config(
            0, tk::make_storage_config(mode, kEventSecs, kSlice, silence, count_left));
    }
    /// The thread has applied the whole configuration (have_config is set before the counts).
    static bool wait_config() {
        return wait_until([] { return !tk::seq_entries(74).empty(); });
    }
    static bool wait_posts(const char *api, size_t n, uint32_t real_ms = 10000) {
        return wait_until([&] { return tk::posts_of(api).size() >= n; }, real_ms);
    }
    static bool wait_upload(const std::string &name, uint32_t real_ms = 10000) {
        return wait_until(
            [&] {
                const Texts all = names(tk::uploads());
                return std::count(all.begin(), all.end(), name) != 0;
            },
            real_ms);
    }

    void TearDown() override {
        release_thread();
        KitTest::TearDown();
    }

    /// While armed, the module thread stops at its next call of `entry` (outside the kit's
    /// locks) and stays there until released; thread_held() tells when it got there.
    void hold_thread_at(const char *entry, bool armed = true) {
        hold_ = armed ? 1 : 0;
        tk::set_hook(entry, [this] {
            int expected = 1;
            if (hold_.compare_exchange_strong(expected, 2)) {
                while (hold_.load() == 2) {
                    std::this_thread::yield();
                }
            }
        });
    }
    bool thread_held() const { return hold_.load() == 2; }
    void release_thread() { hold_ = 0; }
    void arm_hold() {
        int released = 0;
        hold_.compare_exchange_strong(released, 1);
    }

    /// Stops the clock at post number n (from 0): the state after it stays put to be probed.
    static void freeze_clock_at_post(size_t n) {
        tk::set_hook("iot_httpc_common_post_no_remalloc", [n] {
            if (tk::posts().size() == n) {
                tk::freeze_clock(true);
            }
        });
    }

    /// At every anchoring of the video reader, notes the second of the key frame at or before
    /// the frame pre-record frames back from the live end: where the recording must begin.
    void capture_pre_record_starts() {
        tk::set_hook("vexo_ipc_ring_buffer_anchor_user", [this] {
            std::vector<tk::FrameInfo> ring = tk::ring_frames(VEXO_STREAM_MAIN);
            size_t at = ring.size() > kPreRecordFrames ? ring.size() - kPreRecordFrames : 0;
            while (at > 0 && ring[at].type != VEXO_FRAME_I) {
                --at;
            }
            std::lock_guard<std::mutex> lock(mu_);
            pre_record_starts_.push_back(static_cast<uint32_t>(ring.at(at).timestamp / 1000));
        });
    }
    std::vector<uint32_t> pre_record_starts() {
        std::lock_guard<std::mutex> lock(mu_);
        return pre_record_starts_;
    }

    /// A camera streaming for 6 s, init on the scripted cloud, then one motion event. Returns
    /// the event's start time (its sequence-log entry).
    uint32_t start_motion_event() {
        capture_pre_record_starts();
        tk::start_stream();
        tk::advance(6000);
        EXPECT_EQ(init_default(), 0);
        EXPECT_TRUE(wait_config());
        tk::freeze_clock(true); // the idle thread must not move time on during the call
        EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), 0);
        tk::freeze_clock(false);
        std::vector<tk::SeqEntry> entries = tk::seq_entries(55);
        return entries.empty() ? 0 : static_cast<uint32_t>(entries[0].value);
    }

    /// All-time store mode and the small stream from `start`, where the recording begins.
    /// The thread's configuration fetch waits until init has returned: init resets
    /// upload_status after starting the thread, which would repeat an early start.
    void start_alltime(uint32_t start) {
        script_cloud("alltime", 0, 0);
        tk::set_time(start);
        tk::start_stream(kSmallStream);
        hold_thread_at("cloud_get_storage_config");
        EXPECT_EQ(init_default(), 0);
        release_thread();
    }

    /// Checks the upload arguments and content of every file; returns all entries in order.
    static std::vector<Entry> verify_uploads(const std::vector<tk::Upload> &uploads,
                                             const uint8_t *key) {
        std::vector<Entry> all;
        for (const tk::Upload &up : uploads) {
            EXPECT_EQ(up.scheme + " " + std::to_string(up.flag) + " " + up.content_type,
                      "https 0 media/av");
            std::vector<Entry> entries;
            EXPECT_EQ(media_file::verify(up, key, &entries), "") << up.file_name;
            all.insert(all.end(), entries.begin(), entries.end());
        }
        return all;
    }

    /// The entries are exactly the video and audio frames produced from from_s to to_s
    /// (seconds, inclusive), each stream in order: none lost, none twice.
    static void expect_all_frames(const std::vector<Entry> &entries, uint32_t from_s,
                                  uint32_t to_s) {
        for (int32_t stream : {VEXO_STREAM_MAIN, VEXO_STREAM_AUDIO}) {
            std::vector<uint64_t> got;
            std::vector<uint64_t> want;
            for (const Entry &e : entries) {
                if ((e.type == VEXO_FRAME_AUDIO) == (stream == VEXO_STREAM_AUDIO)) {
                    got.push_back(e.timestamp);
                }
            }
            for (const tk::FrameInfo &f :
                 tk::frames_between(stream, from_s * 1000ull, to_s * 1000ull + 999)) {
                want.push_back(f.timestamp);
            }
            EXPECT_EQ(got, want) << "stream " << stream;
        }
    }

  private:
    std::atomic<int> hold_{0}; // 0 released, 1 armed, 2 holding the module thread
    std::mutex mu_;
    std::vector<uint32_t> pre_record_starts_;
};

TEST_F(SystemRun, MotionEventRecordsPreRecordInEncryptedSlicesThenKeepsSilence) {
    script_cloud("event", 60, 20);
    tk::put_key_record(tk::md5_hex(kKey), 32, kKey, 16);
    freeze_clock_at_post(1); // the stop notification: the silence is probed at that time
    const uint32_t event = start_motion_event();
    ASSERT_TRUE(wait_posts(kStopApi, 1));
    ASSERT_EQ(pre_record_starts().size(), 1u);
    const uint32_t start = pre_record_starts()[0];
    const uint32_t last = event + kEventSecs - 1; // frames up to the event's end time
    EXPECT_GE(event - start, 1u);                 // pre-record of 2 s, back to a key frame
    EXPECT_LE(event - start, 4u);                 // at most one 2 s GOP before that
    EXPECT_EQ(bodies(kStartApi), Texts{start_body(start, tk::md5_hex(kKey))});
    EXPECT_EQ(bodies(kStopApi), Texts{stop_body(start, last)});

    const std::vector<tk::Upload> uploads = tk::uploads();
    const Texts expected = slice_names(start, last);
    EXPECT_EQ(names(uploads), expected);
    const std::vector<Entry> entries = verify_uploads(uploads, bytes_of(kKeyText));
    EXPECT_EQ(entries.at(0).timestamp, start * 1000ull); // the key frame the pre-record began at
    expect_all_frames(entries, start, last);

    // Silence runs from the end of the data uploaded before the finish, for 60 s.
    const uint32_t silence_end =
        start + static_cast<uint32_t>(expected.size() - 1) * kSlice - 1 + 60;
    tk::set_time(silence_end - 1);
    EXPECT_EQ(vexo_ipc_cloud_storage_get_ready(), 0);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), -2000);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage event enter silence time"), 1u);
    tk::set_time(silence_end);
    EXPECT_EQ(vexo_ipc_cloud_storage_get_ready(), 1);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), 0);
    EXPECT_TRUE(wait_posts(kStartApi, 2));
}

TEST_F(SystemRun, KeyFromStartAnswerIsStoredAnnouncedUsedAndCostsTwoEvents) {
    script_cloud("event", 0, 2);
    const std::string key = "fedcba9876543210";
    const std::string md5 = tk::md5_hex(Bytes(key.begin(), key.end()));
    tk::queue_post_answer(kStartApi, 0, "{\"needUpdate\":true,\"encryptKey\":\"" + key + "\"}");
    freeze_clock_at_post(2); // the stop notification: no daily refresh of the quota after it
    const uint32_t event = start_motion_event();
    ASSERT_TRUE(wait_posts(kStopApi, 1));
    ASSERT_EQ(pre_record_starts().size(), 1u);
    const uint32_t start = pre_record_starts()[0];
    EXPECT_EQ(bodies(kStartApi), (Texts{start_body(start, "0000"), start_body(start, md5)}));
    EXPECT_EQ(bodies(kStopApi), Texts{stop_body(start, event + kEventSecs - 1)});
    auto field = [](const char *name) {
        const Bytes v = tk::record_field("md5_encrypt_key", name).value_or(Bytes());
        return std::string(v.begin(), v.end());
    };
    EXPECT_EQ(field("md5_value") + " " + field("encrypt_key_value"), md5 + " " + key);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "md5_len").value_or(0), 32);
    EXPECT_EQ(tk::record_int("md5_encrypt_key", "encrypt_key_len").value_or(0), 16);
    EXPECT_FALSE(verify_uploads(tk::uploads(), bytes_of(key)).empty());
    // Two events of the day's two were taken: the next event is refused.
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "cloud storage event count left - 1: 1"), 1u);
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "cloud storage event count left - 1: 0"), 1u);
    EXPECT_EQ(vexo_ipc_cloud_storage_event_start(), -2000);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "cloud storage event over limits today"), 1u);
}

TEST_F(SystemRun, FailedUploadFinishesRecordingAndEventRestartsWithPreRecord) {
    script_cloud("event", 0, 20);
    tk::queue_result("cloud_put_data_to_file", -1);
    freeze_clock_at_post(3); // the second stop notification
    const uint32_t event = start_motion_event();
    ASSERT_TRUE(wait_posts(kStopApi, 2));
    const std::vector<uint32_t> starts = pre_record_starts();
    ASSERT_EQ(starts.size(), 2u);
    const uint32_t last = event + kEventSecs - 1;
    EXPECT_EQ(bodies(kStartApi),
              (Texts{start_body(starts[0], "0000"), start_body(starts[1], "0000")}));
    // Nothing was uploaded of the first recording: it ends where it began.
    EXPECT_EQ(bodies(kStopApi),
              (Texts{stop_body(starts[0], starts[0]), stop_body(starts[1], last)}));
    std::vector<tk::Upload> uploads = tk::uploads();
    ASSERT_FALSE(uploads.empty());
    EXPECT_EQ(uploads[0].file_name + " " + std::to_string(uploads[0].rc),
              file_name(starts[0], 0) + " -1");
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to upload media file"), 1u);
    uploads.erase(uploads.begin());
    EXPECT_EQ(names(uploads), slice_names(starts[1], last));
    const std::vector<Entry> entries = verify_uploads(uploads, kZeroKey);
    expect_all_frames(entries, starts[1], last);
}

TEST_F(SystemRun, AllTimeRecordingOpenedWhileInitFinishesIsAnnouncedOnce) {
    script_cloud("alltime", 0, 0);
    tk::start_stream(kSmallStream);
    // Init's last steps run only after the thread has opened its first recording.
    tk::set_hook("mqtt_attach",
                 [] { EXPECT_TRUE(wait_until([] { return !tk::posts_of(kStartApi).empty(); })); });
    EXPECT_EQ(init_default(), 0);
    tk::set_hook("mqtt_attach", {});
    ASSERT_TRUE(wait_until([] { return tk::uploads().size() >= 2; }));
    EXPECT_EQ(tk::posts_of(kStartApi).size(), 1u);
}

TEST_F(SystemRun, PauseFinishesRecordingOnceAndResumeStartsTheNext) {
    const uint32_t start = tk::now_ms() / 1000;
    start_alltime(start);
    ASSERT_TRUE(wait_upload(file_name(start, 0)));
    vexo_ipc_cloud_storage_pause();
    ASSERT_TRUE(wait_posts(kStopApi, 1));
    const uint64_t sleeps = tk::calls("vexo_hal_system_sleep");
    ASSERT_TRUE(wait_until([&] { return tk::calls("vexo_hal_system_sleep") >= sleeps + 3; }));
    EXPECT_EQ(tk::posts_of(kStopApi).size(), 1u); // later paused passes finish nothing
    EXPECT_EQ(tk::seq_entries(20).size(), 1u);
    const std::vector<tk::Upload> first = tk::uploads();

    vexo_ipc_cloud_storage_resume();
    ASSERT_TRUE(wait_posts(kStartApi, 2));
    unsigned next = 0;
    ASSERT_EQ(std::sscanf(tk::posts_of(kStartApi)[1].body.c_str(), "{\"startTime\":%u", &next), 1);
    ASSERT_TRUE(wait_upload(file_name(next, 0)));

    uint32_t last = 0; // second of the newest video frame of the first recording
    for (const Entry &e : verify_uploads(first, kZeroKey)) {
        if (e.type != VEXO_FRAME_AUDIO) {
            last = std::max(last, static_cast<uint32_t>(e.timestamp / 1000));
        }
    }
    EXPECT_EQ(bodies(kStartApi), (Texts{start_body(start, "0000"), start_body(next, "0000")}));
    EXPECT_EQ(bodies(kStopApi), Texts{stop_body(start, last)});
    EXPECT_GE(next, last);
    const std::vector<tk::Upload> all = tk::uploads();
    EXPECT_EQ(all.at(first.size()).file_name, file_name(next, 0));
    verify_uploads(all, kZeroKey);
}

TEST_F(SystemRun, UninitWhileRecordingFreesBufferAndEventsWithoutStopNotification) {
    script_cloud("event", 0, 20);
    // The thread stops at its first sleep after the first upload, long before the event's end;
    // uninit comes while it sleeps between passes, and it must leave at its next pass.
    hold_thread_at("vexo_hal_system_sleep", false);
    tk::set_hook("cloud_put_data_to_file", [this] { arm_hold(); });
    start_motion_event();
    ASSERT_TRUE(wait_until([this] { return thread_held(); }));
    EXPECT_EQ(tk::uploads().size(), 1u);
    EXPECT_EQ(vexo_ipc_cloud_storage_get_event_status(0), EVENT_ONGOING);
    vexo_ipc_cloud_storage_uninit();
    release_thread();
    ASSERT_TRUE(tk::wait_threads_exited(10000));
    EXPECT_EQ(vexo_ipc_cloud_storage_get_event_status_by_id(1), EVENT_NONE);
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "free media_buffer"), 1u);
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "force event 0 stop done"), 1u);
    EXPECT_TRUE(tk::posts_of(kStopApi).empty()); // the fixture checks that nothing leaked
}

} // namespace
