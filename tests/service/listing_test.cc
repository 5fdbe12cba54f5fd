/// How listings show recordings: the closed / open / left-open rule, and the texts of sizes
/// and gaps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "service/store/recording_listing.h"

namespace {

using vexo_cloud::Recording;
using vexo_cloud::RecordingStatus;

constexpr uint32_t kStart = 1710072000;
constexpr RecordingStatus kClosed = RecordingStatus::kClosed;
constexpr RecordingStatus kOpen = RecordingStatus::kOpen;
constexpr RecordingStatus kLeftOpen = RecordingStatus::kLeftOpen;

Recording make(uint32_t end, int32_t mtu, const std::vector<std::string> &elapsed,
               const std::string &device = "cam1", uint32_t start = kStart) {
    Recording r;
    r.device = device;
    r.start_time = start;
    r.end_time = end;
    r.mtu = mtu;
    for (const std::string &e : elapsed) {
        r.files.push_back({std::to_string(start) + "_" + e + ".media", 10});
    }
    return r;
}

TEST(RecordingStatusTest, ARecordingWithoutAnEndIsLeftOpenOnceClearlyOver) {
    const struct {
        const char *what;
        Recording recording;
        bool later;
        uint32_t age; // seconds from kStart to now
        RecordingStatus expected;
    } cases[] = {
        {"closed", make(kStart + 30, 10, {"0000"}), false, 99999, kClosed},
        {"closed, a later one exists", make(kStart + 30, 10, {}), true, 1, kClosed},
        {"just started, no file", make(0, 10, {}), false, 5, kOpen},
        {"start 3 slices + 60 s ago", make(0, 10, {}), false, 90, kOpen},
        {"start 3 slices + 61 s ago", make(0, 10, {}), false, 91, kLeftOpen},
        {"newest file recent enough", make(0, 10, {"0100", "0000"}), false, 190, kOpen},
        {"newest file too old", make(0, 10, {"0100", "0000"}), false, 191, kLeftOpen},
        {"a later recording, however fresh", make(0, 10, {"0000"}), true, 0, kLeftOpen},
        {"no slice length: the margin alone", make(0, 0, {}), false, 61, kLeftOpen},
        {"negative slice length", make(0, -50, {}), false, 60, kOpen},
        {"a name that is no media file", make(0, 10, {"x"}), false, 91, kLeftOpen},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(vexo_cloud::recording_status(c.recording, c.later, kStart + c.age), c.expected)
            << c.what;
    }
    EXPECT_EQ(vexo_cloud::recording_status(make(0, 10, {}), false, kStart - 500), kOpen)
        << "a service clock behind the device's";
    // Only a later recording of the same device closes one.
    const std::vector<Recording> list = {make(0, 10, {}, "cam1", kStart + 9),
                                         make(0, 10, {}, "cam1"), make(0, 10, {}, "cam2")};
    EXPECT_EQ(vexo_cloud::recording_statuses(list, kStart + 60),
              (std::vector<RecordingStatus>{kOpen, kLeftOpen, kOpen}));
}

TEST(ListingTextTest, SizesAndGaps) {
    const std::pair<uint64_t, const char *> sizes[] = {
        {0, "0 bytes"},       {1, "1 byte"},      {999, "999 bytes"},     {1000, "1.0 kB"},
        {999949, "999.9 kB"}, {999950, "1.0 MB"}, {5000000000, "5.0 GB"}, {UINT64_MAX, "18.4 EB"}};
    for (const auto &[bytes, text] : sizes) {
        EXPECT_EQ(vexo_cloud::byte_size_text(bytes), text) << bytes;
    }
    // Times are local: pin the zone for the test, and put it back.
    const char *zone = std::getenv("TZ");
    const std::string saved = zone != nullptr ? zone : "";
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(vexo_cloud::gap_text({"cam1", kStart, kStart + 300, "spool full", 1234567}),
              "gap  2024-03-10 12:00:00 - 2024-03-10 12:05:00  spool full  1.2 MB dropped");
    zone != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

} // namespace
