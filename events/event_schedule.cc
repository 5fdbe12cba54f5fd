/// Event start/stop scheduling: the passes through which the upload thread starts ready
/// events, stops due ones, force-stops everything and repairs the table when it starts, and
/// the marks through which the event calls ask for a stop. Each holds event_mutex for its
/// whole scan and change.
#include <cstdio>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"
#include "core/kit_lock.h"

namespace {

bool notifies_at_start(const cloud_storage_event &slot) {
    return slot.notify_type == EVENT_NOTIFY_IOT || slot.notify_type == EVENT_NOTIFY_ALL;
}

bool notifies_at_stop(const cloud_storage_event &slot) {
    return slot.notify_type == EVENT_NOTIFY_NORMAL || slot.notify_type == EVENT_NOTIFY_ALL;
}

/// Writes the stop text of a slot (its start, the given end, its current type) and passes it
/// on. Caller holds event_mutex.
void pass_on_stop_text(cloud_storage_event &slot, uint32_t report_end) {
    // NOLINTNEXTLINE(cert-err33-c): a text longer than the buffer is cut, as intended
    snprintf(slot.notify_json, sizeof(slot.notify_json), CS_EVENT_NOTIFY_FORMAT,
             static_cast<int>(slot.start_time), static_cast<int>(report_end),
             static_cast<int>(slot.type));
    (void)cloud_storage_event_notify(slot.notify_json);
}

/// First live slot of the type; null when none. Caller holds event_mutex.
cloud_storage_event *first_live_of_type(cloud_storage_ctl_t *ctl, int32_t type) {
    for (cloud_storage_event &slot : ctl->events) {
        if (slot.type == type && slot_is_live(slot)) {
            return &slot;
        }
    }
    return nullptr;
}

} // namespace

void __start_event_if_needed(cloud_storage_ctl_t *ctl) {
    kit_lock hold(ctl->event_mutex);
    for (cloud_storage_event &slot : ctl->events) {
        if (slot.status != EVENT_READY) {
            continue;
        }
        slot.status = EVENT_ONGOING;
        if (notifies_at_start(slot)) {
            (void)cloud_storage_event_notify(slot.notify_json);
        }
        return;
    }
}

void __stop_event_if_needed(cloud_storage_ctl_t *ctl, uint32_t now, uint32_t report_end) {
    kit_lock hold(ctl->event_mutex);
    for (int i = 0; i < CS_EVENT_SLOTS; ++i) {
        cloud_storage_event &slot = ctl->events[i];
        if (!slot_is_live(slot)) {
            continue;
        }
        const bool due = slot.fast_stop != 0 || now >= slot.end_time;
        if (!due) {
            continue;
        }
        if (notifies_at_stop(slot)) {
            pass_on_stop_text(slot, report_end);
        }
        cloud_storage_free_slot(&slot, true);
        CS_DBG("event index %d stop", i);
    }
}

void __mark_event_to_stop(cloud_storage_ctl_t *ctl, int32_t type) {
    kit_lock hold(ctl->event_mutex);
    cloud_storage_event *slot = first_live_of_type(ctl, type);
    if (slot == nullptr) {
        return;
    }
    slot->end_time = cloud_storage_stop_time_now();
}

void __mark_event_to_fast_stop(cloud_storage_ctl_t *ctl, int32_t type) {
    kit_lock hold(ctl->event_mutex);
    cloud_storage_event *slot = first_live_of_type(ctl, type);
    if (slot != nullptr) {
        slot->fast_stop = 1;
    }
}

void __force_all_event_stop(cloud_storage_ctl_t *ctl, uint32_t report_end) {
    kit_lock hold(ctl->event_mutex);
    for (int i = 0; i < CS_EVENT_SLOTS; ++i) {
        cloud_storage_event &slot = ctl->events[i];
        if (slot.status == EVENT_NONE) {
            continue;
        }
        if (notifies_at_stop(slot)) {
            pass_on_stop_text(slot, report_end);
        }
        cloud_storage_free_slot(&slot, false); // fast_stop stays; the next add resets it
        CS_DBG("force event %d stop done", i);
    }
}

void cloud_storage_reconcile_events(cloud_storage_ctl_t *ctl, int32_t count_check) {
    kit_lock hold(ctl->event_mutex);
    for (int i = 0; i < CS_EVENT_SLOTS; ++i) {
        cloud_storage_event &slot = ctl->events[i];
        if (slot.status == EVENT_NONE) {
            continue;
        }
        if (count_check != 0) {
            cloud_storage_free_slot(&slot, true);
            CS_DBG("event index %d clean", i);
        } else if (slot.end_time == 0) {
            slot.end_time =
                slot.start_time + static_cast<uint32_t>(ctl->storage_config.event_duration);
        }
    }
}
