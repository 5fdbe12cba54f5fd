/// How listings show recordings: the closed / open / left-open rule, and the texts of sizes
/// and gaps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "service/core/recording_listing.h"

namespace {

using vexo_cloud::Recording;
using vexo_cloud::RecordingStatus;

constexpr uint32_t kStart = 1710072000;

Recording make(uint32_t start, uint32_t end, int32_t mtu, std::vector<std::string> files,
               const std::string &device = "cam1") {
    Recording r;
    r.device = device;
    r.start_time = start;
    r.end_time = end;
    r.mtu = mtu;
    for (const std::string &name : files) {
        r.files.push_back(vexo_cloud::MediaFileInfo{name, 10});
    }
    return r;
}

TEST(RecordingStatusTest, ARecordingWithoutAnEndIsLeftOpenOnceClearlyOver) {
    const std::string first = std::to_string(kStart) + "_0000.media";
    const std::string at_100 = std::to_string(kStart) + "_0100.media";
    const struct {
        const char *what;
        Recording recording;
        bool later;
        uint32_t now;
        RecordingStatus expected;
    } cases[] = {
        {"closed", make(kStart, kStart + 30, 10, {first}), false, kStart + 99999,
         RecordingStatus::kClosed},
        {"closed, a later one exists", make(kStart, kStart + 30, 10, {}), true, kStart + 1,
         RecordingStatus::kClosed},
        {"just started, no file", make(kStart, 0, 10, {}), false, kStart + 5,
         RecordingStatus::kOpen},
        {"start 3 slices + 60 s ago", make(kStart, 0, 10, {}), false, kStart + 90,
         RecordingStatus::kOpen},
        {"start 3 slices + 61 s ago", make(kStart, 0, 10, {}), false, kStart + 91,
         RecordingStatus::kLeftOpen},
        {"newest file recent", make(kStart, 0, 10, {first, at_100}), false, kStart + 190,
         RecordingStatus::kOpen},
        {"newest file too old", make(kStart, 0, 10, {at_100, first}), false, kStart + 191,
         RecordingStatus::kLeftOpen},
        {"a later recording, however fresh", make(kStart, 0, 10, {first}), true, kStart,
         RecordingStatus::kLeftOpen},
        {"clock behind the device", make(kStart, 0, 10, {}), false, kStart - 500,
         RecordingStatus::kOpen},
        {"no slice length: the margin alone", make(kStart, 0, 0, {}), false, kStart + 61,
         RecordingStatus::kLeftOpen},
        {"negative slice length", make(kStart, 0, -50, {}), false, kStart + 60,
         RecordingStatus::kOpen},
        {"a file that is no media file", make(kStart, 0, 10, {"notes_9999.txt"}), false,
         kStart + 91, RecordingStatus::kLeftOpen},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(vexo_cloud::recording_status(c.recording, c.later, c.now), c.expected);
    }
}

TEST(RecordingStatusTest, ALaterRecordingCountsOnlyForItsOwnDevice) {
    const std::vector<Recording> list = {
        make(kStart + 100, 0, 10, {}, "cam1"), make(kStart, 0, 10, {}, "cam1"),
        make(kStart + 50, 0, 10, {}, "cam2"), make(kStart + 10, kStart + 20, 10, {}, "cam2")};
    const std::vector<RecordingStatus> statuses = vexo_cloud::recording_statuses(list, kStart + 60);
    EXPECT_EQ(statuses,
              (std::vector<RecordingStatus>{RecordingStatus::kOpen, RecordingStatus::kLeftOpen,
                                            RecordingStatus::kOpen, RecordingStatus::kClosed}));
    EXPECT_STREQ(vexo_cloud::recording_status_text(RecordingStatus::kLeftOpen),
                 "left open by the camera");
}

TEST(ListingTextTest, SizesAndGaps) {
    const std::pair<uint64_t, const char *> sizes[] = {
        {0, "0 bytes"},     {1, "1 byte"},          {999, "999 bytes"},
        {1000, "1.0 kB"},   {1234567, "1.2 MB"},    {999949, "999.9 kB"},
        {999950, "1.0 MB"}, {5000000000, "5.0 GB"}, {UINT64_MAX, "18.4 EB"}};
    for (const auto &[bytes, text] : sizes) {
        EXPECT_EQ(vexo_cloud::byte_size_text(bytes), text) << bytes;
    }
    // Times are local: pin the zone for the test, and put it back.
    const char *zone = std::getenv("TZ");
    const std::string saved = zone != nullptr ? zone : "";
    setenv("TZ", "UTC0", 1);
    tzset();
    vexo_cloud::Gap gap;
    gap.from = kStart;
    gap.to = kStart + 300;
    gap.reason = "spool full";
    gap.bytes = 1234567;
    EXPECT_EQ(vexo_cloud::gap_text(gap),
              "gap  2024-03-10 12:00:00 - 2024-03-10 12:05:00  spool full  1.2 MB dropped");
    EXPECT_EQ(vexo_cloud::duration_text(3723), "1 h 02 min 03 s");
    if (zone != nullptr) {
        setenv("TZ", saved.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

} // namespace
