// Fuzz target: an MQTT command payload, parsed by the test kit and handed to the module's
// handler for its protocol (307 remote trigger, 300 order change), as the kit delivers a
// message from the broker.
//
// Input: one byte of state, then the payload text.
//   bit 0: protocol (0: 307, 1: 300)      bit 1: module initialised
//   bit 2: recording enabled               bits 3-4: store mode (0 none, 1 event, 2 all time,
//                                                    3 an invalid mode)
//   bit 5: the snapshot is over its limit  bit 6: the storage config fetch fails
// After each message the kit must hold no module allocation, no locked mutex and no misuse.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/cloud_storage_internal.h"
#include "test_kit.h"

namespace {

constexpr uint32_t kOrderChange = 300;
constexpr uint32_t kRemoteTrigger = 307;

void fail(const char *what) {
    (void)std::fprintf(stderr, "mqtt_commands_fuzz: %s\n", what);
    std::abort();
}

void prepare(uint8_t state) {
    tk::reset();
    cloud_storage_reset_statics();
    cloud_storage_ctl_t &ctl = cloud_storage_ctl;
    if (vexo_hal_mutex_create_init(&ctl.event_mutex) != 0 ||
        vexo_hal_mutex_create_init(&ctl.upload_mutex) != 0) {
        fail("mutex creation failed");
    }
    ctl.media_info = tk::sample_media_info();
    ctl.inited = (state >> 1) & 1;
    ctl.enable = (state >> 2) & 1;
    ctl.store_mode = (state >> 3) & 3;
    if ((state >> 5) & 1) {
        tk::set_snapshot_size(102401);
    }
    if ((state >> 6) & 1) {
        tk::queue_storage_config(-7, tk::make_storage_config("alltime", 30, 10, 0, 0));
    }
    // What the module's start attaches, without its worker thread.
    mqtt_attach(kOrderChange, __cloud_storage_order_change_callback);
    mqtt_attach(kRemoteTrigger, __cloud_storage_iot_event_trigger_callback);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t state = data[0];
    prepare(state);
    const std::string payload(reinterpret_cast<const char *>(data + 1), size - 1);
    (void)tk::deliver_mqtt((state & 1) != 0 ? kOrderChange : kRemoteTrigger, payload);
    if (tk::alloc_stats(tk::Pool::malloc).outstanding != 0 ||
        tk::alloc_stats(tk::Pool::system).outstanding != 0) {
        fail("a handler left memory allocated");
    }
    if (tk::locked_mutex_count() != 0) {
        fail("a handler left a mutex locked");
    }
    if (tk::misuse_count() != 0) {
        fail(("kit misuse: [" + tk::misuses().front().category + "] " +
              tk::misuses().front().message)
                 .c_str());
    }
    return 0;
}
