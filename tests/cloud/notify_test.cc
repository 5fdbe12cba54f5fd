// Start and stop notifications and their common sender.
#include <cstring>
#include <optional>
#include <string>

#include "cloud_fixture.h"

namespace {

const std::string kStartApi = "vexo.device.ipc.media.storage.notify.upload.start";
const std::string kStopApi = "vexo.device.ipc.media.storage.notify.upload.stop";
const char kMd5[] = "0123456789abcdef0123456789abcdef";

class CloudNotify : public CloudTest {
  protected:
    /// The default media parameters (H.264 = 2, G.711 A-law = 103), audio channel on or off.
    static vexo_ipc_media_info_t media(bool audio) {
        vexo_ipc_media_info_t m = default_media_info();
        m.channel_enable[CS_AUDIO_CHANNEL] = audio ? 1 : 0;
        return m;
    }
};

// The body with audio and a key digest is compared whole by the system runs.
TEST_F(CloudNotify, VideoOnlyStartBodiesArePostedWithDeviceIdAndSpareRoom) {
    tk::set_gw_id("cam-42");
    const std::string video_only =
        R"({"startTime":1705305600,"payloadInfo":"{\"v\":1,\"vType\":\"2\",\"vFps\":25,)"
        R"(\"vWide\":1920,\"vHigh\":1080}","mtu":10,"enKeyMd5":"0000"})";
    const std::string long_md5(300, 'f'); // cut short by the bounded print, not refused
    tk::set_default_post_answer(kStartApi, 0, R"({"needUpdate":false})");
    uint8_t key[16] = {};
    const vexo_ipc_media_info_t silent = media(false);
    EXPECT_EQ(cloud_storage_start_notify(1705305600, &silent, 10, "0000", key), 0);
    EXPECT_EQ(cloud_storage_start_notify(1705305600, &silent, 10, long_md5.c_str(), key), 0);

    const auto posts = tk::posts();
    ASSERT_EQ(posts.size(), 2u);
    EXPECT_EQ(posts[0].body, video_only);
    EXPECT_EQ(posts[1].body,
              (video_only.substr(0, video_only.size() - 6) + long_md5).substr(0, 255));
    for (const tk::Post &p : posts) {
        EXPECT_EQ(p.api + " " + p.version + " " + p.dev_id, kStartApi + " 1.0 cam-42");
        EXPECT_TRUE(p.uuid_null && p.extra_header_null);
        EXPECT_EQ(p.post_len, p.body.size() + 30);
    }
}

TEST_F(CloudNotify, StartAnswerDecidesResultNewKeyAndReport) {
    const std::string untouched(16, '\xAA'),
        failed = "httpc_ipc_cloud_storage_event_notify fail!\n";
    const std::string key64 = "0123456789ABCDEF" + std::string(48, 'x');
    const std::string padded = "abc" + std::string(13, '\0'); // a short key is zero-padded
    const struct {
        int32_t rc;
        std::optional<std::string> json;
        int32_t result;
        std::string key; // the 16 bytes of the new-key buffer afterwards
        std::string report;
        std::string err; // the one error line, or empty
    } cases[] = {
        // clang-format off
        {0, R"({"needUpdate":false,"encryptKey":"0123456789ABCDEF"})", 0, untouched, "r36", ""},
        {0, R"({"needUpdate":true,"encryptKey":")" + key64 + "\"}", -2001, key64.substr(0, 16), "r35", ""},
        {0, R"({"needUpdate":1,"encryptKey":"abc"})", -2001, padded, "r35", ""},
        {0, R"({"needUpdate":true,"encryptKey":")" + key64 + "y\"}", -9, untouched, "r34:65",
         "invalid key value for key encryptKey"},
        {0, R"({"encryptKey":"abc"})", -9, untouched, "r32:0", "fail to get value for key needUpdate"},
        {0, R"({"needUpdate":true})", -9, untouched, "r33:0", "fail to get value for key encryptKey"},
        {-7, R"({"needUpdate":false})", -9, untouched, "r31:-7", failed},
        {0, std::nullopt, -9, untouched, "r31:0", failed},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json.value_or("(no answer)"));
        reset_kit();
        tk::queue_post_answer(kStartApi, c.rc, c.json);
        uint8_t key[16];
        memset(key, 0xAA, sizeof(key));
        const vexo_ipc_media_info_t m = media(true);
        EXPECT_EQ(cloud_storage_start_notify(1705305605, &m, 10, kMd5, key), c.result);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(key), 16), c.key);
        EXPECT_EQ(trail(), (Texts{"30@1705305605", c.report}));
        EXPECT_EQ(errors(), c.err.empty() ? Texts{} : Texts{c.err});
    }
}

TEST_F(CloudNotify, StopReturnsSenderResultEvenWithoutAnswerAndLogsBothTimes) {
    tk::queue_post_answer(kStopApi, 0);
    tk::queue_post_answer(kStopApi, -5, R"({"ok":0})");
    EXPECT_EQ(cloud_storage_stop_notify(2000, 2037), 0);
    EXPECT_EQ(cloud_storage_stop_notify(3000, 3037), -5);
    EXPECT_EQ(trail(), (Texts{"37@2000", "r38@2037", "37@3000", "r38@3037"}));
    EXPECT_TRUE(errors().empty());
}

TEST_F(CloudNotify, SenderRejectsBadTypeNullResultAndAllocationFailure) {
    cJSON *answer = nullptr;
    EXPECT_EQ(httpc_ipc_cloud_storage_event_notify_v10("gw", 3, "{}", &answer), -2);
    EXPECT_TRUE(tk::logs().empty());
    EXPECT_EQ(httpc_ipc_cloud_storage_event_notify_v10("gw", 0, "{}", nullptr), -2);
    tk::fail_alloc_call(tk::Pool::malloc, 1);
    EXPECT_EQ(httpc_ipc_cloud_storage_event_notify_v10("gw", 0, "{}", &answer), -3);
    EXPECT_EQ(errors(), (Texts{"result is null", "Malloc Fail."}));
    EXPECT_TRUE(tk::posts().empty());
}

} // namespace
