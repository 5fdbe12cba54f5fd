/// Device keys, and the device.json of the JSON layout read back.
#include "device_state.h"

#include <stdexcept>

#include "durable_file.h"
#include "json_fields.h"
#include "key_crypto.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

[[noreturn]] void corrupt(const std::string &path, const std::string &what) {
    throw std::runtime_error(path + ": " + what);
}

Order order_from_json(const Json &json, const std::string &path) {
    Order order;
    if (!json.is_object() || !get_text(json, "storeMode", &order.store_mode) ||
        !get_i32(json, "eventDuration", &order.event_duration) ||
        !get_i32(json, "sliceDuration", &order.slice_duration) ||
        !get_i32(json, "silenceInterval", &order.silence_interval) ||
        !get_i32(json, "dailyEvents", &order.daily_events) ||
        !get_flag(json, "expired", &order.expired) || !get_flag(json, "aborted", &order.aborted)) {
        corrupt(path, "bad order");
    }
    std::string error;
    if (!validate_order(order, &error)) {
        corrupt(path, error);
    }
    return order;
}

bool valid_key(const std::string &key, const std::string &md5) {
    if (key.size() != kKeyLength) {
        return false;
    }
    for (char c : key) {
        const bool alnum =
            (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (!alnum) {
            return false;
        }
    }
    return md5 == md5_hex(key);
}

std::vector<KeyRecord> history_from_json(const Json &json, const std::string &path) {
    if (!json.is_array()) {
        corrupt(path, "bad key history");
    }
    std::vector<KeyRecord> history;
    for (const Json &item : json) {
        KeyRecord record;
        if (!item.is_object() || !get_text(item, "key", &record.key) ||
            !get_text(item, "md5", &record.md5) || !get_u32(item, "issued", &record.issued) ||
            !valid_key(record.key, record.md5)) {
            corrupt(path, "bad key history entry");
        }
        history.push_back(record);
    }
    return history;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool issue_key_if_missing(DeviceState *state, uint32_t now) {
    if (!state->key.empty()) {
        return false;
    }
    state->key = generate_key();
    state->key_md5 = md5_hex(state->key);
    state->key_history.push_back(KeyRecord{state->key, state->key_md5, now});
    return true;
}

const KeyRecord *key_with_md5(const DeviceState &state, const std::string &md5) {
    for (auto it = state.key_history.rbegin(); it != state.key_history.rend(); ++it) {
        if (it->md5 == md5) {
            return &*it;
        }
    }
    return nullptr;
}

bool valid_device_state(const DeviceState &state, std::string *reason) {
    if (!validate_order(state.order, reason)) {
        return false;
    }
    if (!state.key.empty() && !valid_key(state.key, state.key_md5)) {
        *reason = "the key does not match its md5";
        return false;
    }
    for (const KeyRecord &record : state.key_history) {
        if (!valid_key(record.key, record.md5)) {
            *reason = "a key of the history does not match its md5";
            return false;
        }
    }
    return true;
}

DeviceState load_device_state(const std::string &device_dir) {
    const std::string path = device_dir + "/" + kDeviceFile;
    const std::optional<Json> json = parse_object(read_file(path));
    if (!json) {
        corrupt(path, "not a JSON object");
    }
    DeviceState state;
    const auto order = json->find("order");
    const auto allowance = json->find("allowance");
    const auto history = json->find("keyHistory");
    if (order == json->end() || allowance == json->end() || history == json->end()) {
        corrupt(path, "order, allowance or key history missing");
    }
    state.order = order_from_json(*order, path);
    state.key_history = history_from_json(*history, path);
    if (!get_text(*json, "key", &state.key) || !get_text(*json, "keyMd5", &state.key_md5)) {
        corrupt(path, "bad key");
    }
    if (!state.key.empty() && !valid_key(state.key, state.key_md5)) {
        corrupt(path, "the key does not match its md5");
    }
    if (!allowance->is_object() || !get_i32(*allowance, "day", &state.allowance.day) ||
        !get_i32(*allowance, "eventsStarted", &state.allowance.events_started) ||
        state.allowance.events_started < 0) {
        corrupt(path, "bad allowance");
    }
    return state;
}

} // namespace vexo_cloud
