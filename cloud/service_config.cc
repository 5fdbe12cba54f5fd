/// Service configuration: the store mode, the day's event quota and the silence interval,
/// fetched from the kit's cloud configuration service, refreshed once a day just after local
/// midnight, and the admission tests that the event calls and the upload thread ask.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/cloud_storage_internal.h"
#include "core/cs_log.h"

namespace {

constexpr char MODE_TEXT_ALLTIME[] = "alltime";
constexpr char MODE_TEXT_EVENT[] = "event";
constexpr char MODE_TEXT_NONE[] = "max";
constexpr char CLOUD_TYPE_AZURE[] = "azure";

constexpr int32_t CONFIG_FLAG = 1;
constexpr size_t ADDRESS_SIZE = 256;
/// The daily refresh runs in the first hour after local midnight, from minute 3 on.
constexpr int REFRESH_HOUR = 0;
constexpr int REFRESH_LAST_QUIET_MINUTE = 2;

/// Day of the month of the last daily-refresh check (-1: none yet) and whether that day's
/// refresh has succeeded. Callers on several threads read and write them without a lock,
/// one whole word at a time.
cs_word<int32_t> update_day{-1};
cs_word<int32_t> new_day_update{0};

void mark_store_mode_text_none(vexo_storage_config_t *cfg) {
    // NOLINTNEXTLINE(cert-err33-c): "max" always fits the 32-byte field
    snprintf(cfg->store_mode, sizeof(cfg->store_mode), "%s", MODE_TEXT_NONE);
}

/// Appends src to the text in dst (capacity cap), cut short as a bounded print would be.
void append_text(char *dst, size_t cap, const char *src) {
    size_t len = strlen(dst);
    while (*src != '\0' && len + 1 < cap) {
        dst[len++] = *src++;
    }
    dst[len] = '\0';
}

/// Composes the storage address from the configuration, as the upload path's addressing
/// does: for "azure" the azure address and the suffix joined directly, otherwise the prefix
/// and the suffix joined with a dot. Nothing here uses the address; it is kept for parity
/// with that path and is harmless.
void compose_storage_address(const vexo_storage_config_t *cfg) {
    char address[ADDRESS_SIZE] = {};
    if (strcmp(cfg->cloud_type, CLOUD_TYPE_AZURE) == 0) {
        append_text(address, sizeof(address), cfg->azure_address);
    } else {
        append_text(address, sizeof(address), cfg->address_prefix);
        append_text(address, sizeof(address), ".");
    }
    append_text(address, sizeof(address), cfg->address_suffix);
}

int32_t get_ready() {
    if (__check_silence_time(uni_time_get_posix()) != 0) {
        return 0;
    }
    if (__check_event_count() == 0) {
        return 1;
    }
    __update_cloud_storage_config_new_day();
    return __check_event_count() == 0 ? 1 : 0;
}

} // namespace

void cloud_storage_reset_config_statics() {
    update_day = -1;
    new_day_update = 0;
}

int32_t __update_cloud_storage_config() {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    vexo_storage_config_t *cfg = &ctl.storage_config;
    const uint32_t now = uni_time_get_posix();
    cs_seq::time(70, now);

    const int32_t ret = cloud_get_storage_config(cfg, CONFIG_FLAG);
    if (ret == CS_ORDER_INVALID || ret == CS_SERVICE_FAILED) {
        CS_DBG("order expire or remote server error");
        ctl.store_mode = STORE_MODE_NONE;
        ctl.have_config = 1;
        mark_store_mode_text_none(cfg);
        ctl.order_invalid_time = uni_time_get_posix();
        cs_seq::report_code(71, ret);
        return CS_ORDER_EXPIRED;
    }
    if (ret != 0) {
        CS_ERR("fail to get cloud config ret %d", static_cast<int>(ret));
        ctl.order_invalid_time = now;
        return ret;
    }

    CS_DBG("store mode update to %s", cfg->store_mode);
    cs_seq::text(72, cfg->store_mode);

    if (strcmp(cfg->store_mode, MODE_TEXT_ALLTIME) == 0) {
        ctl.store_mode = STORE_MODE_ALLTIME;
        ctl.config_time = now;
    } else if (strcmp(cfg->store_mode, MODE_TEXT_EVENT) == 0) {
        ctl.store_mode = STORE_MODE_EVENT;
        ctl.config_time = now;
    } else {
        ctl.store_mode = STORE_MODE_NONE;
        ctl.order_invalid_time = now;
        ctl.have_config = 1;
        return CS_ORDER_EXPIRED;
    }

    ctl.count_left = cfg->count_left;
    ctl.silence_interval = static_cast<uint32_t>(cfg->silence_interval);
    CS_DBG("count_left: %d, silence_interval: %d", static_cast<int>(ctl.count_left),
           static_cast<int>(ctl.silence_interval));
    // Raised only now, after them, so that a caller who sees a configuration also sees its
    // store mode and the day's counts.
    ctl.have_config = 1;
    cs_seq::text(73, cfg->cloud_type);

    compose_storage_address(cfg);
    cs_seq::report_none(74);
    return CS_OK;
}

int32_t __check_silence_time(uint32_t now) {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const int32_t mode = ctl.store_mode;
    if (mode == STORE_MODE_EVENT) {
        if (ctl.silence_interval != 0 && ctl.silence_end_time > now) {
            CS_TRACE("cloud storage in silence time");
            return CS_NOT_ALLOWED;
        }
        CS_TRACE("cloud storage out silence time");
        return CS_OK;
    }
    if (mode == STORE_MODE_ALLTIME) {
        return CS_OK;
    }
    return CS_FAIL;
}

int32_t __check_event_count() {
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    const int32_t count_left = ctl.count_left;
    CS_TRACE("cloud storage event count left: %d", static_cast<int>(count_left));
    const int32_t mode = ctl.store_mode;
    if (mode == STORE_MODE_EVENT) {
        return count_left == 0 ? CS_NOT_ALLOWED : CS_OK;
    }
    if (mode == STORE_MODE_ALLTIME) {
        return CS_OK;
    }
    return CS_FAIL;
}

void __update_cloud_storage_config_new_day() {
    const uint32_t now = uni_time_get_posix();
    struct tm local = {};
    (void)uni_local_time_get_custom(now, &local);

    if (local.tm_mday != update_day) {
        update_day = local.tm_mday;
        new_day_update = 0;
    } else if (new_day_update == 1) {
        return;
    }
    if (local.tm_min <= REFRESH_LAST_QUIET_MINUTE) {
        return;
    }
    if (local.tm_hour != REFRESH_HOUR) {
        return;
    }
    if (__update_cloud_storage_config() == CS_OK) {
        new_day_update = 1;
    } else {
        CS_ERR("fail to update cloud storage config");
    }
}

extern "C" int32_t vexo_ipc_cloud_storage_get_ready(void) {
    return get_ready();
}
