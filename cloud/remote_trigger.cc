/// Remote trigger over MQTT (protocol 307): the service asks for a picture, a recording or
/// both. The handler takes a snapshot, adds a remote-trigger event for a recording and raises
/// an alarm event through the kit carrying the picture and the request's extra data.
#include <cstdio>
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr int32_t MAX_DURATION = 1800;
constexpr int32_t SNAPSHOT_SIZE = 102400;
constexpr size_t EXTRA_SPARE = 16;
constexpr char EXTRA_FORMAT[] = "\"ext\":%s";
static_assert(sizeof(EXTRA_FORMAT) - 2 <= EXTRA_SPARE,
              "the spare bytes hold the prefix and the terminator");

constexpr uint32_t ALARM_KIND = 4;

struct trigger_action {
    const char *name;
    bool records;
    uint32_t with_picture;
};
constexpr trigger_action TRIGGER_ACTIONS[] = {
    {"pic", false, 1},
    {"record", true, 0},
    {"pic_v", true, 1},
};

const trigger_action *find_action(const char *name) {
    for (const trigger_action &action : TRIGGER_ACTIONS) {
        if (strcmp(action.name, name) == 0) {
            return &action;
        }
    }
    return nullptr;
}

/// Fills the alarm record and raises it; failures are logged and the request goes on.
void raise_alarm(uint32_t with_picture, uint32_t now, char *extra, uint8_t *picture,
                 uint32_t picture_size) {
    vexo_alarm_event_t alarm;
    memset(&alarm, 0, sizeof(alarm));
    alarm.kind = ALARM_KIND;
    alarm.reserved0 = 0;
    alarm.with_picture = with_picture;
    alarm.time = now;
    alarm.reserved1 = 0;
    alarm.flags[0] = 1;
    alarm.flags[1] = 1;
    alarm.flags[2] = 1;
    alarm.extra = extra;
    alarm.picture = picture;
    alarm.picture_size = picture_size;
    if (vexo_ipc_alarm_event(&alarm) != 0) {
        CS_ERR("fail to alarm event");
    }
}

/// The request once its message is read: snapshot, optional recording event, alarm.
void handle_trigger(const trigger_action &action, int32_t duration, const cJSON *ext) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    char *ext_text = cJSON_PrintUnformatted(ext);
    uint8_t *snapshot =
        ext_text != nullptr ? static_cast<uint8_t *>(Malloc(SNAPSHOT_SIZE)) : nullptr;
    if (snapshot == nullptr) {
        CS_ERR("fail to malloc buffer");
        cs_seq::report_none(45);
        cJSON_free(ext_text);
        return;
    }

    int32_t size = SNAPSHOT_SIZE;
    (void)vexo_ipc_get_snapshot_cb(snapshot, &size);
    if (size == 0 || static_cast<uint32_t>(size) > static_cast<uint32_t>(SNAPSHOT_SIZE)) {
        CS_ERR("fail to get snap or oversize %d", static_cast<int>(size));
        Free(snapshot);
        cs_seq::report_code(46, size);
        cJSON_free(ext_text);
        return;
    }

    const uint32_t now = uni_time_get_posix();
    if (action.records) {
        const int32_t mode = ctl.store_mode;
        if (mode != STORE_MODE_ALLTIME && mode != STORE_MODE_EVENT) {
            CS_ERR("cloud storage type error %d", static_cast<int>(mode));
            Free(snapshot);
            cJSON_free(ext_text);
            return;
        }
        const uint32_t end = now + static_cast<uint32_t>(duration);
        if (__add_event_to_list(&ctl, EVENT_TYPE_IOT, now, end, ext_text) == -1) {
            CS_ERR("fail to add event");
            Free(snapshot);
            cs_seq::report_none(47);
            cJSON_free(ext_text);
            return;
        }
    }

    const size_t extra_size = strlen(ext_text) + EXTRA_SPARE;
    char *extra = static_cast<char *>(Malloc(extra_size));
    if (extra == nullptr) {
        CS_ERR("fail to malloc buf");
        Free(snapshot);
        cJSON_free(ext_text);
        return;
    }
    // NOLINTNEXTLINE(cert-err33-c): never cut, the buffer is sized for it (static_assert above)
    snprintf(extra, extra_size, EXTRA_FORMAT, ext_text);

    raise_alarm(action.with_picture, now, extra, snapshot, static_cast<uint32_t>(size));

    Free(extra);
    cJSON_free(ext_text);
    Free(snapshot);
    cs_seq::report_none(49);
}

} // namespace

void __cloud_storage_iot_event_trigger_callback(cJSON *root) {
    CS_DBG("cloud storage event remote trigger");

    const cJSON *data = cJSON_GetObjectItem(root, "data");
    if (data == nullptr) {
        CS_ERR("data null");
        return;
    }
    const cJSON *action_item = cJSON_GetObjectItem(data, "action");
    if (!cJSON_IsString(action_item) || action_item->valuestring == nullptr) {
        CS_ERR("action null");
        return;
    }
    const cJSON *duration_item = cJSON_GetObjectItem(data, "duration");
    if (!cJSON_IsNumber(duration_item)) {
        CS_ERR("duration null");
        return;
    }
    const cJSON *ext = cJSON_GetObjectItem(data, "ext");
    if (ext == nullptr) {
        CS_ERR("ext null");
        return;
    }

    const char *action_text = action_item->valuestring;
    const int32_t duration = duration_item->valueint;
    CS_DBG("action:%s, duration:%d\n", action_text, static_cast<int>(duration));
    cs_seq::text(40, action_text);

    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.inited == 0) {
        CS_DBG("not inited, just return");
        cs_seq::report_none(41);
        return;
    }
    if (duration > MAX_DURATION) {
        CS_ERR("duration too big %d", static_cast<int>(duration));
        cs_seq::report_code(42, duration);
        return;
    }
    if (ctl.enable == 0) {
        CS_DBG("cloud storage is disabled now");
        cs_seq::report_none(44);
        return;
    }
    CS_DBG("receive cloud storage event trigger via mqtt action %s durantion %d", action_text,
           static_cast<int>(duration));

    const trigger_action *action = find_action(action_text);
    if (action == nullptr) {
        CS_ERR("unsupported action");
        return;
    }
    handle_trigger(*action, duration, ext);
}
