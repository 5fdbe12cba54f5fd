// Checking whole recordings: counts, and every kind of fault with its file and offset.
#include <gtest/gtest.h>

#include "media_builder.h"

namespace {

using media_test::Bytes;
using media_test::concat;
using media_test::entry;
using media_test::kTestKey;
using media_test::sealed_entry;
using vexo_media::VerifyReport;

const Bytes kKeyFrame = {0, 0, 0, 1, 0x67, 1, 0, 0, 0, 1, 0x68, 2, 0, 0, 0, 1, 0x65, 3};
const Bytes kPFrame = {0, 0, 0, 1, 0x41, 4, 5};
const Bytes kAudio = Bytes(160, 0xd5);

bool has_fault(const VerifyReport &report, const std::string &file, uint64_t offset,
               const std::string &part) {
    for (const vexo_media::Fault &f : report.faults) {
        if (f.file == file && f.offset == offset && f.message.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string faults_text(const VerifyReport &report) {
    std::string text;
    for (const vexo_media::Fault &f : report.faults) {
        text += f.text() + "\n";
    }
    return text;
}

class MediaVerify : public ::testing::Test {
  protected:
    Bytes key_frame(uint64_t ts) { return sealed_entry(kTestKey, 1, kKeyFrame, ts); }
    Bytes p_frame(uint64_t ts) { return entry(0, kPFrame, ts); }
    Bytes audio(uint64_t ts) { return sealed_entry(kTestKey, 3, kAudio, ts); }

    media_test::TempDir dir;
};

TEST_F(MediaVerify, WellFormedRecordingCountsEverything) {
    const Bytes first = concat({audio(980), key_frame(1000), audio(1020), p_frame(1040)});
    const Bytes second = concat({key_frame(2000), p_frame(2040), audio(2040), p_frame(2080)});
    const std::vector<std::string> paths = {dir.write("a_0000.media", first),
                                            dir.write("a_0001.media", second)};
    const VerifyReport report = vexo_media::verify_files(paths, &kTestKey);
    EXPECT_TRUE(report.faults.empty()) << faults_text(report);
    EXPECT_EQ(report.files, 2u);
    EXPECT_EQ(report.entries, 8u);
    EXPECT_EQ(report.video_frames, 5u);
    EXPECT_EQ(report.key_frames, 2u);
    EXPECT_EQ(report.audio_frames, 3u);
    EXPECT_EQ(report.bytes, first.size() + second.size());
    EXPECT_EQ(report.first_timestamp, 980u);
    EXPECT_EQ(report.last_timestamp, 2080u);
}

TEST_F(MediaVerify, FaultsInOneFileAtTheirEntries) {
    vexo_media::Key other = kTestKey;
    other[0] = 'X';
    // A key frame sealed with another key: under the test key its last byte decrypts to 0x46,
    // invalid padding (fixed keys, so this holds on every run).
    const Bytes foreign = entry(1, media_test::encrypt(other, kKeyFrame), 1000);
    struct Case {
        const char *name;
        std::vector<Bytes> entries;
        bool keyed;
        std::vector<std::pair<size_t, std::string>> faults; // at which entry, what
    };
    const Case cases[] = {
        {"P frame first", {p_frame(1000), key_frame(1040)}, false, {{0, "begins with a P frame"}}},
        {"P frame after audio before the key frame",
         {audio(1000), p_frame(1010), p_frame(1020), key_frame(1040)},
         false,
         {{1, "before the first key frame"}}},
        {"equal time stamps", {key_frame(1000), audio(1000), p_frame(1000), audio(1000)}, true, {}},
        {"cipher lengths",
         {key_frame(1000), entry(3, Bytes(17, 1), 1010), entry(3, Bytes(24, 1), 1015),
          entry(1, {}, 1020)},
         true,
         {{1, "cipher length 17"}, {2, "cipher length 24"}, {3, "cipher length 0"}}},
        {"another key, no key given", {foreign, p_frame(1040), audio(1050)}, false, {}},
        {"another key",
         {foreign, p_frame(1040), audio(1050)},
         true,
         {{0, "key frame does not decrypt"}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.write("a.media", concat(c.entries));
        const VerifyReport report = vexo_media::verify_files({path}, c.keyed ? &kTestKey : nullptr);
        EXPECT_EQ(report.faults.size(), c.faults.size()) << faults_text(report);
        for (const auto &[index, text] : c.faults) {
            uint64_t offset = 0;
            for (size_t i = 0; i < index; ++i) {
                offset += c.entries[i].size();
            }
            EXPECT_TRUE(has_fault(report, path, offset, text)) << faults_text(report);
        }
    }
}

TEST_F(MediaVerify, TimeStampsGoingBackAcrossFilesPerStream) {
    const std::string first = dir.write("a_0000.media", concat({key_frame(5000), audio(5010)}));
    const Bytes video_back = key_frame(4000);
    // Audio at 5005 is behind the audio of the first file but ahead of this file's video.
    const std::string second =
        dir.write("a_0005.media", concat({video_back, audio(5005), p_frame(4040)}));
    const VerifyReport report = vexo_media::verify_files({first, second}, nullptr);
    EXPECT_TRUE(has_fault(report, second, 0, "video time stamp 4000 ms goes back from 5000 ms"))
        << faults_text(report);
    EXPECT_TRUE(has_fault(report, second, video_back.size(), "audio time stamp 5005 ms"))
        << faults_text(report);
    EXPECT_EQ(report.faults.size(), 2u) << faults_text(report);
}

TEST_F(MediaVerify, DamagedFileKeepsItsEntriesAndTheNextFileIsChecked) {
    const Bytes good = key_frame(1000);
    const std::string cut = dir.write("a_0000.media", concat({good, Bytes(10, 0)}));
    const std::string empty = dir.write("a_0001.media", {});
    const std::string missing = dir.path() + "/a_0002.media";
    const std::string next = dir.write("a_0003.media", concat({p_frame(3000)}));
    const VerifyReport report = vexo_media::verify_files({cut, empty, missing, next}, &kTestKey);
    EXPECT_TRUE(has_fault(report, cut, good.size(), "header cut short")) << faults_text(report);
    EXPECT_TRUE(has_fault(report, empty, 0, "empty file")) << faults_text(report);
    EXPECT_TRUE(has_fault(report, missing, 0, "cannot open")) << faults_text(report);
    EXPECT_TRUE(has_fault(report, next, 0, "begins with a P frame")) << faults_text(report);
    EXPECT_EQ(report.faults.size(), 4u) << faults_text(report);
    EXPECT_EQ(report.files, 4u);
    EXPECT_EQ(report.entries, 2u);
    EXPECT_EQ(report.bytes, good.size() + 10 + kPFrame.size() + 24);
}

} // namespace
