/// Order change over MQTT (protocol 300): the user's cloud-storage order gained a store mode
/// or was aborted. The change is applied with upload_mutex held, so that no slice upload runs
/// while the order changes.
#include <cstdio>
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"
#include "core/kit_lock.h"

namespace {

constexpr char ACTION_STORE[] = "store";
constexpr char ACTION_ABORT[] = "abort";
/// Store mode text standing for the absence of a valid order.
constexpr char MODE_TEXT_NONE[] = "max";

/// Text of a string member of obj; null when missing or not a string.
const char *string_member(const cJSON *obj, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(obj, name);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

/// A "store" order: keeps going when the mode text is the one held, else fetches the
/// configuration again (the new mode comes from the fetch, not from the message).
void apply_store_order(cloud_storage_ctl_t &ctl, const char *mode) {
    bool unchanged = false;
    {
        kit_lock hold(ctl.upload_mutex);
        unchanged = strcmp(mode, ctl.storage_config.store_mode) == 0;
        if (unchanged) {
            CS_DBG("keep going");
        } else {
            (void)__update_cloud_storage_config();
            CS_DBG("new cloud type -> %d", static_cast<int>(ctl.store_mode));
        }
    }
    if (unchanged) {
        cs_seq::report_none(13);
        return;
    }
    CS_DBG("order change done");
}

/// Any other order: no valid order from now on.
void apply_abort_order(cloud_storage_ctl_t &ctl) {
    {
        kit_lock hold(ctl.upload_mutex);
        static_assert(sizeof(MODE_TEXT_NONE) <= sizeof(ctl.storage_config.store_mode),
                      "the mode text fits its field");
        // NOLINTNEXTLINE(cert-err33-c): never cut, "max" fits the field (static_assert above)
        snprintf(ctl.storage_config.store_mode, sizeof(ctl.storage_config.store_mode), "%s",
                 MODE_TEXT_NONE);
        ctl.store_mode = STORE_MODE_NONE;
        cs_seq::report_none(14);
    }
    CS_DBG("order change done");
}

} // namespace

void __cloud_storage_order_change(const char *action, const char *mode) {
    CS_DBG("receive cloud storage message from server[action:%s store_mode:%s]", action, mode);
    cs_seq::text(10, action);

    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (ctl.inited == 0) {
        CS_DBG("not inited, just return");
        cs_seq::report_none(11);
        return;
    }
    cs_seq::text(12, mode);

    // Always told first, before anything about the order is decided.
    (void)cloud_cfg_broadcast_update_status();

    if (strcmp(action, ACTION_STORE) == 0) {
        apply_store_order(ctl, mode);
    } else {
        apply_abort_order(ctl);
    }
}

void __cloud_storage_order_change_callback(cJSON *root) {
    const cJSON *data = cJSON_GetObjectItem(root, "data");
    if (data == nullptr) {
        return;
    }
    const char *action = string_member(data, "action");
    if (action == nullptr) {
        return;
    }
    CS_DBG("get cloud storage req");
    CS_DBG("action:%s\n", action);

    if (strcmp(action, ACTION_ABORT) == 0) {
        __cloud_storage_order_change(ACTION_ABORT, MODE_TEXT_NONE);
        return;
    }
    if (strcmp(action, ACTION_STORE) == 0) {
        const char *mode = string_member(data, "storeMode");
        if (mode == nullptr) {
            __cloud_storage_order_change(ACTION_STORE, MODE_TEXT_NONE);
            return;
        }
        CS_DBG("storeMode:%s\n", mode);
        __cloud_storage_order_change(ACTION_STORE, mode);
    }
}
