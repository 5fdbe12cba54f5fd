// Cloud recordings: file naming, slice upload outcomes, start with key update and quota,
// finish and restart.
#include "upload_fixture.h"

namespace {

using CloudRecording = UploadTest;

constexpr char kNewKeyAnswer[] = R"({"needUpdate":1,"encryptKey":"NewKey0123456789"})";

TEST_F(CloudRecording, SliceUploadsNameFilesByElapsedSecondsAndDropFailedData) {
    const uint32_t start = 1700000000;
    ASSERT_EQ(__cloud_storage_upload_start(start), 0);
    EXPECT_STREQ(cloud_storage_ctl.media_file_name, "1700000000_0000.media");
    EXPECT_EQ(__upload_media_slice(start + 10), -1); // nothing buffered
    EXPECT_TRUE(tk::uploads().empty());

    cloud_storage_ctl.media_data_len = 100;
    cloud_storage_ctl.buffer_end_time = start + 9;
    EXPECT_EQ(__upload_media_slice(start + 10), 0);
    ASSERT_EQ(tk::uploads().size(), 1u);
    // Scheme, flag and content type of every upload are compared by the system runs.
    EXPECT_EQ(tk::uploads()[0].file_name + "|" + std::to_string(tk::uploads()[0].size),
              "1700000000_0000.media|100");
    EXPECT_STREQ(cloud_storage_ctl.media_file_name, "1700000000_0010.media");
    EXPECT_EQ(cloud_storage_ctl.slice_start_time, start + 10);
    EXPECT_EQ(cloud_storage_ctl.uploaded_end_time, start + 9);

    cloud_storage_ctl.media_data_len = 50;
    cloud_storage_ctl.buffer_end_time = start + 19;
    tk::queue_result("cloud_put_data_to_file", -7);
    EXPECT_EQ(__upload_media_slice(start + 20), -5);
    EXPECT_EQ(cloud_storage_ctl.media_data_len, 0u);
    EXPECT_STREQ(cloud_storage_ctl.media_file_name, "1700000000_0020.media");
    EXPECT_EQ(cloud_storage_ctl.uploaded_end_time, start + 9);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to upload media file"), 1u);
    const std::vector<tk::SeqEntry> seq = tk::seq_entries(62);
    ASSERT_EQ(seq.size(), 1u);
    EXPECT_TRUE(seq[0].report && seq[0].kind == 1 && seq[0].value == -7);

    cloud_storage_ctl.media_data_len = 10;
    EXPECT_EQ(__upload_media_slice(start + 10000), 0);
    EXPECT_STREQ(cloud_storage_ctl.media_file_name, "1700000000_10000.media");
}

TEST_F(CloudRecording, StartWithNewKeyReannouncesAndTakesQuotaOnlyInEventMode) {
    struct Case {
        int32_t mode;
        int32_t count;
        bool new_key;
        int32_t count_after;
    };
    const Case cases[] = {{STORE_MODE_EVENT, 1, true, 0}, // never below zero
                          {STORE_MODE_EVENT, 3, true, 1}, // a key update costs two
                          {STORE_MODE_EVENT, 3, false, 2},
                          {STORE_MODE_ALLTIME, 3, true, 3}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.mode << "/" << c.count << "/" << c.new_key);
        cloud_storage_ctl.store_mode = c.mode;
        cloud_storage_ctl.count_left = c.count;
        cloud_storage_ctl.upload_status = 0;
        const size_t before = tk::posts_of(kStartApi).size();
        if (c.new_key) {
            tk::queue_post_answer(kStartApi, 0, std::string(kNewKeyAnswer));
        }
        EXPECT_EQ(__cloud_storage_upload_start(kT0 + 5), 0);
        EXPECT_EQ(cloud_storage_ctl.count_left, c.count_after);
        EXPECT_EQ(cloud_storage_ctl.upload_status, UPLOAD_STATUS_RUNNING);
        EXPECT_EQ(tk::posts_of(kStartApi).size(), before + (c.new_key ? 2 : 1));
    }
}

TEST_F(CloudRecording, FailedStartNotificationsReturnTheirCodeAndLeaveStatus) {
    cloud_storage_ctl.upload_status = 0;
    tk::queue_post_answer(kStartApi, -1);
    EXPECT_EQ(__cloud_storage_upload_start(kT0 + 7), -9);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to notify cloud start, ret -9"), 1u);

    cloud_storage_ctl.count_left = 5;
    tk::queue_post_answer(kStartApi, 0, std::string(kNewKeyAnswer));
    tk::queue_post_answer(kStartApi, -1);
    EXPECT_EQ(__cloud_storage_upload_start(kT0 + 8), -9);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to notify cloud start 2, ret -9"), 1u);
    EXPECT_EQ(cloud_storage_ctl.count_left, 4);
    EXPECT_EQ(cloud_storage_ctl.upload_status, 0);
}

TEST_F(CloudRecording, FinishReportsEndTimeByWhatHappenedToTheRestOfTheBuffer) {
    struct Case {
        int32_t mode;
        uint32_t buffered;
        int32_t upload_rc;
        int32_t expect;
        uint32_t end_time;
    };
    const Case cases[] = {{STORE_MODE_EVENT, 0, 0, 0, kT0 + 30},
                          {STORE_MODE_EVENT, 100, 0, 0, kT0 + 25},
                          {STORE_MODE_ALLTIME, 100, -7, -5, kT0 + 10}};
    cloud_storage_ctl.silence_interval = 60;
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.mode << "/" << c.buffered << "/" << c.upload_rc);
        cloud_storage_ctl.store_mode = c.mode;
        cloud_storage_ctl.silence_end_time = 0;
        cloud_storage_ctl.media_data_len = c.buffered;
        cloud_storage_ctl.uploaded_end_time = kT0 + 10;
        cloud_storage_ctl.buffer_end_time = kT0 + 25;
        const size_t uploads = tk::uploads().size();
        if (c.upload_rc != 0) {
            tk::queue_result("cloud_put_data_to_file", c.upload_rc);
        }
        EXPECT_EQ(__cloud_storage_upload_finish(kT0 + 30), c.expect);
        EXPECT_EQ(tk::uploads().size(), uploads + (c.buffered != 0 ? 1 : 0));
        ASSERT_FALSE(tk::posts_of(kStopApi).empty());
        EXPECT_EQ(tk::posts_of(kStopApi).back().body,
                  "{\"startTime\":1705305600,\"endTime\":" + std::to_string(c.end_time) + "}");
        EXPECT_EQ(cloud_storage_ctl.upload_status, UPLOAD_STATUS_FINISHED);
        EXPECT_EQ(cloud_storage_ctl.silence_end_time, c.mode == STORE_MODE_EVENT ? kT0 + 90 : 0u);
    }
    EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to upload media file"), 1u);
}

TEST_F(CloudRecording, RestartWithNewKeyKeepsStatusQuotaAndSilenceAndDoesNotReannounce) {
    cloud_storage_ctl.count_left = 5;
    cloud_storage_ctl.silence_interval = 60;
    cloud_storage_ctl.media_data_len = 100;
    cloud_storage_ctl.buffer_end_time = kT0 + 40;
    tk::queue_post_answer(kStartApi, 0, std::string(kNewKeyAnswer));
    EXPECT_EQ(__cloud_storage_upload_restart(kT0 + 41), -2001);
    ASSERT_EQ(tk::posts_of(kStopApi).size(), 1u);
    EXPECT_EQ(tk::posts_of(kStopApi)[0].body, R"({"startTime":1705305600,"endTime":1705305640})");
    EXPECT_EQ(tk::posts_of(kStartApi).size(), 1u);
    EXPECT_EQ(cloud_storage_ctl.count_left, 5);
    EXPECT_EQ(cloud_storage_ctl.silence_end_time, 0u);
    EXPECT_EQ(cloud_storage_ctl.upload_status, UPLOAD_STATUS_RUNNING);
    const std::string key = "NewKey0123456789";
    EXPECT_EQ(cloud_storage_ctl.encrypt_key_md5,
              tk::md5_hex(std::vector<uint8_t>(key.begin(), key.end())));
    EXPECT_STREQ(cloud_storage_ctl.media_file_name, "1705305641_0000.media");
}

} // namespace
