/// MQTT command dispatch, alarm events, snapshots and the skill registry.
#ifndef VEXO_DEVICE_H
#define VEXO_DEVICE_H

#include <cjson/cJSON.h>

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

/// Called on the kit's MQTT thread with the parsed message; root stays the caller's.
typedef void (*vexo_mqtt_handler_t)(cJSON *root);
/// Attaches handler to messages of the given protocol number. 0 on success.
int32_t mqtt_attach(uint32_t protocol, vexo_mqtt_handler_t handler);

typedef struct {
    uint32_t kind;         /*  0  = 4 */
    uint32_t reserved0;    /*  4  = 0 */
    uint32_t with_picture; /*  8 */
    uint32_t time;         /* 12 */
    uint32_t reserved1;    /* 16  = 0 */
    uint32_t flags[3];     /* 20, 24, 28  = 1, 1, 1 */
    char *extra;           /* 32 */
    uint8_t *picture;      /* 36 */
    uint32_t picture_size; /* 40 */
    uint32_t reserved2[4]; /* 44 .. 59 */
} vexo_alarm_event_t;      /* 60 bytes on a 32-bit build */

VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, with_picture) == 8, "with_picture");
VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, time) == 12, "time");
VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, flags) == 20, "flags");
VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, extra) == 32, "extra");
#if VEXO_PTR32
VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, picture) == 36, "picture");
VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, picture_size) == 40, "picture_size");
VEXO_STATIC_ASSERT(offsetof(vexo_alarm_event_t, reserved2) == 44, "reserved2");
VEXO_STATIC_ASSERT(sizeof(vexo_alarm_event_t) == 60, "vexo_alarm_event_t size");
#endif

/// Raises an alarm event with the given record (copied by the kit). 0 on success.
int32_t vexo_ipc_alarm_event(const vexo_alarm_event_t *event);
/// Fills buf with a picture; *size holds the room on entry and the picture size on exit.
int32_t vexo_ipc_get_snapshot_cb(uint8_t *buf, int32_t *size);
/// Announces a capability to the kit's skill registry.
int32_t vexo_ipc_skill_enable(uint32_t skill, const uint8_t param[512]);

VEXO_EXTERN_C_END

#endif
