// Upload thread passes driven one at a time on the test thread: start-up, pause, invalid
// order, configuration refresh, frame retry, muted audio, ring-buffer delay and exit.
#include "upload_fixture.h"

namespace {

using UploadThread = UploadTest;

TEST_F(UploadThread, StartupBacksOffWhileConfigFailsThenRepairsEventsAndExitReleasesAll) {
    for (int i = 0; i < 8; ++i) {
        tk::queue_storage_config(-1, tk::make_storage_config("event", 30, 10, 0, 20));
    }
    put_event(0, EVENT_READY, kT0 - 5, 0);
    tk::set_hw_engine(true);
    ASSERT_EQ(vexo_hw_aes_crypt_init(&cloud_storage_ctl.aes_handle, kKey), 0);
    start_loop("event");
    EXPECT_EQ(tk::sleeps_of(""),
              (std::vector<uint32_t>{500, 1000, 2000, 4000, 8000, 16000, 32000, 32000}));
    EXPECT_EQ(cloud_storage_ctl.events[0].end_time, kT0 + 25);

    cloud_storage_thread_exit(&st);
    st.video_handle = nullptr;
    EXPECT_EQ(cloud_storage_ctl.media_buffer.load(), nullptr);
    EXPECT_TRUE(cloud_storage_ctl.aes_handle.engine == 0);
    EXPECT_EQ(tk::open_reader_count(), 0u);
}

TEST_F(UploadThread, VideoReaderOpenFailureEndsTheThreadAtOnce) {
    tk::fail_open(VEXO_STREAM_MAIN);
    __thread_cloud_storage(nullptr);
    EXPECT_EQ(tk::count_logs(tk::Level::err, "vexo_ipc_ring_buffer_open video failed"), 1u);
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), 0u);
    // Nothing frees the buffer after this thread: it releases it on its way out.
    EXPECT_EQ(cloud_storage_ctl.media_buffer.load(), nullptr);
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "free media_buffer"), 1u);
}

TEST_F(UploadThread, PauseStopsEventsAndFinishesTheRecording) {
    start_loop("event");
    put_event(0, EVENT_ONGOING, kT0, kT0 + 30);
    cloud_storage_ctl.enable = 0;
    ASSERT_TRUE(pass());
    std::vector<tk::SeqEntry> seq = tk::seq_entries(20);
    ASSERT_EQ(seq.size(), 1u);
    EXPECT_TRUE(seq[0].report && seq[0].kind == 3 && seq[0].value == kT0);
    EXPECT_EQ(cloud_storage_ctl.events[0].status, EVENT_NONE);
    EXPECT_EQ(tk::posts_of(kStopApi).size(), 1u);
    EXPECT_EQ(last_sleep(), 300u);
}

TEST_F(UploadThread, UninitDuringAPassEndsTheLoopWithoutActingAsPaused) {
    start_loop("event");
    put_event(0, EVENT_ONGOING, kT0, kT0 + 30);
    // Uninit lands after the pass has found the module initialised: it clears inited, then
    // enable.
    tk::set_hook("uni_time_get_posix", [] {
        cloud_storage_ctl.inited = 0;
        cloud_storage_ctl.enable = 0;
    });
    EXPECT_FALSE(pass());
    tk::set_hook("uni_time_get_posix", {});
    EXPECT_TRUE(tk::posts_of(kStopApi).empty());
    EXPECT_TRUE(tk::seq_entries(20).empty());
    EXPECT_EQ(cloud_storage_ctl.events[0].status, EVENT_ONGOING);
}

TEST_F(UploadThread, NoValidOrderAsksForConfigAnHourLaterAtARandomMomentThenStartsAlltime) {
    start_loop("event");
    cloud_storage_ctl.store_mode = STORE_MODE_NONE;
    cloud_storage_ctl.order_invalid_time = kT0;
    cloud_storage_ctl.upload_status = 0;
    put_event(0, EVENT_READY, kT0, kT0 + 30);
    tk::set_default_storage_config(0, tk::make_storage_config("alltime", 30, 10, 0, 20));
    const uint64_t fetches = tk::calls("cloud_get_storage_config");
    tk::set_time(kT0 + 3599);
    ASSERT_TRUE(pass());
    EXPECT_EQ(cloud_storage_ctl.events[0].status, EVENT_NONE);
    EXPECT_TRUE(tk::random_calls().empty());
    EXPECT_EQ(last_sleep(), 500u);

    tk::set_time(kT0 + 3600);
    tk::queue_random(100);
    ASSERT_TRUE(pass());
    EXPECT_EQ(tk::random_calls(), std::vector<uint32_t>{3600});
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "backoff from 1705309200 to 1705309300"), 1u);
    tk::set_time(kT0 + 3699);
    ASSERT_TRUE(pass());
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), fetches);

    tk::set_time(kT0 + 3700);
    ASSERT_TRUE(pass());
    EXPECT_EQ(tk::count_logs(tk::Level::debug, "active require cloud storage config"), 1u);
    EXPECT_EQ(tk::calls("cloud_get_storage_config"), fetches + 1);
    EXPECT_EQ(cloud_storage_ctl.config_retry_time, 0u);
    EXPECT_EQ(cloud_storage_ctl.upload_status, UPLOAD_STATUS_RUNNING);
    ASSERT_EQ(tk::posts_of(kStartApi).size(), 1u);
    EXPECT_NE(tk::posts_of(kStartApi)[0].body.find("\"startTime\":1705309300,"), std::string::npos);
}

TEST_F(UploadThread, ConfigIsRefreshedOnceOlderThan1799Seconds) {
    start_loop("event");
    struct Case {
        uint32_t age;
        int32_t rc;
        uint64_t fetches;
        uint32_t sleep;
    };
    for (const Case &c : {Case{1799, 0, 0, 100}, Case{1800, 0, 1, 100}, Case{1800, -1, 1, 500}}) {
        SCOPED_TRACE(testing::Message() << c.age << "/" << c.rc);
        cloud_storage_ctl.config_time = static_cast<uint32_t>(tk::now_ms() / 1000) - c.age;
        if (c.fetches != 0) {
            tk::queue_storage_config(c.rc, tk::make_storage_config("event", 30, 10, 0, 20));
        }
        const uint64_t before = tk::calls("cloud_get_storage_config");
        tk::clear_logs();
        ASSERT_TRUE(pass());
        EXPECT_EQ(tk::calls("cloud_get_storage_config") - before, c.fetches);
        EXPECT_EQ(tk::count_logs(tk::Level::err, "fail to update cloud storage config"),
                  c.rc != 0 ? 1u : 0u);
        EXPECT_EQ(last_sleep(), c.sleep);
    }
}

TEST_F(UploadThread, KeyFrameRefusedAtSliceBoundaryIsReadAgainIntoTheNextFile) {
    start_loop("alltime");
    cloud_storage_ctl.upload_status = 0;
    cloud_storage_ctl.audio_enable = 0; // all-time with audio off reads video only
    tk::push_frame(VEXO_STREAM_AUDIO, VEXO_FRAME_AUDIO, pattern(32, 9), kT0Ms, 0);
    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_I, pattern(100, 1), kT0Ms, 1);
    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_P, pattern(40, 2), kT0Ms + 500, 2);
    tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_I, pattern(100, 3), kT0Ms + 10000, 3);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(pass());
    }
    EXPECT_EQ(st.retry, 1);
    ASSERT_EQ(tk::uploads().size(), 1u);
    EXPECT_EQ(parse_media(tk::uploads()[0].bytes.data(), tk::uploads()[0].bytes.size()).size(), 2u);

    ASSERT_TRUE(pass());
    EXPECT_EQ(st.retry, 0);
    std::vector<Entry> next = buffered();
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].timestamp, kT0Ms + 10000);
    EXPECT_EQ(plain(next[0]), pattern(100, 3));
    EXPECT_EQ(tk::calls("vexo_ipc_ring_buffer_get_av_frame"), 0u);
}

TEST_F(UploadThread, EventModeWithAudioOffUploadsZeroesOfTheFrameSizeUnlessAllocationFails) {
    start_loop("event");
    put_event(0, EVENT_ONGOING, kT0, kT0 + 1000);
    cloud_storage_ctl.audio_enable = 0;
    uint64_t ms = kT0Ms;
    for (const auto &[size, alloc_fails] :
         {std::pair<size_t, bool>{32, true}, {32, false}, {64, false}}) {
        SCOPED_TRACE(testing::Message() << size << "/" << alloc_fails);
        if (alloc_fails) {
            tk::fail_alloc_call(tk::Pool::system, 1);
        }
        tk::push_frame(VEXO_STREAM_AUDIO, VEXO_FRAME_AUDIO, pattern(size, 5), ms += 40, 0);
        ASSERT_TRUE(pass());
        std::vector<Entry> e = buffered();
        ASSERT_FALSE(e.empty());
        EXPECT_EQ(e.back().timestamp, ms);
        EXPECT_EQ(plain(e.back()), alloc_fails ? pattern(size, 5) : std::vector<uint8_t>(size, 0));
        EXPECT_EQ(st.mute_buffer_size, alloc_fails ? 0u : size);
    }
    EXPECT_EQ(tk::count_logs(tk::Level::err, "malloc failed\n"), 1u);
}

TEST_F(UploadThread, RingBufferDelayFinishesTheRecordingAndInEventModeRestartsIt) {
    start_loop("event");
    put_event(0, EVENT_ONGOING, kT0, kT0 + 1000);
    size_t n = 0;
    for (int32_t mode : {STORE_MODE_ALLTIME, STORE_MODE_EVENT}) {
        SCOPED_TRACE(mode);
        cloud_storage_ctl.store_mode = mode;
        begin_recording(kT0);
        tk::push_frame(VEXO_STREAM_MAIN, VEXO_FRAME_I, pattern(64, 1), kT0Ms + 40 * n, 0);
        tk::force_delay(1);
        ASSERT_TRUE(pass());
        ++n;
        std::vector<tk::SeqEntry> seq = tk::seq_entries(21);
        ASSERT_EQ(seq.size(), n);
        EXPECT_TRUE(seq.back().report && seq.back().kind == 1 && seq.back().value == 0);
        EXPECT_EQ(tk::count_logs(tk::Level::debug, "ring buffer delay too much"), n);
        EXPECT_EQ(tk::uploads().size(), n); // the frame taken went out with the finish
        EXPECT_EQ(tk::posts_of(kStopApi).size(), n);
        EXPECT_EQ(st.restart_pending, mode == STORE_MODE_EVENT ? 1 : 0);
    }
}

} // namespace
