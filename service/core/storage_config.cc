/// storage/config and storage/restriction: what a device's order lets it record.
#include "answers.h"
#include "order_rules.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int32_t kOk = 200;
constexpr int32_t kGone = 410;
/// Media files are stored by this service itself, under "media/".
constexpr char kCloudType[] = "local";
constexpr char kAddressPrefix[] = "media";

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Response answer_storage_config(ServiceCore &core, const std::string &device) {
    std::lock_guard<std::mutex> lock(core.mutex);
    const DeviceState state = known_device(core, device);
    const Order &order = state.order;
    if (order.expired) {
        return error_answer(kGone, "order expired");
    }
    const int32_t left = events_left(order, state.allowance, local_day(core.now()));
    return json_answer(kOk, Json{{"cloudType", kCloudType},
                                 {"addressPrefix", kAddressPrefix},
                                 {"addressSuffix", core.options.address_suffix},
                                 {"storeMode", effective_store_mode(order)},
                                 {"eventDuration", order.event_duration},
                                 {"sliceDuration", order.slice_duration},
                                 {"silenceInterval", order.silence_interval},
                                 {"countLeft", left}});
}

Response answer_storage_restriction(ServiceCore &core, const std::string &device) {
    std::lock_guard<std::mutex> lock(core.mutex);
    const Order order = known_device(core, device).order;
    return json_answer(kOk, Json{{"eventDuration", order.event_duration},
                                 {"sliceDuration", order.slice_duration}});
}

} // namespace vexo_cloud
