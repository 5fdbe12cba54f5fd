// Splitting media files into entries: a table of well-formed and damaged files.
#include <gtest/gtest.h>

#include <tuple>

#include "media_builder.h"

namespace {

using media_test::Bytes;
using media_test::entry;
using vexo_media::Entry;
using vexo_media::Fault;

struct ParseCase {
    std::string name;
    Bytes bytes;
    bool whole;
    size_t entries;         // entries kept
    uint64_t fault_offset;  // when !whole
    std::string fault_text; // a part of the message, when !whole
};

Bytes header_only(uint32_t type, uint32_t length) {
    Bytes bytes = entry(type, {}, 1000, 7);
    bytes[4] = static_cast<uint8_t>(length);
    bytes[5] = static_cast<uint8_t>(length >> 8);
    bytes[6] = static_cast<uint8_t>(length >> 16);
    bytes[7] = static_cast<uint8_t>(length >> 24);
    return bytes;
}

std::vector<ParseCase> parse_cases() {
    const Bytes key = entry(1, Bytes(32, 0xAA), 1000, 90000);
    const Bytes p = entry(0, {0, 0, 0, 1, 0x41, 9}, 1040, 93600);
    const Bytes audio = entry(3, Bytes(16, 0x55), 1020, 8160);
    std::vector<ParseCase> cases = {
        {"empty file", {}, true, 0, 0, ""},
        {"two good entries", media_test::concat({key, p}), true, 2, 0, ""},
        {"empty clear payload", entry(0, {}, 5), true, 1, 0, ""},
        {"payload past the end by one byte",
         media_test::concat({key, Bytes(p.begin(), p.end() - 1)}), false, 1, key.size(),
         "runs past the end"},
        {"length over the limit", header_only(1, vexo_media::kMaxPayload + 1), false, 0, 0,
         "over the limit"},
        {"length 0xffffffff", header_only(0, 0xffffffffu), false, 0, 0, "over the limit"},
        {"length at the limit but short file", header_only(0, vexo_media::kMaxPayload), false, 0, 0,
         "runs past the end"},
        {"unknown type 2", entry(2, {1, 2, 3}, 0), false, 0, 0, "unknown entry type 2"},
        {"unknown type after a good entry", media_test::concat({audio, entry(7, {}, 0)}), false, 1,
         audio.size(), "unknown entry type 7"},
        {"good entry then garbage",
         media_test::concat({key, Bytes{0xde, 0xad, 0xbe, 0xef, 0xff, 0xff, 0xff, 0xff}}), false, 1,
         key.size(), "header cut short (8 of 24"},
    };
    for (size_t cut = 1; cut < vexo_media::kHeaderSize; ++cut) {
        cases.push_back({"header cut at " + std::to_string(cut),
                         Bytes(key.begin(), key.begin() + cut), false, 0, 0,
                         "header cut short (" + std::to_string(cut) + " of 24"});
    }
    return cases;
}

TEST(MediaParse, TableOfFiles) {
    for (const ParseCase &c : parse_cases()) {
        SCOPED_TRACE(c.name);
        std::vector<Entry> entries;
        Fault fault;
        EXPECT_EQ(vexo_media::parse("f.media", c.bytes, &entries, &fault), c.whole);
        EXPECT_EQ(entries.size(), c.entries);
        if (!c.whole) {
            EXPECT_EQ(fault.file, "f.media");
            EXPECT_EQ(fault.offset, c.fault_offset);
            EXPECT_NE(fault.message.find(c.fault_text), std::string::npos) << fault.message;
            EXPECT_EQ(
                fault.text().rfind("f.media: offset " + std::to_string(c.fault_offset) + ": ", 0),
                0u)
                << fault.text();
        }
    }
}

TEST(MediaParse, EntryFieldsAreLittleEndianAndOffsetsCount) {
    const Bytes first = entry(1, {1, 2, 3, 4}, 0x0102030405060708ull, 0x1112131415161718ull);
    const Bytes second = entry(3, {9}, 0xfffffffffffffffeull, 0);
    std::vector<Entry> entries;
    Fault fault;
    ASSERT_TRUE(vexo_media::parse("f", media_test::concat({first, second}), &entries, &fault));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(std::tie(entries[0].type, entries[0].length, entries[0].timestamp, entries[0].pts,
                       entries[0].offset),
              std::make_tuple(1u, 4u, 0x0102030405060708ull, 0x1112131415161718ull, 0ull));
    EXPECT_EQ(entries[0].payload, (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(std::tie(entries[1].type, entries[1].timestamp, entries[1].offset),
              std::make_tuple(3u, 0xfffffffffffffffeull, uint64_t{first.size()}));
    EXPECT_EQ(entries[1].payload, (Bytes{9}));
}

TEST(MediaReadFile, ReadsWhatIsOnDiskAndNamesThePathInFaults) {
    media_test::TempDir dir;
    const Bytes good = entry(1, Bytes(16, 1), 10);
    const std::string path = dir.write(
        "100_0000.media", media_test::concat({good, Bytes(good.begin(), good.end() - 3)}));
    std::vector<Entry> entries;
    Fault fault;
    EXPECT_FALSE(vexo_media::read_file(path, &entries, &fault));
    EXPECT_EQ(entries.size(), 1u);
    EXPECT_EQ(fault.file, path);
    EXPECT_EQ(fault.offset, good.size());
    // A missing file and a directory are faults at offset 0.
    EXPECT_FALSE(vexo_media::read_file(dir.path() + "/nope.media", &entries, &fault));
    EXPECT_EQ(fault.offset, 0u);
    EXPECT_NE(fault.message.find("cannot open"), std::string::npos);
    EXPECT_FALSE(vexo_media::read_file(dir.path(), &entries, &fault));
    EXPECT_NE(fault.message.find("not a regular file"), std::string::npos);
}

} // namespace
