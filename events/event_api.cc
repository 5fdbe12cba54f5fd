/// The exported event calls: the application reports, ends, retypes and queries events.
/// Each call checks the module's state, applies the quota and silence rules in event store
/// mode, then works on the event table through its primitives (which lock by themselves).
#include <cstdio>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr uint32_t MAX_RECORD_ONLY_DURATION = 300;
constexpr int STOP_POLLS = 301;
constexpr uint32_t STOP_POLL_MS = 100;

/// Every event call except the status-by-id query refuses an uninitialised module the same
/// way.
bool inited_or_log(const cloud_storage_ctl_t &ctl) {
    if (ctl.inited == 0) {
        CS_ERR("cloud storage not inited");
        return false;
    }
    return true;
}

bool type_out_of_range(int32_t type) {
    return static_cast<uint32_t>(type) > static_cast<uint32_t>(EVENT_TYPE_MAX_VALID);
}

/// Silence and daily-count admission of an event in event store mode: 0, or the refusing
/// check's own result.
int32_t admit_event(uint32_t now) {
    int32_t ret = __check_silence_time(now);
    if (ret != 0) {
        CS_ERR("cloud storage event enter silence time");
        return ret;
    }
    ret = __check_event_count();
    if (ret != 0) {
        __update_cloud_storage_config_new_day();
        ret = __check_event_count();
        if (ret != 0) {
            CS_ERR("cloud storage event over limits today");
            return ret;
        }
    }
    return CS_OK;
}

int32_t event_start() {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    if (ctl.enable == 0) {
        CS_DBG("cloud storage is disabled now");
        return CS_NOT_ALLOWED;
    }
    const uint32_t now = uni_time_get_posix();
    cs_seq::time(55, now);

    if (__event_list_is_empty(&ctl) == 0) {
        CS_ERR("event on going now, stop it first");
        cs_seq::report_none(56);
        return CS_NOT_ALLOWED;
    }
    if (ctl.store_mode == STORE_MODE_EVENT) {
        const int32_t ret = admit_event(now);
        if (ret != 0) {
            return ret;
        }
    }
    const uint32_t end = now + static_cast<uint32_t>(ctl.storage_config.event_duration);
    if (__add_event_to_list(&ctl, EVENT_TYPE_MD, now, end, nullptr) == -1) {
        CS_ERR("fail to add event");
        cs_seq::report_none(57);
        return CS_NOT_ALLOWED;
    }
    CS_DBG("new event added to list, time %d", static_cast<int>(now));
    return CS_OK;
}

int32_t event_add_record_only(int32_t type, int32_t duration) {
    if (type_out_of_range(type) || static_cast<uint32_t>(duration) > MAX_RECORD_ONLY_DURATION) {
        CS_ERR("invalid input  type %d(%d) duration %d(%d)", static_cast<int>(type),
               static_cast<int>(EVENT_TYPE_NONE), static_cast<int>(duration),
               static_cast<int>(MAX_RECORD_ONLY_DURATION));
        return CS_FAIL;
    }
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    if (ctl.enable == 0) {
        CS_DBG("cloud storage is disabled now");
        return CS_FAIL; // -1 here, not -2000 as in the other calls
    }
    const uint32_t now = uni_time_get_posix();
    cs_seq::time(50, now);

    if (ctl.store_mode == STORE_MODE_EVENT) {
        const int32_t ret = admit_event(now);
        if (ret != 0) {
            return ret;
        }
    }
    const uint32_t end = now + static_cast<uint32_t>(duration);
    const int32_t id = __add_event_to_list(&ctl, type, now, end, nullptr);
    if (id == -1) {
        CS_ERR("fail to add event");
        cs_seq::report_none(51);
        return CS_FAIL;
    }
    CS_DBG("add event start done, event_id %d time %d-%d", static_cast<int>(id),
           static_cast<int>(now), static_cast<int>(end));
    return id;
}

int32_t event_stop() {
    CS_DBG("stop event MD");
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    __mark_event_to_stop(&ctl, EVENT_TYPE_MD);
    for (int poll = 0; poll < STOP_POLLS; ++poll) {
        vexo_hal_system_sleep(STOP_POLL_MS);
        if (__get_event_status(&ctl, EVENT_TYPE_MD) == EVENT_NONE) {
            CS_DBG("stop event done");
            return CS_OK;
        }
    }
    CS_DBG("stop event timeout, force return");
    cs_seq::report_none(59);
    return CS_FAIL;
}

int32_t event_stop_async() {
    CS_DBG("stop event MD");
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    __mark_event_to_stop(&ctl, EVENT_TYPE_MD);
    return CS_OK;
}

int32_t event_stop_immediately() {
    CS_DBG("stop event MD immediately");
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    __mark_event_to_fast_stop(&ctl, EVENT_TYPE_MD);
    return CS_OK;
}

int32_t event_delete(int32_t id) {
    CS_DBG("delete event %d", static_cast<int>(id));
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    cs_seq::code(54, id);
    __delete_event_from_list(&ctl, static_cast<uint32_t>(id));
    CS_DBG("delete event done");
    return CS_OK;
}

/// The state checks shared by set-type and event-notify: 0 when the call may go on.
int32_t check_retype_allowed(cloud_storage_ctl_t &ctl) {
    if (!inited_or_log(ctl)) {
        return CS_FAIL;
    }
    if (ctl.enable == 0) {
        CS_DBG("cloud storage is disabled now");
        return CS_NOT_ALLOWED;
    }
    const int32_t mode = ctl.store_mode;
    if (mode > STORE_MODE_EVENT) {
        CS_ERR("cloud storage type error %d", static_cast<int>(mode));
        return CS_NOT_ALLOWED;
    }
    return CS_OK;
}

int32_t set_event_type(int32_t id, int32_t type) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const int32_t allowed = check_retype_allowed(ctl);
    if (allowed != CS_OK) {
        return allowed;
    }
    if (type_out_of_range(type) || type == EVENT_TYPE_UNKNOWN) {
        CS_ERR("invalid event type");
        return CS_BAD_ARG;
    }
    CS_DBG("event[%d] type set to %d", static_cast<int>(id), static_cast<int>(type));
    const int32_t ret = __set_event_type_by_id(&ctl, static_cast<uint32_t>(id), type);
    CS_DBG("event type set done, ret:%d", static_cast<int>(ret));
    return ret;
}

int32_t get_event_status(int32_t type) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (!inited_or_log(ctl)) {
        return EVENT_INVALID;
    }
    return __get_event_status(&ctl, type);
}

int32_t event_notify(int32_t id, int32_t type) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const int32_t allowed = check_retype_allowed(ctl);
    if (allowed != CS_OK) {
        return allowed;
    }
    if (type_out_of_range(type)) {
        CS_ERR("invalid event type");
        return CS_BAD_ARG;
    }
    CS_DBG("event notify for type %d id %d", static_cast<int>(type), static_cast<int>(id));

    const cloud_storage_event *slot = __get_event(&ctl, static_cast<uint32_t>(id));
    if (slot == nullptr) {
        CS_DBG("event notify done");
        return CS_OK;
    }
    const uint32_t end = uni_time_get_posix();
    char text[CS_NOTIFY_JSON_SIZE] = {};
    // NOLINTNEXTLINE(cert-err33-c): a text longer than the buffer is cut, as intended
    snprintf(text, sizeof(text), CS_EVENT_NOTIFY_FORMAT, static_cast<int>(slot->start_time),
             static_cast<int>(end), static_cast<int>(type));
    if (cloud_storage_event_notify(text) != 0) {
        CS_ERR("fail to add event");
        return CS_NOT_ALLOWED;
    }
    CS_DBG("event notify done");
    return CS_OK;
}

} // namespace

extern "C" {

int32_t vexo_ipc_cloud_storage_event_start(void) {
    return event_start();
}

int32_t vexo_ipc_cloud_storage_event_add_record_only(int32_t type, int32_t duration) {
    return event_add_record_only(type, duration);
}

int32_t vexo_ipc_cloud_storage_event_stop(void) {
    return event_stop();
}

int32_t vexo_ipc_cloud_storage_event_stop_async(void) {
    return event_stop_async();
}

int32_t vexo_ipc_cloud_storage_event_stop_immediately(void) {
    return event_stop_immediately();
}

int32_t vexo_ipc_cloud_storage_event_delete(int32_t id) {
    return event_delete(id);
}

int32_t vexo_ipc_cloud_storage_set_event_type(int32_t id, int32_t type) {
    return set_event_type(id, type);
}

int32_t vexo_ipc_cloud_storage_get_event_status(int32_t type) {
    return get_event_status(type);
}

int32_t vexo_ipc_cloud_storage_get_event_status_by_id(int32_t id) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    return __get_event_status_by_id(&ctl, static_cast<uint32_t>(id));
}

int32_t vexo_ipc_cloud_storage_event_notify(int32_t id, int32_t type) {
    return event_notify(id, type);
}

} // extern "C"
