// Fuzz target: the host kit turning a cloud answer into the module's records. The kit is
// started once with a transport that answers every request with the current input.
//
// Input: byte 0 chooses the call (storage config, storage restriction, an API call), byte 1
// the HTTP status (mostly 200, so the body is read), the rest is the answer's body.
// A call that succeeds must leave its texts terminated within their fields.
#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "host_kit.h"
#include "vexo_cloud.h"

namespace {

class AnswerCloud : public hostkit::CloudTransport {
  public:
    hostkit::CloudResponse exchange(const hostkit::CloudRequest &) override { return answer; }
    hostkit::CloudResponse answer;
};

std::shared_ptr<AnswerCloud> g_cloud;
std::string g_dir;

void fail(const char *what) {
    (void)std::fprintf(stderr, "cloud_answers_fuzz: %s\n", what);
    std::abort();
}

void stop_kit() {
    hostkit::stop();
    std::error_code ec;
    std::filesystem::remove_all(g_dir, ec);
}

void start_kit() {
    char pattern[] = "/tmp/vexo-fuzz-kit-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        fail("cannot make a temporary directory");
    }
    g_dir = pattern;
    g_cloud = std::make_shared<AnswerCloud>();
    hostkit::Options o;
    o.data_dir = g_dir;
    o.device_id = "cam-fuzz";
    o.cloud = g_cloud;
    o.log_level = hostkit::LogLevel::kError;
    if (hostkit::start(o) != 0) {
        fail("the kit did not start");
    }
    (void)std::atexit(stop_kit);
}

bool terminated(const char *text, size_t capacity) {
    return std::memchr(text, '\0', capacity) != nullptr;
}

void storage_config() {
    vexo_storage_config_t cfg;
    std::memset(&cfg, 0x5A, sizeof cfg);
    if (cloud_get_storage_config(&cfg, 1) == 0 &&
        (!terminated(cfg.cloud_type, sizeof cfg.cloud_type) ||
         !terminated(cfg.address_prefix, sizeof cfg.address_prefix) ||
         !terminated(cfg.address_suffix, sizeof cfg.address_suffix) ||
         !terminated(cfg.store_mode, sizeof cfg.store_mode) || cfg.event_duration < 0 ||
         cfg.slice_duration < 0 || cfg.silence_interval < 0 || cfg.count_left < 0)) {
        fail("storage config accepted with a field out of range");
    }
}

void restriction() {
    vexo_storage_config_t cfg;
    std::memset(&cfg, 0, sizeof cfg);
    if (cloud_get_storage_restriction_config(&cfg) == 0 &&
        (cfg.event_duration < 0 || cfg.slice_duration < 0)) {
        fail("restriction accepted with a negative duration");
    }
}

void api_call() {
    char body[] = R"({"startTime":1800000000})";
    cJSON *result = nullptr;
    const int32_t rc = iot_httpc_common_post_no_remalloc(
        "vexo.storage.query", "1.0", nullptr, nullptr, body, sizeof body, nullptr, &result);
    if ((rc == 0) != (result != nullptr)) {
        fail("api call result and answer disagree");
    }
    cJSON_Delete(result);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    if (!g_cloud) {
        start_kit();
    }
    static const int32_t kStatus[] = {200, 200, 200, 200, 200, 410, 500, 404, 0, 201};
    g_cloud->answer.status = kStatus[data[1] % (sizeof kStatus / sizeof kStatus[0])];
    g_cloud->answer.body.assign(reinterpret_cast<const char *>(data + 2), size - 2);
    switch (data[0] % 3) {
    case 0:
        storage_config();
        break;
    case 1:
        restriction();
        break;
    default:
        api_call();
        break;
    }
    return 0;
}
