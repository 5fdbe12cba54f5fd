/// The event table: six slots of recording requests inside the control block, guarded by
/// event_mutex. Every primitive here takes the mutex itself and holds it for one scan and
/// change; __get_event and cloud_storage_event_notify take no lock.
#include <cstdio>
#include <cstring>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"
#include "core/kit_lock.h"

namespace {

/// Notification text of a remote-trigger event, written when it is added. The source id is
/// inserted as it stands: the caller passes text that is already a JSON value.
constexpr char IOT_NOTIFY_FORMAT[] =
    "{\"v\":2,\"startTime\":%d,\"endTime\":%d,\"eventType\":%d,\"sourceId\":%s}";

/// Next event id. Read and incremented only under event_mutex; never reset by init, wraps
/// as an unsigned 32-bit number.
uint32_t s_event_id = 1;

/// First slot carrying the id, whatever its status; null when none. Caller holds the lock
/// where one is needed.
cloud_storage_event *find_by_id(cloud_storage_ctl_t *ctl, uint32_t id) {
    for (cloud_storage_event &slot : ctl->events) {
        if (slot.id == id) {
            return &slot;
        }
    }
    return nullptr;
}

} // namespace

void cloud_storage_reset_event_statics() {
    s_event_id = 1;
}

uint32_t cloud_storage_stop_time_now() {
    const uint64_t latest_ms = vexo_ipc_ring_buffer_get_lastest_timestamp(0, 0, 0);
    if (latest_ms != 0) {
        return static_cast<uint32_t>(latest_ms / 1000u);
    }
    return uni_time_get_posix();
}

void cloud_storage_free_slot(cloud_storage_event *slot, bool clear_fast_stop) {
    slot->type = EVENT_TYPE_NONE;
    slot->status = EVENT_NONE;
    slot->notify_type = EVENT_NOTIFY_NONE;
    if (clear_fast_stop) {
        slot->fast_stop = 0;
    }
    memset(slot->notify_json, 0, sizeof(slot->notify_json));
}

int32_t __add_event_to_list(cloud_storage_ctl_t *ctl, int32_t type, uint32_t start, uint32_t end,
                            const char *source_id) {
    int index = -1;
    cloud_storage_event *slot = nullptr;
    uint32_t id = 0;
    int32_t notify_type = EVENT_NOTIFY_NONE;
    {
        kit_lock hold(ctl->event_mutex);
        for (int i = 0; i < CS_EVENT_SLOTS; ++i) {
            if (ctl->events[i].status == EVENT_NONE) {
                index = i;
                slot = &ctl->events[i];
                break;
            }
        }
        if (slot == nullptr) {
            return -1;
        }

        if (type == EVENT_TYPE_IOT) {
            if (source_id == nullptr) {
                CS_ERR("no data for iot event");
                return -1;
            }
            slot->notify_type = EVENT_NOTIFY_IOT;
            // NOLINTNEXTLINE(cert-err33-c): a text longer than the buffer is cut, as intended
            snprintf(slot->notify_json, sizeof(slot->notify_json), IOT_NOTIFY_FORMAT,
                     static_cast<int>(start), static_cast<int>(end), static_cast<int>(type),
                     source_id);
        } else if (type == EVENT_TYPE_UNKNOWN) {
            slot->notify_type = EVENT_NOTIFY_NONE;
        } else {
            slot->notify_type = EVENT_NOTIFY_NORMAL;
        }

        slot->end_time = end;
        slot->start_time = start;
        slot->status = EVENT_READY;
        slot->id = s_event_id;
        slot->type = type;
        slot->fast_stop = 0;
        if (end <= start) {
            slot->end_time = 0; // open end: resolved when the upload thread starts
        }
        ++s_event_id;
        // Taken while the table is held: the upload thread may free the slot right after.
        id = slot->id;
        notify_type = slot->notify_type;
    }

    CS_DBG("new event index %d, id: %u, added: type %d,notify type %d[%d-%d]", index,
           static_cast<unsigned>(id), static_cast<int>(type), static_cast<int>(notify_type),
           static_cast<int>(start), static_cast<int>(end));
    return static_cast<int32_t>(id);
}

void __delete_event_from_list(cloud_storage_ctl_t *ctl, uint32_t id) {
    if (id == EVENT_ID_NONE) {
        return;
    }
    kit_lock hold(ctl->event_mutex);
    cloud_storage_event *slot = find_by_id(ctl, id);
    if (slot == nullptr) {
        return;
    }
    slot->end_time = cloud_storage_stop_time_now();
}

cloud_storage_event *__get_event(cloud_storage_ctl_t *ctl, uint32_t id) {
    if (id == EVENT_ID_NONE) {
        return nullptr;
    }
    cloud_storage_event *slot = find_by_id(ctl, id);
    if (slot == nullptr || slot->status == EVENT_NONE) {
        return nullptr;
    }
    return slot;
}

int32_t __get_event_status(cloud_storage_ctl_t *ctl, int32_t type) {
    // The status is taken while the table is held, so a slot being freed is never half-read.
    kit_lock hold(ctl->event_mutex);
    for (const cloud_storage_event &slot : ctl->events) {
        if (slot.type == type) {
            return slot.status;
        }
    }
    return EVENT_NONE;
}

int32_t __get_event_status_by_id(cloud_storage_ctl_t *ctl, uint32_t id) {
    if (id == EVENT_ID_NONE) {
        return EVENT_INVALID;
    }
    kit_lock hold(ctl->event_mutex);
    const cloud_storage_event *found = find_by_id(ctl, id);
    return found != nullptr ? found->status : EVENT_NONE;
}

int32_t __set_event_type_by_id(cloud_storage_ctl_t *ctl, uint32_t id, int32_t type) {
    kit_lock hold(ctl->event_mutex);
    for (cloud_storage_event &slot : ctl->events) {
        if (slot.id != id || !slot_is_live(slot)) {
            continue;
        }
        if (slot.notify_type == EVENT_NOTIFY_NONE) {
            slot.notify_type = EVENT_NOTIFY_NORMAL;
        }
        slot.type = type;
        return CS_OK;
    }
    return CS_BAD_ARG;
}

int32_t __event_is_ongoing(cloud_storage_ctl_t *ctl, int32_t type) {
    kit_lock hold(ctl->event_mutex);
    for (const cloud_storage_event &slot : ctl->events) {
        if (slot.type == type && slot.status == EVENT_ONGOING) {
            return 1;
        }
    }
    return 0;
}

int32_t __event_list_is_empty(cloud_storage_ctl_t *ctl) {
    kit_lock hold(ctl->event_mutex);
    for (const cloud_storage_event &slot : ctl->events) {
        if (slot.status != EVENT_NONE) {
            return 0;
        }
    }
    return 1;
}

int32_t __pre_record_av_needed(cloud_storage_ctl_t *ctl) {
    kit_lock hold(ctl->event_mutex);
    int ready = 0;
    for (const cloud_storage_event &slot : ctl->events) {
        if (slot.status == EVENT_ONGOING) {
            return 0;
        }
        if (slot.status == EVENT_READY) {
            ++ready;
        }
    }
    return ready != 0 ? 1 : 0;
}

int32_t cloud_storage_event_notify(const char *text) {
    // Per-event texts are not posted anywhere by this module; the hook keeps the call points
    // so that a posting implementation can be put behind it. It must never call back into
    // the event table: the start and stop passes call it with event_mutex held.
    (void)text;
    return CS_OK;
}
