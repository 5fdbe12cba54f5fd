// MQTT dispatch, alarm events, snapshots and the skill registry. MQTT messages are delivered by
// the test on its own thread (standing in for the kit's MQTT thread); alarms and skills are
// recorded as deep copies.
#include <algorithm>
#include <cjson/cJSON.h>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr size_t kSkillParamSize = 512;

std::mutex g_mu;
std::map<uint32_t, vexo_mqtt_handler_t> g_handlers;
std::vector<tk::Alarm> g_alarms;
std::vector<uint8_t> g_snapshot;
std::optional<int32_t> g_snapshot_size;
std::vector<tk::Skill> g_skills;

std::vector<uint8_t> default_snapshot() {
    // A fake JPEG: start marker, a deterministic body, end marker.
    std::vector<uint8_t> pic(2048);
    for (size_t i = 0; i < pic.size(); ++i) {
        pic[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    pic[0] = 0xFF;
    pic[1] = 0xD8;
    pic[pic.size() - 2] = 0xFF;
    pic[pic.size() - 1] = 0xD9;
    return pic;
}

} // namespace

namespace tk::detail {

void reset_device() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_handlers.clear();
    g_alarms.clear();
    g_snapshot = default_snapshot();
    g_snapshot_size.reset();
    g_skills.clear();
}

} // namespace tk::detail

namespace tk {

bool deliver_mqtt(uint32_t protocol, const std::string &json) {
    vexo_mqtt_handler_t handler = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        auto it = g_handlers.find(protocol);
        if (it != g_handlers.end()) {
            handler = it->second;
        }
    }
    if (handler == nullptr) {
        return false;
    }
    cJSON *root = cJSON_Parse(json.c_str());
    if (root == nullptr) {
        return false;
    }
    handler(root);
    cJSON_Delete(root);
    return true;
}

bool mqtt_attached(uint32_t protocol) {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_handlers.count(protocol) != 0;
}

std::vector<Alarm> alarms() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_alarms;
}

void set_snapshot(const std::vector<uint8_t> &picture) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_snapshot = picture;
}

void set_snapshot_size(std::optional<int32_t> size) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_snapshot_size = size;
}

std::vector<Skill> skills() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_skills;
}

} // namespace tk

extern "C" {

int32_t mqtt_attach(uint32_t protocol, vexo_mqtt_handler_t handler) {
    if (auto scripted = tk::detail::enter("mqtt_attach")) {
        return *scripted;
    }
    if (handler == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_handlers[protocol] = handler;
    return 0;
}

int32_t vexo_ipc_alarm_event(const vexo_alarm_event_t *event) {
    std::optional<int32_t> scripted = tk::detail::enter("vexo_ipc_alarm_event");
    if (event == nullptr) {
        return -1;
    }
    tk::Alarm a;
    a.kind = event->kind;
    a.reserved0 = event->reserved0;
    a.with_picture = event->with_picture;
    a.time = event->time;
    a.reserved1 = event->reserved1;
    std::memcpy(a.flags, event->flags, sizeof(a.flags));
    std::memcpy(a.reserved2, event->reserved2, sizeof(a.reserved2));
    a.extra_null = event->extra == nullptr;
    if (event->extra != nullptr) {
        a.extra = event->extra;
    }
    a.picture_null = event->picture == nullptr;
    a.picture_size = event->picture_size;
    if (event->picture != nullptr) {
        a.picture.assign(event->picture, event->picture + event->picture_size);
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_alarms.push_back(std::move(a));
    return scripted ? *scripted : 0;
}

int32_t vexo_ipc_get_snapshot_cb(uint8_t *buf, int32_t *size) {
    if (auto scripted = tk::detail::enter("vexo_ipc_get_snapshot_cb")) {
        return *scripted;
    }
    if (buf == nullptr || size == nullptr || *size < 0) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    size_t room = static_cast<size_t>(*size);
    size_t n = std::min(room, g_snapshot.size());
    if (n > 0) {
        std::memcpy(buf, g_snapshot.data(), n);
    }
    *size = g_snapshot_size ? *g_snapshot_size : static_cast<int32_t>(g_snapshot.size());
    return 0;
}

int32_t vexo_ipc_skill_enable(uint32_t skill, const uint8_t param[512]) {
    if (auto scripted = tk::detail::enter("vexo_ipc_skill_enable")) {
        return *scripted;
    }
    tk::Skill s{skill, {}};
    if (param != nullptr) {
        s.param.assign(param, param + kSkillParamSize);
    }
    std::lock_guard<std::mutex> lock(g_mu);
    g_skills.push_back(std::move(s));
    return param != nullptr ? 0 : -1;
}

} // extern "C"
