// End-to-end runs: the camera simulator plays a clip into the module on the host kit with the
// embedded cloud; the media tool verifies and exports what the cloud stored; ffmpeg decodes
// the exports. Each run checks what reached the cloud against the clip the camera played.
// (Event recordings, remote triggers and a killed camera run against the network cloud in
// tests/integration.)
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "e2e_support.h"

namespace {
using e2e::RecordingContent;

const std::string kCamsim = VEXO_E2E_CAMSIM;
const std::string kMedia = VEXO_E2E_MEDIA;
const std::string kDevice = "e2e-cam";

std::vector<std::string> camsim_args(const std::string &data, const std::string &clip,
                                     std::vector<std::string> extra) {
    std::vector<std::string> argv = {kCamsim,  "--quiet", "--input",  clip,
                                     "--data", data,      "--device", kDevice};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
}

TEST(EndToEnd, AllTimeRecordingSplitsAtLocalMidnightAndTheHalfHour) {
    e2e::TempDir tmp;
    const std::string clip =
        e2e::make_clip(tmp.path(), "clip.mkv", 160, 120, 10, 20, 4, "pcm_mulaw", 100);
    const auto keys = e2e::source_key_frames(tmp.path(), clip);
    const std::set<e2e::NalList> key_set(keys.begin(), keys.end());

    // Local time two hours ahead of UTC; from 23:59 to 00:31 on a fast clock, on the
    // default ring. At 30 times real time the ring's 10 s are a third of a real second: a
    // sanitizer build beside another test keeps up; at 60 a stall of the worker on a busy
    // machine made the kit skip frames now and then.
    const std::vector<std::string> env = {"TZ=XST-2"};
    const std::string data = tmp.path() + "/data";
    const e2e::Result r =
        e2e::run(camsim_args(data, clip,
                             {"--mode", "alltime", "--start", "2026-11-22 23:59:00", "--speed",
                              "30", "--duration", "1920", "--slice", "10"}),
                 env);
    ASSERT_EQ(r.status, 0) << r.out;

    const std::string cloud = data + "/cloud";
    const auto recordings = e2e::read_cloud(cloud, kDevice);
    ASSERT_GE(recordings.size(), 3u) << r.out;
    // 2026-11-23 00:00 and 00:30 local (UTC+2).
    const uint32_t midnight = 1795384800;
    const uint32_t half_past = midnight + 1800;
    auto starts_near = [&](uint32_t t) {
        return std::any_of(recordings.begin(), recordings.end(), [&](const RecordingContent &c) {
            return c.info.start_time >= t && c.info.start_time <= t + 12;
        });
    };
    EXPECT_LT(recordings.front().info.start_time, midnight);
    EXPECT_TRUE(starts_near(midnight)) << "no recording starts at local midnight";
    EXPECT_TRUE(starts_near(half_past)) << "no recording starts at 00:30";
    for (size_t i = 0; i < recordings.size(); ++i) {
        e2e::check_recording(kMedia, kDevice, recordings[i], cloud, key_set, 10, tmp.path(),
                             i + 1 < recordings.size());
    }
}

TEST(EndToEnd, OrderChangeFromEventToAllTimeRecordsOnFromTheNewestKeyFrame) {
    e2e::TempDir tmp;
    const std::string clip =
        e2e::make_clip(tmp.path(), "clip.mkv", 320, 240, 20, 40, 6, "pcm_mulaw", 300);
    const auto keys = e2e::source_key_frames(tmp.path(), clip);
    const std::set<e2e::NalList> key_set(keys.begin(), keys.end());

    // No event in the first 15 s: the worker's reader stays where it was opened while the
    // default 10 s ring runs past it. Then the cloud orders all-time recording.
    const std::vector<std::string> env = {"TZ=UTC"};
    const uint32_t t0 = 1795348800; // 2026-11-22 12:00:00 UTC
    const uint32_t order_at = 15;
    const uint32_t duration = 40;
    const uint32_t slice = 4;
    const std::string data = tmp.path() + "/data";
    const e2e::Result r =
        e2e::run(camsim_args(data, clip,
                             {"--start", "2026-11-22 12:00:00", "--speed", "4", "--duration",
                              std::to_string(duration), "--slice", std::to_string(slice), "--order",
                              std::to_string(order_at) + ":alltime"}),
                 env);
    ASSERT_EQ(r.status, 0) << r.out;
    // The kit moved the reader once and says so, in its log and in the summary.
    EXPECT_NE(r.out.find("ring buffer: reader"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("reader: caught up 1 times"), std::string::npos) << r.out;

    const std::string cloud = data + "/cloud";
    const auto recordings = e2e::read_cloud(cloud, kDevice);
    ASSERT_EQ(recordings.size(), 1u) << "one continuous recording\n" << r.out;
    const RecordingContent &rec = recordings[0];
    // It starts at the newest key frame (every 2 s) the ring held when the order came.
    EXPECT_GE(rec.info.start_time, t0 + order_at - 2);
    EXPECT_LE(rec.info.start_time, t0 + order_at + 1);
    ASSERT_FALSE(rec.entries.empty());
    EXPECT_EQ(rec.entries.front().type, vexo_media::kTypeKey) << "audio is not older";

    // No video frame is missing from there on (checked inside), and it runs to the end of
    // the run but for the slice still open at uninit.
    e2e::check_recording(kMedia, kDevice, rec, cloud, key_set, 20, tmp.path(), false);
    uint64_t last_video_ms = 0;
    std::vector<uint64_t> audio_ms;
    for (const vexo_media::Entry &e : rec.entries) {
        if (e.type == vexo_media::kTypeAudio) {
            audio_ms.push_back(e.timestamp);
        } else {
            last_video_ms = std::max<uint64_t>(last_video_ms, e.timestamp);
        }
    }
    EXPECT_GE(last_video_ms, (uint64_t{t0} + duration - 2 * slice) * 1000);
    // Nor any audio frame: one frame's length apart (the clip's last one, where it loops, is
    // shorter), never two.
    ASSERT_GE(audio_ms.size(), 3u);
    const uint64_t period = audio_ms[1] - audio_ms[0];
    for (size_t i = 1; i < audio_ms.size(); ++i) {
        const uint64_t step = audio_ms[i] - audio_ms[i - 1];
        EXPECT_TRUE(step > 0 && step <= period + 2)
            << "audio gap of " << step << " ms at " << audio_ms[i];
    }
}

} // namespace
