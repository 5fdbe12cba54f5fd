// Live or spooled: the one place that decides how a cloud call reaches the cloud, and the
// spool's life within the kit (open at start, sender thread, counters, what each replayed
// answer means).
#include "cloud_delivery.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

#include "host_internal.h"
#include "spool_sender.h"

namespace hostkit::internal {
namespace {

constexpr char kNoKeyMd5[] = "0000";

std::mutex g_mu;
std::shared_ptr<spool::Spool> g_spool;
std::unique_ptr<spool::Sender> g_sender;
spool::Stats g_last_stats; ///< of the spool the kit had before it stopped
/// The slice length the latest start notification announced: the span of a media file.
std::atomic<uint32_t> g_slice_s{0};

std::shared_ptr<spool::Spool> current_spool() {
    std::lock_guard<std::mutex> lock(g_mu);
    return g_spool;
}

CloudResponse exchange(const CloudRequest &req) {
    const std::shared_ptr<CloudTransport> transport = cloud();
    if (!transport) {
        log_error("cloud: no transport (kit not started)");
        return {};
    }
    CloudResponse resp = transport->exchange(req);
    if (resp.status < 200 || resp.status > 299) {
        log_debug("cloud: %s %s -> %d %.200s", req.method.c_str(), req.path.c_str(),
                  static_cast<int>(resp.status), resp.body.c_str());
    }
    return resp;
}

/// The time limit of a live request while spooling is on.
uint32_t live_limit(const CloudRequest &req) {
    const SpoolOptions &o = options().spool;
    const uint32_t limit = req.method == "PUT" ? o.live_upload_timeout_s : o.live_timeout_s;
    return req.timeout_s == 0 ? limit : std::min(req.timeout_s, limit);
}

std::string status_text(int32_t status) {
    return status == 0 ? "no answer" : "HTTP " + std::to_string(status);
}

Delivery queue(spool::Spool &spool, const CloudRequest &request, const spool::ItemInfo &info,
               const CloudResponse *failed) {
    if (!spool.append(info, request, now_ms())) {
        log_error("spool: cannot keep %s %s; the call fails", request.method.c_str(),
                  request.path.c_str());
        return {};
    }
    const spool::Stats s = spool.stats();
    if (failed != nullptr) {
        log_error("spool: cloud unreachable (%s), keeping %s %s (%zu bytes); %llu items queued",
                  status_text(failed->status).c_str(), request.method.c_str(), request.path.c_str(),
                  request.body.size(), static_cast<unsigned long long>(s.items));
    } else {
        log_debug("spool: keeping %s %s (%zu bytes) behind the queue; %llu items queued",
                  request.method.c_str(), request.path.c_str(), request.body.size(),
                  static_cast<unsigned long long>(s.items));
    }
    std::lock_guard<std::mutex> lock(g_mu);
    if (g_sender) {
        g_sender->wake();
    }
    Delivery queued;
    queued.queued = true;
    return queued;
}

/// A JSON member as a whole number 0..UINT32_MAX; 0 when missing or not one.
uint32_t u32_member(const cJSON *obj, const char *name) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, name);
    int64_t value = 0;
    if (!cJSON_IsNumber(item) ||
        read_whole_number(item, 0, UINT32_MAX, &value) != WholeNumber::kFits) {
        return 0;
    }
    return static_cast<uint32_t>(value);
}

bool ends_with(const std::string &text, const char *tail) {
    const size_t n = std::char_traits<char>::length(tail);
    return text.size() >= n && text.compare(text.size() - n, n, tail) == 0;
}

/// Reads the answer to a replayed API post: a refusal, or a key the module will not get.
void check_api_answer(const spool::Item &item, const CloudResponse &resp) {
    cJSON *root = cJSON_ParseWithLength(resp.body.data(), resp.body.size());
    const cJSON *success = cJSON_GetObjectItemCaseSensitive(root, "success");
    if (!cJSON_IsTrue(success)) {
        const cJSON *code = cJSON_GetObjectItemCaseSensitive(root, "code");
        const cJSON *msg = cJSON_GetObjectItemCaseSensitive(root, "msg");
        log_error("spool: the cloud refused the replayed %s %s: %s %s",
                  spool::kind_name(item.info.kind), item.info.what.c_str(),
                  cJSON_IsString(code) ? code->valuestring : "?",
                  cJSON_IsString(msg) ? msg->valuestring : "");
    } else if (item.info.kind == spool::Kind::kStart) {
        const cJSON *result = cJSON_GetObjectItemCaseSensitive(root, "result");
        const cJSON *update = cJSON_GetObjectItemCaseSensitive(result, "needUpdate");
        if (cJSON_IsTrue(update) || (cJSON_IsNumber(update) && update->valuedouble != 0)) {
            log_error("spool: the cloud answered the replayed start of recording %u with a new "
                      "key; the module keeps its key until its next start, which the cloud "
                      "answers with the new one",
                      item.info.recording);
        }
    }
    cJSON_Delete(root);
}

void on_replay_answer(const spool::Item &item, const CloudResponse &resp, bool delivered) {
    switch (item.info.kind) {
    case spool::Kind::kMedia: {
        const std::string &path = item.request.path;
        count_upload(path.substr(path.rfind('/') + 1), item.info.body_bytes, delivered);
        break;
    }
    case spool::Kind::kStart:
    case spool::Kind::kStop:
    case spool::Kind::kEvent:
        count_api_post();
        if (delivered) {
            check_api_answer(item, resp);
        }
        break;
    case spool::Kind::kAlarm:
        count_alarm();
        break;
    case spool::Kind::kGap:
        break;
    }
}

} // namespace

Delivery deliver(CloudRequest request, const spool::ItemInfo &info) {
    const std::shared_ptr<spool::Spool> spool = current_spool();
    Delivery live;
    if (!spool) {
        live.response = exchange(request);
        return live;
    }
    if (!spool->empty()) {
        return queue(*spool, request, info, nullptr);
    }
    const uint32_t full_limit = request.timeout_s;
    request.timeout_s = live_limit(request);
    live.response = exchange(request);
    if (!spool::cloud_unreachable(live.response.status)) {
        return live;
    }
    request.timeout_s = full_limit; // a replay gets the whole time limit
    return queue(*spool, request, info, &live.response);
}

CloudResponse send_live(CloudRequest request, bool fail_while_queued) {
    const std::shared_ptr<spool::Spool> spool = current_spool();
    if (spool) {
        const spool::Stats s = spool->stats();
        if (fail_while_queued && s.items > 0) {
            log_debug("spool: %s %s not sent: the cloud is unreachable (%llu items wait)",
                      request.method.c_str(), request.path.c_str(),
                      static_cast<unsigned long long>(s.items));
            return {};
        }
        request.timeout_s = live_limit(request);
    }
    return exchange(request);
}

spool::ItemInfo media_item(const std::string &file_name) {
    spool::ItemInfo info;
    info.kind = spool::Kind::kMedia;
    const size_t underscore = file_name.find('_');
    const size_t dot = file_name.find('.', underscore);
    if (underscore == std::string::npos || dot == std::string::npos || underscore == 0 ||
        dot == underscore + 1) {
        return info; // not a recording's file name: a group of its own
    }
    uint64_t start = 0;
    uint64_t elapsed = 0;
    for (size_t i = 0; i < dot; ++i) {
        const char c = file_name[i];
        if (i == underscore) {
            continue;
        }
        if (c < '0' || c > '9') {
            return info;
        }
        uint64_t &n = i < underscore ? start : elapsed;
        n = n * 10 + static_cast<uint64_t>(c - '0');
        if (n > UINT32_MAX) {
            return info;
        }
    }
    info.recording = static_cast<uint32_t>(start);
    info.span_begin = static_cast<uint32_t>(std::min<uint64_t>(start + elapsed, UINT32_MAX));
    // The file ends a slice length later; without a known length, now (the module hands a
    // slice over when its last frame is in).
    const uint32_t slice = g_slice_s.load();
    const uint64_t end = slice != 0 ? uint64_t{info.span_begin} + slice
                                    : std::max<uint64_t>(info.span_begin, now_ms() / 1000);
    info.span_end = static_cast<uint32_t>(std::min<uint64_t>(end, UINT32_MAX));
    return info;
}

spool::ItemInfo api_item(const std::string &api_name, const std::string &body, bool *spoolable) {
    spool::ItemInfo info;
    *spoolable = true;
    if (ends_with(api_name, ".notify.upload.start")) {
        info.kind = spool::Kind::kStart;
    } else if (ends_with(api_name, ".notify.upload.stop")) {
        info.kind = spool::Kind::kStop;
    } else if (ends_with(api_name, ".report.event")) {
        info.kind = spool::Kind::kEvent;
        return info;
    } else {
        *spoolable = false;
        return info;
    }
    cJSON *root = cJSON_ParseWithLength(body.data(), body.size());
    info.recording = u32_member(root, "startTime");
    if (info.kind == spool::Kind::kStart) {
        info.span_begin = info.span_end = info.recording;
        const uint32_t mtu = u32_member(root, "mtu");
        if (mtu != 0) {
            g_slice_s = mtu;
        }
        const cJSON *md5 = cJSON_GetObjectItemCaseSensitive(root, "enKeyMd5");
        *spoolable = cJSON_IsString(md5) && std::string(md5->valuestring) != kNoKeyMd5;
    } else {
        info.span_begin = info.span_end = u32_member(root, "endTime");
    }
    cJSON_Delete(root);
    return info;
}

bool spool_open(const Options &options, std::string *error) {
    const SpoolOptions &o = options.spool;
    if (!o.enabled) {
        return true;
    }
    if (o.max_bytes == 0 || o.max_age_s == 0 || o.live_timeout_s == 0 ||
        o.live_upload_timeout_s == 0 || o.retry_min_ms == 0 || o.retry_max_ms < o.retry_min_ms) {
        *error = "spool: max_bytes, max_age_s, the live time limits and retry_min_ms must be "
                 "above 0, and retry_max_ms at least retry_min_ms";
        return false;
    }
    spool::Config config;
    config.dir = o.dir.empty() ? options.data_dir + "/spool" : o.dir;
    config.max_bytes = o.max_bytes;
    config.max_age_ms = uint64_t{o.max_age_s} * 1000;
    config.gap_request = gap_request;
    std::shared_ptr<spool::Spool> spool = spool::Spool::open(config, error);
    if (!spool) {
        *error = "spool: " + *error;
        return false;
    }
    spool::SenderHooks hooks;
    hooks.transport = cloud;
    hooks.prepare = add_credentials;
    hooks.answered = on_replay_answer;
    spool::SenderSettings settings;
    settings.retry_min_ms = o.retry_min_ms;
    settings.retry_max_ms = o.retry_max_ms;
    auto sender = std::make_unique<spool::Sender>(spool, std::move(hooks), settings);
    std::lock_guard<std::mutex> lock(g_mu);
    g_spool = std::move(spool);
    g_sender = std::move(sender);
    g_last_stats = {};
    return true;
}

void spool_run() {
    std::lock_guard<std::mutex> lock(g_mu);
    if (g_sender) {
        g_sender->start();
    }
}

void spool_retry_now() {
    std::lock_guard<std::mutex> lock(g_mu);
    if (g_sender) {
        g_sender->retry_now();
    }
}

void spool_stop() {
    std::unique_ptr<spool::Sender> sender;
    std::shared_ptr<spool::Spool> spool;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        sender = std::move(g_sender);
        spool = std::move(g_spool);
    }
    if (sender) {
        sender->stop();
    }
    if (spool) {
        const spool::Stats s = spool->stats();
        std::lock_guard<std::mutex> lock(g_mu);
        g_last_stats = s;
    }
}

void spool_counters(Counters *counters) {
    spool::Stats s;
    if (const std::shared_ptr<spool::Spool> spool = current_spool()) {
        s = spool->stats();
    } else {
        std::lock_guard<std::mutex> lock(g_mu);
        s = g_last_stats;
    }
    counters->spool_items = s.items;
    counters->spool_bytes = s.bytes;
    counters->spool_oldest_ms = s.oldest_ms;
    counters->spool_sent = s.sent;
    counters->spool_dropped = s.dropped;
}

} // namespace hostkit::internal
