// Frame intake: entry format, encryption, first-key-frame rule, buffer room and the slice,
// group and day boundaries on key frames.
#include "upload_fixture.h"

namespace {

using FrameIntake = UploadTest;

TEST_F(FrameIntake, EntriesAreLittleEndianWithKeyAndAudioEncryptedOnEitherCipherPath) {
    const std::vector<uint8_t> key_frame = pattern(100, 1), p_frame = pattern(50, 2),
                               audio = pattern(32, 3);
    for (bool hw : {false, true}) {
        SCOPED_TRACE(hw ? "hardware engine" : "software cipher");
        tk::set_hw_engine(hw);
        ASSERT_EQ(vexo_hw_aes_crypt_init(&cloud_storage_ctl.aes_handle, kKey), 0);
        begin_recording(kT0);
        const uint64_t hw0 = tk::hw_encrypt_calls(), sw0 = tk::sw_encrypt_calls();
        ASSERT_EQ(offer(VEXO_FRAME_I, kT0Ms + 123, key_frame, 0x0102030405060708ull), 0);
        ASSERT_EQ(offer(VEXO_FRAME_P, kT0Ms + 1163, p_frame, 0x1122334455667788ull), 0);
        ASSERT_EQ(offer(VEXO_FRAME_AUDIO, kT0Ms + 2100, audio, 7), 0);

        std::vector<Entry> e = buffered();
        ASSERT_EQ(e.size(), 3u);
        EXPECT_EQ(e[0].type, 1u);
        EXPECT_EQ(e[0].timestamp, kT0Ms + 123);
        EXPECT_EQ(e[0].pts, 0x0102030405060708ull);
        EXPECT_EQ(plain(e[0]), key_frame);
        EXPECT_EQ(e[1].type, 0u);
        EXPECT_EQ(e[1].length, 50u);
        EXPECT_EQ(e[1].pts, 0x1122334455667788ull);
        EXPECT_EQ(e[1].payload, p_frame); // stored in clear
        EXPECT_EQ(e[2].type, 3u);
        EXPECT_EQ(e[2].timestamp, kT0Ms + 2100);
        EXPECT_EQ(plain(e[2]), audio);
        EXPECT_EQ(tk::hw_encrypt_calls() - hw0, hw ? 2u : 0u);
        EXPECT_EQ(tk::sw_encrypt_calls() - sw0, hw ? 0u : 2u);
        EXPECT_EQ(cloud_storage_ctl.buffer_end_time, kT0 + 1); // audio never moves it
    }
}

TEST_F(FrameIntake, PFrameBeforeFirstKeyFrameOfEachFileIsDroppedWhileLeadingAudioIsKept) {
    const std::string skip = "P frame arrive before I frame, skip";
    EXPECT_EQ(offer(VEXO_FRAME_AUDIO, kT0Ms, pattern(32, 1)), 0);
    EXPECT_EQ(offer(VEXO_FRAME_P, kT0Ms + 40, pattern(20, 2)), 0);
    EXPECT_EQ(tk::count_logs(tk::Level::err, skip), 1u);
    EXPECT_EQ(offer(VEXO_FRAME_I, kT0Ms + 80, pattern(64, 3)), 0);
    EXPECT_EQ(offer(VEXO_FRAME_P, kT0Ms + 120, pattern(20, 4)), 0);
    std::vector<Entry> e = buffered();
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(plain(e[0]), pattern(32, 1));
    EXPECT_EQ(e[1].type, 1u);
    EXPECT_EQ(e[2].payload, pattern(20, 4));
    EXPECT_EQ(tk::count_logs(tk::Level::err, skip), 1u);

    ASSERT_EQ(__upload_media_slice(kT0 + 1), 0); // a new file: the rule applies again
    EXPECT_EQ(offer(VEXO_FRAME_P, kT0Ms + 1000, pattern(20, 5)), 0);
    EXPECT_EQ(cloud_storage_ctl.media_data_len, 0u);
    EXPECT_EQ(tk::count_logs(tk::Level::err, skip), 2u);
}

TEST_F(FrameIntake, FrameThatWouldExactlyFillTheBufferIsRefusedAndTheSliceUploaded) {
    struct Case {
        uint32_t shrink;
        int32_t upload_rc;
        int32_t expect;
    };
    for (const Case &c : {Case{0, 0, -112}, Case{1, 0, 0}, Case{0, -7, -5}}) {
        SCOPED_TRACE(testing::Message() << "shrink " << c.shrink << " upload " << c.upload_rc);
        begin_recording(kT0);
        ASSERT_EQ(offer(VEXO_FRAME_I, kT0Ms, pattern(100, 1)), 0);
        const uint32_t fill = cloud_storage_ctl.media_data_len;
        const uint32_t size = kBufferSize - 40 - fill - c.shrink;
        const size_t uploads = tk::uploads().size();
        if (c.upload_rc != 0) {
            tk::queue_result("cloud_put_data_to_file", c.upload_rc);
        }
        EXPECT_EQ(offer(VEXO_FRAME_P, kT0Ms + 40, std::vector<uint8_t>(size, 9)), c.expect);
        if (c.expect == 0) {
            EXPECT_EQ(cloud_storage_ctl.media_data_len, fill + 24 + size);
            EXPECT_EQ(tk::uploads().size(), uploads);
            continue;
        }
        ASSERT_EQ(tk::uploads().size(), uploads + 1);
        EXPECT_EQ(tk::uploads().back().size, fill);
        EXPECT_EQ(cloud_storage_ctl.media_data_len, 0u);
        EXPECT_TRUE(tk::count_logs(tk::Level::err, "memory insufficient to buffer data[" +
                                                       std::to_string(fill) + " + " +
                                                       std::to_string(size) + " > 4096]") > 0);
        EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to upload slice -5"),
                  c.expect == -5 ? 1u : 0u);
    }
}

TEST_F(FrameIntake, OnlyAKeyFrameAtSliceDurationCutsTheSlice) {
    struct Case {
        uint32_t type;
        uint64_t after_ms;
        int32_t upload_rc;
        int32_t expect;
    };
    const Case cases[] = {{VEXO_FRAME_I, 10000, 0, -2015},
                          {VEXO_FRAME_I, 9999, 0, 0},
                          {VEXO_FRAME_P, 100000, 0, 0},
                          {VEXO_FRAME_AUDIO, 100000, 0, 0},
                          {VEXO_FRAME_I, 10000, -7, -5}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " after " << c.after_ms);
        begin_recording(kT0);
        ASSERT_EQ(offer(VEXO_FRAME_I, kT0Ms, pattern(100, 1)), 0);
        const size_t uploads = tk::uploads().size();
        const size_t failures = tk::count_logs(tk::Level::err, "fail to upload slice");
        if (c.upload_rc != 0) {
            tk::queue_result("cloud_put_data_to_file", c.upload_rc);
        }
        EXPECT_EQ(offer(c.type, kT0Ms + c.after_ms, pattern(30, 2)), c.expect);
        EXPECT_EQ(tk::uploads().size(), uploads + (c.expect == 0 ? 0 : 1));
        EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to upload slice"),
                  failures + (c.expect == -5 ? 1 : 0));
        if (c.expect == -2015 && !tk::uploads().empty()) {
            EXPECT_EQ(tk::uploads().back().file_name, "1705305600_0000.media");
            EXPECT_STREQ(cloud_storage_ctl.media_file_name, "1705305600_0010.media");
            EXPECT_EQ(cloud_storage_ctl.slice_start_time, kT0 + 10);
        }
    }
}

TEST_F(FrameIntake, KeyFrameBoundariesAreTestedDayFirstThenGroupThenSlice) {
    tk::set_zone_offset(3600);
    const uint32_t midnight = kT0 + 15 * 3600; // 00:00:00 local time at UTC+1
    begin_recording(midnight - 2000);          // group and slice are due as well
    struct Case {
        uint32_t at;
        int32_t expect;
        size_t new_days;
        uint32_t recording_start;
    };
    const Case cases[] = {{5, -2015, 1, 5},         // midnight restart
                          {6, 0, 1, 5},             // only once
                          {60, -2015, 1, 5},        // 00:01:00: a slice; re-arms the latch
                          {1804, -2015, 1, 5},      // 1799 s: still a slice
                          {1815, -2015, 1, 1815},   // group, although a slice is due too
                          {86411, -2015, 1, 86411}, // 00:00:11 is past the window: group
                          {172810, -2015, 2, 172810}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.at);
        cloud_storage_ctl.media_data_len = 10; // something to upload
        EXPECT_EQ(offer(VEXO_FRAME_I, uint64_t{midnight + c.at} * 1000, pattern(64, 1)), c.expect);
        EXPECT_EQ(tk::count_logs(tk::Level::debug, "new day start"), c.new_days);
        EXPECT_EQ(cloud_storage_ctl.recording_start_time, midnight + c.recording_start);
    }
}

} // namespace
