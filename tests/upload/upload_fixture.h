/// Shared set-up of the upload pipeline tests: the control block prepared by hand (mutexes,
/// slice buffer, key, IV, a running recording at kT0) without init or a running thread, and
/// helpers to offer frames, read the slice buffer back and drive single thread passes.
#ifndef VEXO_UPLOAD_FIXTURE_H
#define VEXO_UPLOAD_FIXTURE_H

#include <cstdio>
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "kit_fixture.h"
#include "media_file.h"

constexpr char kStartApi[] = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr char kStopApi[] = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr uint32_t kT0 = 1705305600; // the kit clock after reset
constexpr uint64_t kT0Ms = uint64_t{kT0} * 1000;
constexpr uint32_t kBufferSize = 4096;
const uint8_t kKey[16] = {'0', '1', '2', '3', '4', '5', '6', '7',
                          '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
using media_file::Entry;

/// Splits media bytes into entries; a malformed file fails the test.
inline std::vector<Entry> parse_media(const uint8_t *p, size_t n) {
    std::vector<Entry> out;
    std::string error;
    EXPECT_TRUE(media_file::parse(std::vector<uint8_t>(p, p + n), &out, &error)) << error;
    return out;
}

/// Payload as it went in: decrypted with the key and the fixed IV for key and audio frames.
inline std::vector<uint8_t> plain(const Entry &e) {
    if (e.type != VEXO_FRAME_I && e.type != VEXO_FRAME_AUDIO) {
        return e.payload;
    }
    return tk::aes_cbc_decrypt(kKey, kitcommon::kMediaIv, e.payload)
        .value_or(std::vector<uint8_t>{0xEE});
}

inline std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<uint8_t>(seed + i * 7);
    }
    return v;
}

// Hidden like the module's internal records it holds.
#pragma GCC visibility push(hidden)
class UploadTest : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        cloud_storage_ctl_t &c = cloud_storage_ctl;
        ASSERT_EQ(vexo_hal_mutex_create_init(&c.event_mutex), 0);
        ASSERT_EQ(vexo_hal_mutex_create_init(&c.upload_mutex), 0);
        c.media_buffer = static_cast<uint8_t *>(Malloc(kBufferSize));
        c.media_buffer_size = kBufferSize;
        c.slice_duration = 10;
        std::memcpy(c.encrypt_key, kKey, 16);
        std::memcpy(c.aes_iv, s_aes_iv, 16);
        std::snprintf(c.encrypt_key_md5, sizeof c.encrypt_key_md5, "0000");
        c.enable = 1;
        c.audio_enable = 1;
        c.media_info = default_media_info();
        c.store_mode = STORE_MODE_EVENT;
        s_max_frame_size = 1024;
        begin_recording(kT0);
        tk::set_default_post_answer(kStartApi, 0, std::string(R"({"needUpdate":0})"));
        tk::set_default_post_answer(kStopApi, 0, std::string("{}"));
    }

    void TearDown() override {
        if (st.video_handle != nullptr) {
            cloud_storage_thread_exit(&st);
        }
        if (uint8_t *buffer = cloud_storage_ctl.media_buffer.exchange(nullptr)) {
            Free(buffer);
        }
        cloud_storage_ctl.inited = 0;
        KitTest::TearDown();
    }

    static void begin_recording(uint32_t t) {
        cloud_storage_ctl_t &c = cloud_storage_ctl;
        c.recording_start_time = c.slice_start_time = c.uploaded_end_time = c.buffer_end_time = t;
        c.media_data_len = 0;
        c.upload_status = UPLOAD_STATUS_RUNNING;
        std::snprintf(c.media_file_name, sizeof c.media_file_name, "%u_0000.media", t);
    }

    static int32_t offer(uint32_t type, uint64_t ms, const std::vector<uint8_t> &bytes,
                         uint64_t pts = 0) {
        upload_frame_t f{type, bytes.data(), static_cast<uint32_t>(bytes.size()), pts, ms};
        return __upload_frame(&f);
    }

    static std::vector<Entry> buffered() {
        return parse_media(cloud_storage_ctl.media_buffer.load(), cloud_storage_ctl.media_data_len);
    }

    static void put_event(int i, int32_t status, uint32_t start, uint32_t end) {
        cloud_storage_event &e = cloud_storage_ctl.events[i];
        e = cloud_storage_event{};
        e.id = static_cast<uint32_t>(i + 1);
        e.status = status;
        e.start_time = start;
        e.end_time = end;
    }

    /// Readers opened and configuration fetched as the thread's start-up does, with the cloud
    /// answering the given store mode.
    void start_loop(const char *mode) {
        tk::set_default_storage_config(0, tk::make_storage_config(mode, 30, 10, 0, 20));
        cloud_storage_ctl.inited = 1;
        st.generation = cloud_storage_ctl.thread_generation;
        ASSERT_TRUE(cloud_storage_thread_startup(&st));
    }

    bool pass() { return cloud_storage_thread_pass(&st); }

    static uint32_t last_sleep() {
        std::vector<uint32_t> s = tk::sleeps_of("");
        return s.empty() ? 0 : s.back();
    }

    upload_thread_state st{};
};
#pragma GCC visibility pop

#endif
