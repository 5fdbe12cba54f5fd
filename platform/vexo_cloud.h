/// The kit's cloud services: configuration, media upload and the HTTP API client.
/// All calls block for the network exchange; the module calls them from its upload thread,
/// its MQTT handlers and (for the daily refresh) application threads.
#ifndef VEXO_CLOUD_H
#define VEXO_CLOUD_H

#include <cjson/cJSON.h>

#include "vexo_platform_common.h"

VEXO_EXTERN_C_BEGIN

typedef struct {
    char cloud_type[128];      /*    0  compared with "azure" */
    char azure_address[384];   /*  128 */
    char address_prefix[128];  /*  512 */
    char address_suffix[128];  /*  640 */
    uint8_t kit_private[5632]; /*  768  the kit's own (endpoint, credentials) */
    char store_mode[32];       /* 6400  "alltime", "event", "max" */
    uint8_t reserved[236];     /* 6432 */
    int32_t event_duration;    /* 6668 */
    int32_t slice_duration;    /* 6672 */
    int32_t reserved2;         /* 6676 */
    int32_t silence_interval;  /* 6680 */
    int32_t count_left;        /* 6684 */
} vexo_storage_config_t;       /* sizeof 6688 */

VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, cloud_type) == 0, "cloud_type");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, azure_address) == 128, "azure_address");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, address_prefix) == 512, "address_prefix");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, address_suffix) == 640, "address_suffix");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, kit_private) == 768, "kit_private");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, store_mode) == 6400, "store_mode");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, event_duration) == 6668, "event_duration");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, slice_duration) == 6672, "slice_duration");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, silence_interval) == 6680, "silence_interval");
VEXO_STATIC_ASSERT(offsetof(vexo_storage_config_t, count_left) == 6684, "count_left");
VEXO_STATIC_ASSERT(sizeof(vexo_storage_config_t) == 6688, "vexo_storage_config_t size");

/// Result codes of the configuration call besides 0 and -1.
enum { VEXO_CLOUD_ORDER_EXPIRED = -2002, VEXO_CLOUD_SERVICE_FAILED = -2006 };

/// Fills every field of cfg from the service. 0, -2002 (order expired), -2006 (service
/// failed) or another non-zero code. flag is always 1.
int32_t cloud_get_storage_config(vexo_storage_config_t *cfg, int32_t flag);
/// Fills event_duration and slice_duration only. 0 on success.
int32_t cloud_get_storage_restriction_config(vexo_storage_config_t *cfg);
/// Tells the kit's other modules that the cloud configuration is changing.
int32_t cloud_cfg_broadcast_update_status(void);
/// Uploads len bytes as one file named file_name into the storage cfg describes. 0 on success.
int32_t cloud_put_data_to_file(const vexo_storage_config_t *cfg, const char *scheme, int32_t flag,
                               const char *file_name, const char *content_type, const uint8_t *data,
                               uint32_t len);
/// Posts post_data (post_len bytes of writable room, text zero-terminated) as API call
/// api_name of version api_version. 0 on success with the parsed answer's result object in
/// *result (the caller releases it with cJSON_Delete); non-zero on failure.
int32_t iot_httpc_common_post_no_remalloc(const char *api_name, const char *api_version,
                                          const char *uuid, const char *dev_id, char *post_data,
                                          uint32_t post_len, const char *extra_header,
                                          cJSON **result);

typedef struct {
    char gw_id[64]; /* the kit may add members after */
} vexo_gw_cntl_t;
/// The kit's gateway control record; never null.
vexo_gw_cntl_t *get_gw_cntl(void);

VEXO_EXTERN_C_END

#endif
