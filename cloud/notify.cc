/// Cloud API notifications: the start and stop of a cloud recording, posted through the
/// kit's HTTP API client. The start answer may hand the device a new encryption key.
#include <array>
#include <cstdio>
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

/// API names by notification type: 0 start, 1 stop, 2 event report (never sent here).
constexpr std::array<const char *, 3> API_NAMES = {
    "vexo.device.ipc.media.storage.notify.upload.start",
    "vexo.device.ipc.media.storage.notify.upload.stop",
    "vexo.device.ipc.media.storage.report.event",
};
constexpr char API_VERSION[] = "1.0";

constexpr int32_t NOTIFY_START = 0;
constexpr int32_t NOTIFY_STOP = 1;

/// Spare zero bytes after the body copy, room for the HTTP client to work in place.
constexpr size_t POST_SPARE = 30;
constexpr size_t BODY_SIZE = 256;
constexpr size_t MAX_KEY_TEXT = 64;
constexpr size_t KEY_BYTES = 16;

/// Start body. payloadInfo is a JSON text carried as a JSON string, hence its escaped quotes.
constexpr char START_BODY_WITH_AUDIO[] =
    "{\"startTime\":%d,\"payloadInfo\":\"{\\\"v\\\":1,\\\"vType\\\":\\\"%d\\\",\\\"vFps\\\":%d,"
    "\\\"vWide\\\":%d,\\\"vHigh\\\":%d,\\\"aType\\\":\\\"%d\\\",\\\"aSampling\\\":%d,"
    "\\\"aBitwide\\\":%d,\\\"aChannels\\\":%d}\",\"mtu\":%d,\"enKeyMd5\":\"%s\"}";
constexpr char START_BODY_VIDEO_ONLY[] =
    "{\"startTime\":%d,\"payloadInfo\":\"{\\\"v\\\":1,\\\"vType\\\":\\\"%d\\\",\\\"vFps\\\":%d,"
    "\\\"vWide\\\":%d,\\\"vHigh\\\":%d}\",\"mtu\":%d,\"enKeyMd5\":\"%s\"}";
constexpr char STOP_BODY[] = "{\"startTime\":%d,\"endTime\":%d}";
/// Longest text of an int ("-2147483648").
constexpr size_t INT_TEXT_MAX = 11;
// Each "%d" (2 characters) prints as at most INT_TEXT_MAX.
static_assert(sizeof(STOP_BODY) + 2 * (INT_TEXT_MAX - 2) <= BODY_SIZE,
              "a stop body with any two times fits its buffer");

/// Integer value of an answer item; a JSON true reads as 1 however the object was built.
int item_int_value(const cJSON *item) {
    if (cJSON_IsTrue(item)) {
        return 1;
    }
    if (cJSON_IsNumber(item)) {
        return item->valueint;
    }
    return 0;
}

void print_start_body(char *body, size_t size, uint32_t start_time,
                      const vexo_ipc_media_info_t *media, uint32_t mtu, const char *key_md5) {
    // A body longer than the buffer is cut, as intended: a bounded print of a fixed-size
    // notice. Real media values (small codes, rates and sizes) keep it well under 256 bytes.
    if (media->channel_enable[CS_AUDIO_CHANNEL] != 0) {
        // NOLINTNEXTLINE(cert-err33-c): cut when too long, as intended (see above)
        snprintf(body, size, START_BODY_WITH_AUDIO, static_cast<int>(start_time),
                 static_cast<int>(media->video_codec[0]), static_cast<int>(media->video_fps[0]),
                 static_cast<int>(media->video_width[0]), static_cast<int>(media->video_height[0]),
                 static_cast<int>(media->audio_codec[CS_AUDIO_CHANNEL]),
                 static_cast<int>(media->audio_sample[CS_AUDIO_CHANNEL]),
                 static_cast<int>(media->audio_databits[CS_AUDIO_CHANNEL]),
                 static_cast<int>(media->audio_channel[CS_AUDIO_CHANNEL]), static_cast<int>(mtu),
                 key_md5);
    } else {
        // NOLINTNEXTLINE(cert-err33-c): cut when too long, as intended (see above)
        snprintf(body, size, START_BODY_VIDEO_ONLY, static_cast<int>(start_time),
                 static_cast<int>(media->video_codec[0]), static_cast<int>(media->video_fps[0]),
                 static_cast<int>(media->video_width[0]), static_cast<int>(media->video_height[0]),
                 static_cast<int>(mtu), key_md5);
    }
}

} // namespace

int32_t httpc_ipc_cloud_storage_event_notify_v10(const char *gw_id, int32_t type,
                                                 const char *cloud_msg, cJSON **result) {
    if (type < 0 || static_cast<size_t>(type) >= API_NAMES.size()) {
        return CS_BAD_ARG;
    }
    const char *api_name = API_NAMES[static_cast<size_t>(type)];
    if (gw_id == nullptr) {
        CS_ERR("%s is null", "gw_id");
        return CS_BAD_ARG;
    }
    if (cloud_msg == nullptr) {
        CS_ERR("%s is null", "cloud_msg");
        return CS_BAD_ARG;
    }
    if (result == nullptr) {
        CS_ERR("%s is null", "result");
        return CS_BAD_ARG;
    }

    const size_t msg_len = strlen(cloud_msg);
    const size_t post_len = msg_len + POST_SPARE;
    char *post_data = static_cast<char *>(Malloc(post_len));
    if (post_data == nullptr) {
        CS_ERR("Malloc Fail.");
        return CS_NO_MEMORY;
    }
    // The text with its terminator, then zeros to the end of the spare bytes.
    static_assert(POST_SPARE >= 1, "the spare bytes hold the terminator");
    memset(post_data, 0, post_len);
    memcpy(post_data, cloud_msg, msg_len + 1);

    const int32_t ret =
        iot_httpc_common_post_no_remalloc(api_name, API_VERSION, nullptr, gw_id, post_data,
                                          static_cast<uint32_t>(post_len), nullptr, result);
    Free(post_data);
    return ret;
}

int32_t httpc_ipc_cloud_storage_event_notify(int32_t type, const char *cloud_msg, cJSON **result) {
    return httpc_ipc_cloud_storage_event_notify_v10(get_gw_cntl()->gw_id, type, cloud_msg, result);
}

int32_t cloud_storage_start_notify(uint32_t start_time, const vexo_ipc_media_info_t *media,
                                   uint32_t mtu, const char *key_md5, uint8_t *new_key) {
    char body[BODY_SIZE] = {};
    cs_seq::time(30, start_time);
    print_start_body(body, sizeof(body), start_time, media, mtu, key_md5);

    cJSON *answer = nullptr;
    const int32_t ret = httpc_ipc_cloud_storage_event_notify(NOTIFY_START, body, &answer);
    if (ret != 0 || answer == nullptr) {
        CS_ERR("httpc_ipc_cloud_storage_event_notify fail!\n");
        if (answer != nullptr) {
            cJSON_Delete(answer);
        }
        cs_seq::report_code(31, ret);
        return CS_START_NOTIFY_FAILED;
    }

    const cJSON *need_update = cJSON_GetObjectItem(answer, "needUpdate");
    if (need_update == nullptr) {
        CS_ERR("fail to get value for key needUpdate");
        cJSON_Delete(answer);
        cs_seq::report_code(32, 0);
        return CS_START_NOTIFY_FAILED;
    }
    if (item_int_value(need_update) == 0) {
        cJSON_Delete(answer);
        cs_seq::report_none(36);
        return CS_OK;
    }

    const cJSON *key_item = cJSON_GetObjectItem(answer, "encryptKey");
    const char *key_text = cJSON_IsString(key_item) ? key_item->valuestring : nullptr;
    if (key_text == nullptr) {
        CS_ERR("fail to get value for key encryptKey");
        cJSON_Delete(answer);
        cs_seq::report_code(33, 0);
        return CS_START_NOTIFY_FAILED;
    }
    const size_t key_len = strlen(key_text);
    if (key_len > MAX_KEY_TEXT) {
        CS_ERR("invalid key value for key encryptKey");
        cJSON_Delete(answer);
        cs_seq::report_code(34, static_cast<int32_t>(key_len));
        return CS_START_NOTIFY_FAILED;
    }

    // Bounded copy of 16 bytes: a shorter key is zero-padded, a longer one cut without a
    // terminator.
    memset(new_key, 0, KEY_BYTES);
    memcpy(new_key, key_text, key_len < KEY_BYTES ? key_len : KEY_BYTES);
    cJSON_Delete(answer);
    cs_seq::report_none(35);
    return CS_NEW_KEY;
}

int32_t cloud_storage_stop_notify(uint32_t start_time, uint32_t end_time) {
    char body[BODY_SIZE] = {};
    // NOLINTNEXTLINE(cert-err33-c): never cut, any two times fit (static_assert above)
    snprintf(body, sizeof(body), STOP_BODY, static_cast<int>(start_time),
             static_cast<int>(end_time));

    cJSON *answer = nullptr;
    const int32_t ret = httpc_ipc_cloud_storage_event_notify(NOTIFY_STOP, body, &answer);
    if (answer != nullptr) {
        cJSON_Delete(answer);
    }
    cs_seq::time(37, start_time);
    cs_seq::report_time(38, end_time);
    return ret;
}
