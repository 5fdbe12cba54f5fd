// Frame intake: entry format, encryption, first-key-frame rule, buffer room and the slice,
// group and day boundaries on key frames.
#include "upload_fixture.h"

namespace {

using FrameIntake = UploadTest;

TEST_F(FrameIntake, EntriesAreLittleEndianWithKeyAndAudioEncryptedAndPFramesWaitForAKeyFrame) {
    const std::string skip = "P frame arrive before I frame, skip";
    const std::vector<uint8_t> key_frame = pattern(100, 1), p_frame = pattern(50, 2),
                               audio = pattern(32, 3);
    for (bool hw : {false, true}) { // each pass is a new file: the key-frame rule applies again
        SCOPED_TRACE(hw ? "hardware engine" : "software cipher");
        tk::set_hw_engine(hw);
        ASSERT_EQ(vexo_hw_aes_crypt_init(&cloud_storage_ctl.aes_handle, kKey), 0);
        begin_recording(kT0);
        const uint64_t hw0 = tk::hw_encrypt_calls(), sw0 = tk::sw_encrypt_calls();
        tk::clear_logs();
        ASSERT_EQ(offer(VEXO_FRAME_AUDIO, kT0Ms + 2100, audio, 7), 0); // kept
        ASSERT_EQ(offer(VEXO_FRAME_P, kT0Ms + 3000, p_frame), 0);      // dropped
        EXPECT_EQ(tk::count_logs(tk::Level::err, skip), 1u);
        EXPECT_EQ(cloud_storage_ctl.buffer_end_time, kT0); // audio never moves it
        ASSERT_EQ(offer(VEXO_FRAME_I, kT0Ms + 123, key_frame, 0x0102030405060708ull), 0);
        ASSERT_EQ(offer(VEXO_FRAME_P, kT0Ms + 1163, p_frame, 0x1122334455667788ull), 0);

        std::vector<Entry> e = buffered();
        ASSERT_EQ(e.size(), 3u);
        EXPECT_EQ(e[0].type, 3u);
        EXPECT_EQ(plain(e[0]), audio);
        EXPECT_EQ(e[1].type, 1u);
        EXPECT_EQ(e[1].timestamp, kT0Ms + 123);
        EXPECT_EQ(e[1].pts, 0x0102030405060708ull);
        EXPECT_EQ(plain(e[1]), key_frame);
        EXPECT_EQ(e[2].type, 0u);
        EXPECT_EQ(e[2].payload, p_frame); // stored in clear
        EXPECT_EQ(tk::hw_encrypt_calls() - hw0, hw ? 2u : 0u);
        EXPECT_EQ(tk::sw_encrypt_calls() - sw0, hw ? 0u : 2u);
        EXPECT_EQ(tk::count_logs(tk::Level::err, skip), 1u);
        EXPECT_EQ(cloud_storage_ctl.buffer_end_time, kT0 + 1);
    }
}

TEST_F(FrameIntake, FrameOutsideTheCurrentFileUploadsTheSliceFirst) {
    // After a 100-byte key frame (24 + 112 bytes buffered) a 3920-byte frame would exactly
    // fill the buffer: it is refused too.
    struct Case {
        uint32_t type;
        uint64_t after_ms;
        uint32_t size;
        int32_t upload_rc;
        int32_t expect;
        const char *log;
    };
    const Case cases[] = {
        {VEXO_FRAME_I, 10000, 30, 0, -2015, nullptr}, // slice duration reached
        {VEXO_FRAME_I, 9999, 30, 0, 0, nullptr},
        {VEXO_FRAME_P, 100000, 30, 0, 0, nullptr}, // only key frames cut slices
        {VEXO_FRAME_I, 10000, 30, -7, -5, "fail to upload slice"},
        {VEXO_FRAME_P, 40, 3920, 0, -112, "memory insufficient to buffer data[136 + 3920 > 4096]"},
        {VEXO_FRAME_P, 40, 3919, 0, 0, nullptr},
        {VEXO_FRAME_P, 40, 3920, -7, -5, "fail to upload slice -5"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.type << "/" << c.after_ms << "/" << c.size << "/" << c.upload_rc);
        begin_recording(kT0);
        ASSERT_EQ(offer(VEXO_FRAME_I, kT0Ms, pattern(100, 1)), 0);
        const size_t uploads = tk::uploads().size();
        tk::clear_logs();
        if (c.upload_rc != 0) {
            tk::queue_result("cloud_put_data_to_file", c.upload_rc);
        }
        EXPECT_EQ(offer(c.type, kT0Ms + c.after_ms, std::vector<uint8_t>(c.size, 9)), c.expect);
        ASSERT_EQ(tk::uploads().size(), uploads + (c.expect != 0 ? 1 : 0));
        if (c.expect != 0) {
            EXPECT_EQ(tk::uploads().back().size, 136u); // without the frame
            EXPECT_EQ(cloud_storage_ctl.media_data_len, 0u);
        }
        if (c.log != nullptr) {
            EXPECT_EQ(tk::count_logs(tk::Level::err, c.log), 1u);
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
                          {1804, -2015, 1, 5},      // 1799 s in: a slice; re-arms the latch
                          {1805, -2015, 1, 1805},   // 1800 s in: a new group
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
