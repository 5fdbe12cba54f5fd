/* The service half of a minimal kit: just enough for the module to start, take a
 * configuration and stop. It stores nothing, has no cipher, no frames and no network, and
 * answers "not available" wherever the declarations have a way to say so; a camera's kit
 * puts its key-value store, AES engine, encoder ring buffer and cloud client here. */
#include <stdio.h>
#include <string.h>

#include "vexo_platform.h"

enum { KV_NOT_FOUND = -6, UNAVAILABLE = -1 };

/* ---- key-value store: always empty ---- */

int32_t iot_wd_utils_serialize(const vexo_kv_entry_t *entries, uint32_t count, uint8_t **out,
                               uint32_t *out_len) {
    (void)entries;
    (void)count;
    (void)out;
    (void)out_len;
    return UNAVAILABLE;
}

int32_t iot_wd_utils_deserialize(const uint8_t *in, vexo_kv_entry_t *entries, uint32_t count) {
    (void)in;
    (void)entries;
    (void)count;
    return UNAVAILABLE;
}

int32_t iot_wd_common_read(const char *key, uint8_t **value, uint32_t *len) {
    (void)key;
    (void)value;
    (void)len;
    return KV_NOT_FOUND;
}

int32_t iot_wd_common_write(const char *key, const uint8_t *value, uint32_t len) {
    (void)key;
    (void)value;
    (void)len;
    return UNAVAILABLE;
}

int32_t iot_wd_common_free_data(uint8_t *data) {
    (void)data;
    return 0;
}

/* ---- crypto: no engine, no cipher ---- */

int32_t vexo_hw_aes_crypt_init(vexo_hw_aes_t *ctx, const uint8_t key[16]) {
    (void)key;
    if (ctx != NULL) {
        memset(ctx, 0, sizeof *ctx); /* engine 0: none */
    }
    return 0;
}

int32_t vexo_hw_aes_update_key(vexo_hw_aes_t *ctx, const uint8_t key[16]) {
    (void)ctx;
    (void)key;
    return 0;
}

int32_t vexo_hw_aes_encrypt_cbc(vexo_hw_aes_t *ctx, uint8_t iv[16], uint32_t key_bits,
                                const uint8_t *in, uint32_t in_len, uint8_t *out,
                                uint32_t *out_len) {
    (void)ctx;
    (void)iv;
    (void)key_bits;
    (void)in;
    (void)in_len;
    (void)out;
    (void)out_len;
    return UNAVAILABLE;
}

int32_t vexo_hw_aes_crypt_uninit(vexo_hw_aes_t *ctx) {
    (void)ctx;
    return 0;
}

int32_t OpensslAES_CBC128_encrypt(const uint8_t *in, uint32_t in_len, uint8_t *out,
                                  uint32_t *out_len, const uint8_t key[16], uint8_t iv[16]) {
    (void)in;
    (void)in_len;
    (void)out;
    (void)out_len;
    (void)key;
    (void)iv;
    return UNAVAILABLE;
}

/* No digest either: an all-zero one never matches a stored key's. */
void uni_md5_init(uni_md5_ctx_t *ctx) {
    memset(ctx, 0, sizeof *ctx);
}

void uni_md5_update(uni_md5_ctx_t *ctx, const uint8_t *data, uint32_t len) {
    (void)ctx;
    (void)data;
    (void)len;
}

void uni_md5_final(uni_md5_ctx_t *ctx, uint8_t digest[16]) {
    (void)ctx;
    memset(digest, 0, 16);
}

/* ---- ring buffer: readers open, no frame ever arrives ---- */

static int reader_token;

vexo_ring_buffer_user_t vexo_ipc_ring_buffer_open(int32_t device, int32_t channel, int32_t stream,
                                                  int32_t user_kind) {
    (void)device;
    (void)channel;
    (void)stream;
    (void)user_kind;
    return &reader_token;
}

vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_frame(vexo_ring_buffer_user_t user,
                                                         int32_t retry) {
    (void)user;
    (void)retry;
    return NULL;
}

vexo_ring_buffer_frame_t *vexo_ipc_ring_buffer_get_av_frame(vexo_ring_buffer_user_t video,
                                                            vexo_ring_buffer_user_t audio,
                                                            int32_t retry) {
    (void)video;
    (void)audio;
    (void)retry;
    return NULL;
}

int32_t vexo_ipc_ring_buffer_anchor_user(vexo_ring_buffer_user_t user, uint32_t frames_back,
                                         int32_t to_key_frame) {
    (void)user;
    (void)frames_back;
    (void)to_key_frame;
    return 1; /* no frame to anchor on */
}

int32_t vexo_ipc_ring_buffer_sync_stream(vexo_ring_buffer_user_t video,
                                         vexo_ring_buffer_user_t audio) {
    (void)video;
    (void)audio;
    return 0;
}

int32_t vexo_ipc_ring_buffer_if_delay(vexo_ring_buffer_user_t user) {
    (void)user;
    return 0;
}

int32_t vexo_ipc_ring_buffer_close(vexo_ring_buffer_user_t user) {
    (void)user;
    return 0;
}

uint64_t vexo_ipc_ring_buffer_get_lastest_timestamp(int32_t device, int32_t channel,
                                                    int32_t stream) {
    (void)device;
    (void)channel;
    (void)stream;
    return 0;
}

int32_t vexo_ipc_ring_buffer_get_max_frame_size(int32_t device, int32_t channel, int32_t stream) {
    (void)device;
    (void)channel;
    (void)stream;
    return -1; /* unknown: the module uses its default */
}

int32_t vexo_ipc_ring_buffer_get_max_buf_secs(int32_t device, int32_t channel, int32_t stream) {
    (void)device;
    (void)channel;
    (void)stream;
    return -1; /* not ready */
}

/* ---- cloud: a fixed order to record events, nothing reaches a network ---- */

int32_t cloud_get_storage_config(vexo_storage_config_t *cfg, int32_t flag) {
    (void)flag;
    memset(cfg, 0, sizeof *cfg);
    snprintf(cfg->cloud_type, sizeof cfg->cloud_type, "%s", "none");
    snprintf(cfg->store_mode, sizeof cfg->store_mode, "%s", "event");
    cfg->event_duration = 30;
    cfg->slice_duration = 10;
    cfg->silence_interval = 0;
    cfg->count_left = 10;
    return 0;
}

int32_t cloud_get_storage_restriction_config(vexo_storage_config_t *cfg) {
    (void)cfg;
    return UNAVAILABLE; /* the module derives the slice length from the stream */
}

int32_t cloud_cfg_broadcast_update_status(void) {
    return 0;
}

int32_t cloud_put_data_to_file(const vexo_storage_config_t *cfg, const char *scheme, int32_t flag,
                               const char *file_name, const char *content_type, const uint8_t *data,
                               uint32_t len) {
    (void)cfg;
    (void)scheme;
    (void)flag;
    (void)file_name;
    (void)content_type;
    (void)data;
    (void)len;
    return UNAVAILABLE;
}

int32_t iot_httpc_common_post_no_remalloc(const char *api_name, const char *api_version,
                                          const char *uuid, const char *dev_id, char *post_data,
                                          uint32_t post_len, const char *extra_header,
                                          cJSON **result) {
    (void)api_name;
    (void)api_version;
    (void)uuid;
    (void)dev_id;
    (void)post_data;
    (void)post_len;
    (void)extra_header;
    if (result != NULL) {
        *result = NULL;
    }
    return UNAVAILABLE;
}

vexo_gw_cntl_t *get_gw_cntl(void) {
    static vexo_gw_cntl_t gateway = {"consumer-example"};
    return &gateway;
}

/* ---- device: commands are never delivered, no alarms, no pictures ---- */

int32_t mqtt_attach(uint32_t protocol, vexo_mqtt_handler_t handler) {
    (void)protocol;
    (void)handler;
    return 0;
}

int32_t vexo_ipc_alarm_event(const vexo_alarm_event_t *event) {
    (void)event;
    return UNAVAILABLE;
}

int32_t vexo_ipc_get_snapshot_cb(uint8_t *buf, int32_t *size) {
    (void)buf;
    (void)size;
    return UNAVAILABLE;
}

int32_t vexo_ipc_skill_enable(uint32_t skill, const uint8_t param[512]) {
    (void)skill;
    (void)param;
    return 0;
}
