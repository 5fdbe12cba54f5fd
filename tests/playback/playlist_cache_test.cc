// The playlist's arithmetic and text, and the segment cache's bound, on their own.
#include <gtest/gtest.h>

#include "playlist.h"
#include "segment_cache.h"

namespace {

using vexo_playback::FileTimes;

TEST(PlaylistDurations, FromTheFilesTimeStamps) {
    const struct {
        const char *name;
        std::vector<FileTimes> files;
        std::vector<uint64_t> elapsed;
        std::vector<uint64_t> expected;
    } cases[] = {
        {"one file", {{true, 5000, 8900}}, {0}, {4000}},
        {"next file's first stamp",
         {{true, 1000, 4900}, {true, 5000, 8900}, {true, 9000, 9500}},
         {0, 4, 8},
         {4000, 4000, 600}},
        {"unreadable middle file placed by its name",
         {{true, 1000, 4900}, {false, 0, 0}, {true, 9100, 9500}},
         {0, 4, 8},
         {4000, 4100, 500}},
        {"unreadable last file lasts one frame",
         {{true, 1000, 4900}, {false, 0, 0}},
         {0, 4},
         {4000, 100}},
        {"stamps out of order give 0, never a wrap",
         {{true, 5000, 5000}, {true, 4000, 4500}},
         {0, 4},
         {0, 600}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(vexo_playback::segment_durations(c.files, c.elapsed, 100), c.expected) << c.name;
    }
}

TEST(PlaylistText, ClosedIsVodWithAnEndOpenIsAnEvent) {
    const std::string closed = vexo_playback::playlist_text({4000, 4040, 1500}, true);
    EXPECT_EQ(closed, "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:5\n"
                      "#EXT-X-MEDIA-SEQUENCE:0\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                      "#EXTINF:4.000,\nsegments/0.ts\n#EXTINF:4.040,\nsegments/1.ts\n"
                      "#EXTINF:1.500,\nsegments/2.ts\n#EXT-X-ENDLIST\n");
    const std::string open = vexo_playback::playlist_text({4000}, false);
    EXPECT_NE(open.find("#EXT-X-PLAYLIST-TYPE:EVENT\n"), std::string::npos);
    EXPECT_NE(open.find("#EXT-X-TARGETDURATION:4\n"), std::string::npos);
    EXPECT_EQ(open.find("ENDLIST"), std::string::npos);
}

vexo_playback::Blob blob(size_t size, uint8_t fill) {
    return std::make_shared<const std::vector<uint8_t>>(size, fill);
}

TEST(SegmentCache, DropsTheLeastRecentlyUsedBeyondItsBytes) {
    vexo_playback::SegmentCache cache(100);
    cache.put("a", blob(40, 1));
    cache.put("b", blob(40, 2));
    ASSERT_NE(cache.find("a"), nullptr); // a is now the most recent
    cache.put("c", blob(40, 3));         // 120 > 100: b goes
    EXPECT_EQ(cache.find("b"), nullptr);
    ASSERT_NE(cache.find("a"), nullptr);
    EXPECT_EQ(cache.find("c")->at(0), 3);
    EXPECT_EQ(cache.bytes(), 80u);
    cache.put("a", blob(10, 4)); // replaced, not counted twice
    EXPECT_EQ(cache.bytes(), 50u);
    EXPECT_EQ(cache.find("a")->size(), 10u);
    cache.put("huge", blob(101, 5)); // larger than the whole cache: not kept, nothing lost
    EXPECT_EQ(cache.find("huge"), nullptr);
    EXPECT_EQ(cache.entries(), 2u);
}

} // namespace
