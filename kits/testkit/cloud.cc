// The cloud services on script: configuration answers, uploads and HTTP API posts are queued
// answers with defaults, and every call is recorded for the test to read back.
#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "kit_internal.h"
#include "test_kit.h"

namespace {

constexpr const char *kDefaultGwId = "vexo-test-0001";
constexpr const char *kApiStart = "vexo.device.ipc.media.storage.notify.upload.start";
constexpr const char *kApiStop = "vexo.device.ipc.media.storage.notify.upload.stop";
constexpr const char *kApiReport = "vexo.device.ipc.media.storage.report.event";

struct ConfigAnswer {
    int32_t rc;
    vexo_storage_config_t record;
};

struct RestrictionAnswer {
    int32_t rc;
    int32_t event_duration;
    int32_t slice_duration;
};

struct PostAnswer {
    int32_t rc;
    std::optional<std::string> json;
};

struct PostScript {
    std::deque<PostAnswer> queue;
    std::optional<PostAnswer> fallback;
};

std::mutex g_mu;
std::deque<ConfigAnswer> g_config_queue;
ConfigAnswer g_config_default;
std::deque<RestrictionAnswer> g_restriction_queue;
RestrictionAnswer g_restriction_default{-1, 0, 0};
std::vector<tk::Upload> g_uploads;
bool g_keep_upload_bytes = true;
std::map<std::string, PostScript> g_post_scripts;
std::vector<tk::Post> g_posts;
vexo_gw_cntl_t g_gw;

void copy_text(char *dst, size_t room, const std::string &text) {
    size_t n = std::min(room - 1, text.size());
    std::memcpy(dst, text.data(), n);
    dst[n] = '\0';
}

std::string bounded_text(const char *text, size_t room) {
    return std::string(text, strnlen(text, room));
}

std::string text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

} // namespace

namespace tk::detail {

void reset_cloud() {
    std::lock_guard<std::mutex> lock(g_mu);
    g_config_queue.clear();
    g_config_default = ConfigAnswer{0, make_storage_config("event", 30, 10, 0, 20)};
    g_restriction_queue.clear();
    g_restriction_default = RestrictionAnswer{-1, 0, 0};
    g_uploads.clear();
    g_keep_upload_bytes = true;
    g_post_scripts.clear();
    g_post_scripts[kApiStart].fallback = PostAnswer{0, std::string("{\"needUpdate\":false}")};
    g_post_scripts[kApiStop].fallback = PostAnswer{0, std::string("{}")};
    g_post_scripts[kApiReport].fallback = PostAnswer{0, std::string("{}")};
    g_posts.clear();
    std::memset(&g_gw, 0, sizeof(g_gw));
    copy_text(g_gw.gw_id, sizeof(g_gw.gw_id), kDefaultGwId);
}

} // namespace tk::detail

namespace tk {

vexo_storage_config_t make_storage_config(const std::string &store_mode, int32_t event_duration,
                                          int32_t slice_duration, int32_t silence_interval,
                                          int32_t count_left, const std::string &cloud_type,
                                          const std::string &prefix, const std::string &suffix) {
    vexo_storage_config_t cfg;
    std::memset(&cfg, 0, sizeof(cfg));
    copy_text(cfg.cloud_type, sizeof(cfg.cloud_type), cloud_type);
    copy_text(cfg.address_prefix, sizeof(cfg.address_prefix), prefix);
    copy_text(cfg.address_suffix, sizeof(cfg.address_suffix), suffix);
    copy_text(cfg.store_mode, sizeof(cfg.store_mode), store_mode);
    cfg.event_duration = event_duration;
    cfg.slice_duration = slice_duration;
    cfg.silence_interval = silence_interval;
    cfg.count_left = count_left;
    return cfg;
}

void queue_storage_config(int32_t rc, const vexo_storage_config_t &record) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_config_queue.push_back(ConfigAnswer{rc, record});
}

void set_default_storage_config(int32_t rc, const vexo_storage_config_t &record) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_config_default = ConfigAnswer{rc, record};
}

void queue_restriction(int32_t rc, int32_t event_duration, int32_t slice_duration) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_restriction_queue.push_back(RestrictionAnswer{rc, event_duration, slice_duration});
}

void set_default_restriction(int32_t rc, int32_t event_duration, int32_t slice_duration) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_restriction_default = RestrictionAnswer{rc, event_duration, slice_duration};
}

std::vector<Upload> uploads() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_uploads;
}

void keep_upload_bytes(bool on) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_keep_upload_bytes = on;
}

void queue_post_answer(const std::string &api, int32_t rc, std::optional<std::string> json) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_post_scripts[api].queue.push_back(PostAnswer{rc, std::move(json)});
}

void set_default_post_answer(const std::string &api, int32_t rc, std::optional<std::string> json) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_post_scripts[api].fallback = PostAnswer{rc, std::move(json)};
}

std::vector<Post> posts() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_posts;
}

std::vector<Post> posts_of(const std::string &api) {
    std::lock_guard<std::mutex> lock(g_mu);
    std::vector<Post> out;
    for (const Post &p : g_posts) {
        if (p.api == api) {
            out.push_back(p);
        }
    }
    return out;
}

void set_gw_id(const std::string &id) {
    std::lock_guard<std::mutex> lock(g_mu);
    copy_text(g_gw.gw_id, sizeof(g_gw.gw_id), id);
}

} // namespace tk

extern "C" {

int32_t cloud_get_storage_config(vexo_storage_config_t *cfg, int32_t flag) {
    static_cast<void>(flag);
    if (auto scripted = tk::detail::enter("cloud_get_storage_config")) {
        return *scripted;
    }
    if (cfg == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    ConfigAnswer answer = g_config_default;
    if (!g_config_queue.empty()) {
        answer = g_config_queue.front();
        g_config_queue.pop_front();
    }
    if (answer.rc == 0) {
        *cfg = answer.record;
    }
    return answer.rc;
}

int32_t cloud_get_storage_restriction_config(vexo_storage_config_t *cfg) {
    if (auto scripted = tk::detail::enter("cloud_get_storage_restriction_config")) {
        return *scripted;
    }
    if (cfg == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    RestrictionAnswer answer = g_restriction_default;
    if (!g_restriction_queue.empty()) {
        answer = g_restriction_queue.front();
        g_restriction_queue.pop_front();
    }
    if (answer.rc == 0) {
        cfg->event_duration = answer.event_duration;
        cfg->slice_duration = answer.slice_duration;
    }
    return answer.rc;
}

int32_t cloud_cfg_broadcast_update_status(void) {
    if (auto scripted = tk::detail::enter("cloud_cfg_broadcast_update_status")) {
        return *scripted;
    }
    return 0;
}

int32_t cloud_put_data_to_file(const vexo_storage_config_t *cfg, const char *scheme, int32_t flag,
                               const char *file_name, const char *content_type, const uint8_t *data,
                               uint32_t len) {
    std::optional<int32_t> scripted = tk::detail::enter("cloud_put_data_to_file");
    int32_t rc = scripted ? *scripted : 0;
    if (cfg == nullptr || file_name == nullptr || (data == nullptr && len > 0)) {
        rc = -1;
    }
    tk::Upload up;
    up.file_name = text_or_empty(file_name);
    up.size = len;
    up.scheme = text_or_empty(scheme);
    up.flag = flag;
    up.content_type = text_or_empty(content_type);
    if (cfg != nullptr) {
        up.store_mode = bounded_text(cfg->store_mode, sizeof(cfg->store_mode));
        up.cloud_type = bounded_text(cfg->cloud_type, sizeof(cfg->cloud_type));
    }
    up.at_ms = tk::now_ms();
    up.rc = rc;
    std::lock_guard<std::mutex> lock(g_mu);
    if (g_keep_upload_bytes && data != nullptr) {
        up.bytes.assign(data, data + len);
    }
    g_uploads.push_back(std::move(up));
    return rc;
}

int32_t iot_httpc_common_post_no_remalloc(const char *api_name, const char *api_version,
                                          const char *uuid, const char *dev_id, char *post_data,
                                          uint32_t post_len, const char *extra_header,
                                          cJSON **result) {
    std::optional<int32_t> scripted = tk::detail::enter("iot_httpc_common_post_no_remalloc");
    if (result != nullptr) {
        *result = nullptr;
    }
    if (api_name == nullptr || result == nullptr) {
        return -1;
    }
    tk::Post post;
    post.api = api_name;
    post.version = text_or_empty(api_version);
    post.uuid_null = uuid == nullptr;
    post.extra_header_null = extra_header == nullptr;
    post.dev_id = text_or_empty(dev_id);
    post.body = post_data != nullptr ? bounded_text(post_data, post_len) : "";
    post.post_len = post_len;
    post.at_ms = tk::now_ms();
    PostAnswer answer{-1, std::nullopt};
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_posts.push_back(post);
        PostScript &script = g_post_scripts[post.api];
        if (scripted) {
            // A failed request: recorded as sent, no answer consumed, no result object.
            return *scripted;
        }
        if (!script.queue.empty()) {
            answer = script.queue.front();
            script.queue.pop_front();
        } else if (script.fallback) {
            answer = *script.fallback;
        }
    }
    if (answer.json) {
        *result = cJSON_Parse(answer.json->c_str());
    }
    return answer.rc;
}

vexo_gw_cntl_t *get_gw_cntl(void) {
    tk::detail::count("get_gw_cntl");
    return &g_gw;
}

} // extern "C"
