/// Cloud recording module of the IP-camera kit: the exported calls.
///
/// Results are signed 32-bit codes: 0 success; -1 not initialised or a general failure; -2 bad
/// argument or no such event; -3 allocation failure; -2000 not allowed now (disabled, silence
/// interval running, no events left today, table busy).
#ifndef VEXO_IPC_CLOUD_STORAGE_H
#define VEXO_IPC_CLOUD_STORAGE_H

#include <stdint.h>

#include "vexo_media_info.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VEXO_CS_API __attribute__((visibility("default")))

/// Life cycle: call from one application thread, never concurrently with each other.
VEXO_CS_API int32_t vexo_ipc_cloud_storage_init(const vexo_ipc_media_info_t *media,
                                                const vexo_ipc_cloud_storage_hooks_t *hooks);
VEXO_CS_API void vexo_ipc_cloud_storage_uninit(void);

/// Runtime controls and queries: any application thread.
VEXO_CS_API void vexo_ipc_cloud_storage_pause(void);
VEXO_CS_API void vexo_ipc_cloud_storage_resume(void);
VEXO_CS_API void vexo_ipc_cloud_storage_set_audio_stat(int32_t value);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_set_pre_record_time(int32_t seconds);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_status(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_store_mode(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_if_inited(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_if_have_config(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_ready(void);

/// Events: any application thread. event_stop blocks up to about 30 s.
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_start(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_add_record_only(int32_t type, int32_t duration);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_stop(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_stop_async(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_stop_immediately(void);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_delete(int32_t id);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_set_event_type(int32_t id, int32_t type);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_event_status(int32_t type);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_get_event_status_by_id(int32_t id);
VEXO_CS_API int32_t vexo_ipc_cloud_storage_event_notify(int32_t id, int32_t type);

#ifdef __cplusplus
}
#endif

#endif
