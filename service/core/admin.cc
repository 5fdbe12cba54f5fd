/// The admin calls: order changes and remote triggers, each published to the device as an
/// MQTT message after the service lock is released.
#include <algorithm>
#include <cstdint>
#include <set>

#include "device_state.h"
#include "json_fields.h"
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
    const auto it = core.devices.find(device);
    if (it == core.devices.end()) {
        create_device(core, device, order);
        return;
    }
    DeviceState next = it->second.state;
    next.order = order;
    save_device_state(core.device_dir(device), next);
    it->second.state = next;
}

Order current_order(const ServiceCore &core, const std::string &device) {
    const auto it = core.devices.find(device);
    return it == core.devices.end() ? core.options.default_order : it->second.state.order;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

bool Service::set_order(const std::string &device, const OrderChange &change, std::string *error) {
    ServiceCore &core = impl_->core;
    if (!valid_device_id(device)) {
        return fail(error, "invalid device id");
    }
    Json message;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        Order order = current_order(core, device);
        OrderChange effective = change;
        if (change.events_left) {
            if (*change.events_left < 0) {
                return fail(error, "events left must not be negative");
            }
            // Today's starts stay counted: the allowance grows or shrinks around them.
            const auto it = core.devices.find(device);
            const Allowance none;
            const Allowance &allowance =
                it == core.devices.end() ? none : it->second.state.allowance;
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
        try {
            store_order(core, device, order);
        } catch (const std::exception &e) {
            return fail(error, e.what());
        }
        message = Json{{"protocol", kProtocolOrderChange},
                       {"data", {{"action", "store"}, {"storeMode", order.store_mode}}}};
    }
    publish(core, device, message);
    return true;
}

bool Service::abort_order(const std::string &device, std::string *error) {
    ServiceCore &core = impl_->core;
    if (!valid_device_id(device)) {
        return fail(error, "invalid device id");
    }
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        Order order = current_order(core, device);
        order.aborted = true;
        try {
            store_order(core, device, order);
        } catch (const std::exception &e) {
            return fail(error, e.what());
        }
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
        if (core.devices.count(device) == 0) {
            return fail(error, "unknown device");
        }
    }
    // A picture has no duration, but the device expects the member: it gets 0.
    const Json data{{"action", action}, {"duration", picture_only ? 0 : duration}, {"ext", *ext}};
    publish(core, device, Json{{"protocol", kProtocolRemoteTrigger}, {"data", data}});
    return true;
}

} // namespace vexo_cloud
