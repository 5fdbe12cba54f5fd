// The device services: the gateway record, snapshots from the hosting program, the skill
// registry, and MQTT command dispatch on the kit's MQTT thread.
#include <cjson/cJSON.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "host_internal.h"
#include "vexo_cloud.h"
#include "vexo_device.h"

namespace hostkit {
namespace {

std::mutex g_mu; // the gateway record, snapshot source, skills and handlers
vexo_gw_cntl_t g_gw{};
SnapshotSource g_snapshot;
std::map<uint32_t, vexo_mqtt_handler_t> g_handlers;

// The MQTT thread and its queue.
std::mutex g_queue_mu;
std::condition_variable g_queue_cv;
std::deque<std::string> g_queue;
bool g_queue_stop = false;
std::thread g_mqtt_thread;

void mqtt_thread_main() {
    for (;;) {
        std::string payload;
        {
            std::unique_lock<std::mutex> lock(g_queue_mu);
            g_queue_cv.wait(lock, [] { return g_queue_stop || !g_queue.empty(); });
            if (g_queue.empty()) {
                return; // stopping, and nothing left to hand out
            }
            payload = std::move(g_queue.front());
            g_queue.pop_front();
        }
        mqtt_dispatch(payload);
    }
}

} // namespace

namespace internal {

void device_reset() {
    std::lock_guard<std::mutex> lock(g_mu);
    std::memset(&g_gw, 0, sizeof g_gw);
    std::strncpy(g_gw.gw_id, options().device_id.c_str(), sizeof g_gw.gw_id - 1);
    g_handlers.clear();
    g_snapshot = nullptr;
}

void mqtt_start() {
    std::lock_guard<std::mutex> lock(g_queue_mu);
    g_queue.clear();
    g_queue_stop = false;
    g_mqtt_thread = std::thread(mqtt_thread_main);
}

void mqtt_stop() {
    {
        std::lock_guard<std::mutex> lock(g_queue_mu);
        g_queue_stop = true;
        g_queue_cv.notify_all();
    }
    if (g_mqtt_thread.joinable()) {
        g_mqtt_thread.join();
    }
}

} // namespace internal

void set_snapshot_source(SnapshotSource source) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_snapshot = std::move(source);
}

void mqtt_deliver(const std::string &payload) {
    std::lock_guard<std::mutex> lock(g_queue_mu);
    g_queue.push_back(payload);
    g_queue_cv.notify_all();
}

int32_t mqtt_dispatch(const std::string &payload) {
    cJSON *root = cJSON_ParseWithLength(payload.data(), payload.size());
    if (root == nullptr || !cJSON_IsObject(root)) {
        internal::log_error("mqtt: dropped a message that is not a JSON object (%zu bytes)",
                            payload.size());
        cJSON_Delete(root);
        return -1;
    }
    const cJSON *protocol = cJSON_GetObjectItemCaseSensitive(root, "protocol");
    int64_t number = 0;
    // A protocol number that names no possible handler is refused as it stands: clamping it
    // would hand the message to whichever handler sits at the bound.
    if (cJSON_IsNumber(protocol) && internal::read_whole_number(protocol, 0, UINT32_MAX, &number) !=
                                        internal::WholeNumber::kFits) {
        internal::log_error("mqtt: dropped a message whose protocol %.17g is not a whole number "
                            "0..4294967295",
                            protocol->valuedouble);
        cJSON_Delete(root);
        return -1;
    }
    vexo_mqtt_handler_t handler = nullptr;
    if (cJSON_IsNumber(protocol)) {
        std::lock_guard<std::mutex> lock(g_mu);
        auto it = g_handlers.find(static_cast<uint32_t>(number));
        if (it != g_handlers.end()) {
            handler = it->second;
        }
    }
    if (handler == nullptr) {
        internal::log_error("mqtt: dropped a message with %s protocol",
                            cJSON_IsNumber(protocol) ? "an unknown" : "no");
        cJSON_Delete(root);
        return -1;
    }
    internal::count_mqtt(static_cast<uint32_t>(number));
    handler(root);
    cJSON_Delete(root);
    return 0;
}

} // namespace hostkit

extern "C" {

vexo_gw_cntl_t *get_gw_cntl(void) {
    return &hostkit::g_gw;
}

int32_t mqtt_attach(uint32_t protocol, vexo_mqtt_handler_t handler) {
    if (handler == nullptr) {
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(hostkit::g_mu);
        hostkit::g_handlers[protocol] = handler;
    }
    // A network client connects now, so that the commands its broker kept for the camera
    // find their handler.
    hostkit::internal::mqtt_net_connect();
    return 0;
}

int32_t vexo_ipc_get_snapshot_cb(uint8_t *buf, int32_t *size) {
    using namespace hostkit;
    if (buf == nullptr || size == nullptr || *size <= 0) {
        return -1;
    }
    SnapshotSource source;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        source = g_snapshot;
    }
    std::vector<uint8_t> jpeg;
    if (!source || !source(&jpeg) || jpeg.empty()) {
        internal::log_error("snapshot: no picture available");
        return -1;
    }
    if (jpeg.size() > static_cast<size_t>(*size)) {
        internal::log_error("snapshot: picture of %zu bytes does not fit %d", jpeg.size(),
                            static_cast<int>(*size));
        return -1;
    }
    std::memcpy(buf, jpeg.data(), jpeg.size());
    *size = static_cast<int32_t>(jpeg.size());
    return 0;
}

int32_t vexo_ipc_skill_enable(uint32_t skill, const uint8_t param[512]) {
    (void)param;
    hostkit::internal::log_debug("skill %u enabled", skill);
    return 0;
}

} // extern "C"
