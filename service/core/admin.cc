/// The admin calls: order changes and remote triggers, each published to the device as an
/// MQTT message after the service lock is released.
#include <algorithm>
#include <cstdint>
#include <set>

#include "device_state.h"
#include "json_fields.h"
#include "media_names.h"
#include "order_rules.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr int kProtocolOrderChange = 300;
constexpr int kProtocolRemoteTrigger = 307;
constexpr int32_t kMinTriggerDuration = 1;
constexpr int32_t kMaxTriggerDuration = 1800;
constexpr char kActionPicture[] = "pic";

// ---- helpers -------------------------------------------------------------------------------

bool fail(std::string *error, const std::string &message) {
    if (error != nullptr) {
        *error = message;
    }
    return false;
}

void publish(const ServiceCore &core, const std::string &device, const Json &message) {
    if (core.options.publish) {
        core.options.publish(device, to_text(message));
    }
}

/// Writes order as the device's order, creating the device when it is new.
void store_order(ServiceCore &core, const std::string &device, const Order &order) {
    std::optional<DeviceState> state = find_device(core, device);
    if (!state) {
        create_device(core, device, order);
        return;
    }
    state->order = order;
    core.metadata->put_device(device, *state);
}

/// The order and allowance of a device, or those a new device would start with.
DeviceState current_state(const ServiceCore &core, const std::string &device) {
    std::optional<DeviceState> state = find_device(core, device);
    if (state) {
        return std::move(*state);
    }
    DeviceState fresh;
    fresh.order = core.options.default_order;
    return fresh;
}

/// Stores an order; false with a generic *error when the store failed (the detail is logged,
/// it may name server paths).
bool try_store_order(ServiceCore &core, const std::string &device, const Order &order,
                     std::string *error, std::string *detail) {
    try {
        store_order(core, device, order);
        return true;
    } catch (const std::exception &e) {
        *detail = device + ": cannot store the order: " + e.what();
        return fail(error, "the order could not be stored");
    }
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool Service::set_order(const std::string &device, const OrderChange &change, std::string *error,
                        AdminRefusal *why) {
    ServiceCore &core = impl_->core;
    if (why != nullptr) {
        *why = AdminRefusal::kBadValue;
    }
    if (!valid_device_id(device)) {
        return fail(error, "invalid device id");
    }
    Json message;
    std::string detail;
    bool stored = false;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        if (!find_device(core, device) && !room_for_device(core)) {
            if (why != nullptr) {
                *why = AdminRefusal::kNoRoom;
            }
            return fail(error, "the service keeps at most " +
                                   std::to_string(core.options.max_devices) +
                                   " devices: no room for another");
        }
        const DeviceState state = current_state(core, device);
        Order order = state.order;
        OrderChange effective = change;
        if (change.events_left) {
            if (*change.events_left < 0) {
                return fail(error, "events left must not be negative");
            }
            // Today's starts stay counted: the allowance grows or shrinks around them.
            const Allowance &allowance = state.allowance;
            const int32_t today = local_day(core.now());
            const int64_t started = allowance.day == today ? allowance.events_started : 0;
            effective.daily_events =
                static_cast<int32_t>(std::min<int64_t>(started + *change.events_left, INT32_MAX));
        }
        std::string problem;
        if (!apply_order_change(&order, effective, &problem)) {
            return fail(error, problem);
        }
        order.aborted = false;
        stored = try_store_order(core, device, order, error, &detail);
        message = Json{{"protocol", kProtocolOrderChange},
                       {"data", {{"action", "store"}, {"storeMode", order.store_mode}}}};
    }
    if (!stored) {
        core.log(detail);
        return false;
    }
    publish(core, device, message);
    return true;
}

bool Service::abort_order(const std::string &device, std::string *error) {
    ServiceCore &core = impl_->core;
    if (!valid_device_id(device)) {
        return fail(error, "invalid device id");
    }
    std::string detail;
    bool stored = false;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        Order order = current_state(core, device).order;
        order.aborted = true;
        stored = try_store_order(core, device, order, error, &detail);
    }
    if (!stored) {
        core.log(detail);
        return false;
    }
    publish(core, device,
            Json{{"protocol", kProtocolOrderChange}, {"data", {{"action", "abort"}}}});
    return true;
}

bool Service::trigger(const std::string &device, const std::string &action, int32_t duration,
                      const std::string &ext_json, std::string *error) {
    ServiceCore &core = impl_->core;
    static const std::set<std::string> kActions = {"record", kActionPicture, "pic_v"};
    if (kActions.count(action) == 0) {
        return fail(error, "action must be record, pic or pic_v");
    }
    const bool picture_only = action == kActionPicture;
    if (!picture_only && (duration < kMinTriggerDuration || duration > kMaxTriggerDuration)) {
        return fail(error, "duration must be 1..1800 seconds");
    }
    std::string why;
    const std::optional<Json> ext = parse_value(ext_json, &why);
    if (!ext) {
        return fail(error, "ext is refused: " + why);
    }
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        if (!valid_device_id(device) || !find_device(core, device)) {
            return fail(error, "unknown device");
        }
    }
    // A picture has no duration, but the device expects the member: it gets 0.
    const Json data{{"action", action}, {"duration", picture_only ? 0 : duration}, {"ext", *ext}};
    publish(core, device, Json{{"protocol", kProtocolRemoteTrigger}, {"data", data}});
    return true;
}

} // namespace vexo_cloud
