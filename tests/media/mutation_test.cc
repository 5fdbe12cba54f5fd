// Damaged files: random truncations and byte flips of a valid file never crash the reader and
// always end in success or in a fault inside the file.
#include <gtest/gtest.h>

#include <random>

#include "media_builder.h"

namespace {

using media_test::Bytes;

Bytes valid_file() {
    std::vector<Bytes> parts;
    uint64_t ts = 100000;
    for (int i = 0; i < 12; ++i, ts += 40) {
        const Bytes frame(static_cast<size_t>(20 + i * 13), static_cast<uint8_t>(i));
        if (i % 4 == 0) {
            parts.push_back(media_test::sealed_entry(media_test::kTestKey, 1, frame, ts));
        } else {
            parts.push_back(media_test::entry(0, frame, ts));
        }
        parts.push_back(media_test::sealed_entry(media_test::kTestKey, 3, Bytes(33, 0x7f), ts));
    }
    return media_test::concat(parts);
}

void expect_sound(const Bytes &bytes, const std::string &what) {
    std::vector<vexo_media::Entry> entries;
    vexo_media::Fault fault;
    const bool whole = vexo_media::parse("m", bytes, &entries, &fault);
    uint64_t end = 0;
    for (const vexo_media::Entry &e : entries) {
        ASSERT_EQ(e.offset, end) << what;
        ASSERT_EQ(e.payload.size(), e.length) << what;
        end += vexo_media::kHeaderSize + e.length;
    }
    ASSERT_LE(end, bytes.size()) << what;
    if (whole) {
        ASSERT_EQ(end, bytes.size()) << what;
    } else {
        ASSERT_EQ(fault.offset, end) << what << ": " << fault.text();
        ASSERT_LT(fault.offset, bytes.size()) << what << ": " << fault.text();
        ASSERT_FALSE(fault.message.empty()) << what;
    }
    for (const vexo_media::Entry &e : entries) {
        std::vector<uint8_t> plain;
        (void)vexo_media::plain_payload(media_test::kTestKey, e, &plain);
    }
}

TEST(MediaMutation, TruncationsAndByteFlipsNeverEscapeTheFile) {
    const Bytes original = valid_file();
    std::mt19937 rng(20240501);
    for (int round = 0; round < 400; ++round) {
        Bytes bytes = original;
        std::string what = "round " + std::to_string(round);
        const int flips = static_cast<int>(rng() % 4);
        for (int i = 0; i < flips; ++i) {
            const size_t at = rng() % bytes.size();
            const auto bit = static_cast<uint8_t>(1u << (rng() % 8));
            bytes[at] ^= bit;
            what += " flip@" + std::to_string(at);
        }
        if (round % 2 == 0) {
            bytes.resize(rng() % (bytes.size() + 1));
            what += " cut@" + std::to_string(bytes.size());
        }
        expect_sound(bytes, what);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST(MediaMutation, DamagedFilesThroughVerifyStayInsideTheirFile) {
    const Bytes original = valid_file();
    media_test::TempDir dir;
    std::mt19937 rng(7);
    for (int round = 0; round < 100; ++round) {
        Bytes bytes = original;
        for (int i = 0; i < 3; ++i) {
            bytes[rng() % bytes.size()] = static_cast<uint8_t>(rng());
        }
        bytes.resize(bytes.size() - rng() % 64);
        const std::string path = dir.write("m.media", bytes);
        const vexo_media::VerifyReport report =
            vexo_media::verify_files({path}, &media_test::kTestKey);
        for (const vexo_media::Fault &f : report.faults) {
            EXPECT_EQ(f.file, path);
            EXPECT_LT(f.offset, bytes.size()) << "round " << round << ": " << f.text();
        }
    }
}

} // namespace
