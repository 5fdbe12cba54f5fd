/// The Service object: set-up from the data directory, and the inspection calls.
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "durable_file.h"
#include "media_names.h"
#include "open_media_store.h"
#include "open_metadata_store.h"
#include "order_rules.h"
#include "service_core.h"
#include "store_views.h"

namespace vexo_cloud {

// ---- helpers -------------------------------------------------------------------------------

namespace {

uint32_t real_time() {
    return static_cast<uint32_t>(std::time(nullptr));
}

void check_options(const Options &options) {
    if (options.data_dir.empty()) {
        throw std::invalid_argument("the data directory is not set");
    }
    std::string error;
    if (!validate_order(options.default_order, &error)) {
        throw std::invalid_argument("default order: " + error);
    }
    for (const auto &[device, token] : options.tokens) {
        if (!valid_device_id(device)) {
            throw std::invalid_argument("invalid device id in the tokens: " + device);
        }
        if (token.empty()) {
            throw std::invalid_argument("empty token for device " + device);
        }
    }
}

void make_data_directory(const std::string &data_dir) {
    std::error_code ec;
    std::filesystem::create_directories(data_dir, ec);
    if (ec) {
        throw FileError("cannot create " + data_dir + ": " + ec.message(), ec.value());
    }
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

Service::Service(Options options) : impl_(std::make_unique<Impl>()) {
    ServiceCore &core = impl_->core;
    check_options(options);
    core.options = std::move(options);
    if (!core.options.clock) {
        core.options.clock = real_time;
    }
    const std::string &data_dir = core.options.data_dir;
    make_data_directory(data_dir);
    core.lock = std::make_unique<DataLock>(data_dir);
    core.metadata = open_metadata_store(core.options.metadata_url, data_dir);
    core.media = open_media_store(core.options.media_url, data_dir);
    import_json_layout(core);
    quarantine_damaged_state(core);
    reconcile_media(core);
    std::lock_guard<std::mutex> lock(core.mutex);
    std::vector<std::string> new_devices;
    for (const auto &item : core.options.tokens) {
        if (!find_device(core, item.first)) {
            new_devices.push_back(item.first);
        }
    }
    // All or none: a start that would pass the cap creates none of them.
    const uint64_t cap = core.options.max_devices;
    if (cap != 0 && core.metadata->device_count() + new_devices.size() > cap) {
        throw std::invalid_argument(
            "the tokens name " + std::to_string(new_devices.size()) + " new devices; with the " +
            std::to_string(core.metadata->device_count()) + " known that passes the cap of " +
            std::to_string(cap) + " devices");
    }
    core.metadata->transaction([&] {
        for (const std::string &device : new_devices) {
            create_device(core, device, core.options.default_order);
        }
    });
    if (core.options.retention_interval > 0) {
        impl_->retention = std::make_unique<RepeatingTask>(core.options.retention_interval,
                                                           [&core] { run_retention(core); });
    }
}

Service::~Service() = default;

std::optional<Order> Service::order(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const std::optional<DeviceState> state = find_device(core, device);
    return state ? std::optional<Order>(state->order) : std::nullopt;
}

int32_t Service::count_left(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const std::optional<DeviceState> state = find_device(core, device);
    if (!state) {
        return 0;
    }
    return events_left(state->order, state->allowance, local_day(core.now()));
}

std::string Service::key_md5(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const std::optional<DeviceState> state = find_device(core, device);
    return state ? state->key_md5 : std::string();
}

std::vector<std::string> Service::devices() const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    return core.metadata->device_ids();
}

std::vector<Recording> Service::recordings(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    if (device.empty()) {
        return {}; // one device's, never all of them
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    return recordings_of(*core.metadata, core.options.data_dir, device, nullptr);
}

std::vector<Gap> Service::gaps(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    if (device.empty()) {
        return {};
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    return core.metadata->gaps(device);
}

std::vector<Alarm> Service::alarms(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    if (device.empty()) {
        return {};
    }
    std::lock_guard<std::mutex> lock(core.mutex);
    std::vector<Alarm> alarms;
    for (const AlarmRow &row : core.metadata->alarms(device)) {
        Alarm alarm;
        alarm.id = row.id;
        alarm.device = row.device;
        alarm.time = row.time;
        alarm.with_picture = row.with_picture;
        alarm.extra = row.extra;
        if (!row.picture_object.empty()) {
            alarm.picture_path = core.media->local_path(row.picture_object);
        }
        alarms.push_back(std::move(alarm));
    }
    return alarms;
}

uint32_t Service::now() const {
    return impl_->core.now();
}

void ServiceCore::log(const std::string &line) const {
    if (options.log) {
        options.log(line);
        return;
    }
    std::fprintf(stderr, "vexo-cloud: %s\n", line.c_str());
}

} // namespace vexo_cloud
