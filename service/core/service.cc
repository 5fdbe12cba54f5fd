/// The Service object: set-up from the data directory, and the inspection calls.
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "alarm_store.h"
#include "durable_file.h"
#include "order_rules.h"
#include "service_core.h"

namespace vexo_cloud {

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr size_t kMaxDeviceId = 64;

// ---- helpers -------------------------------------------------------------------------------

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
    make_data_directory(core.options.data_dir);
    std::lock_guard<std::mutex> lock(core.mutex);
    load_devices(core);
    for (const auto &item : core.options.tokens) {
        if (core.devices.count(item.first) == 0) {
            create_device(core, item.first, core.options.default_order);
        }
    }
}

Service::~Service() = default;

std::optional<Order> Service::order(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const auto it = core.devices.find(device);
    if (it == core.devices.end()) {
        return std::nullopt;
    }
    return it->second.state.order;
}

int32_t Service::count_left(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const auto it = core.devices.find(device);
    if (it == core.devices.end()) {
        return 0;
    }
    const DeviceState &state = it->second.state;
    return events_left(state.order, state.allowance, local_day(core.now()));
}

std::vector<std::string> Service::devices() const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    std::vector<std::string> names;
    for (const auto &item : core.devices) {
        names.push_back(item.first);
    }
    return names;
}

std::vector<Recording> Service::recordings(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        if (core.devices.count(device) == 0) {
            return {};
        }
    }
    return read_recordings(core.options.data_dir, device);
}

std::vector<Gap> Service::gaps(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    std::lock_guard<std::mutex> lock(core.mutex);
    const auto it = core.devices.find(device);
    return it == core.devices.end() ? std::vector<Gap>{} : it->second.gaps;
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

std::vector<Alarm> Service::alarms(const std::string &device) const {
    const ServiceCore &core = impl_->core;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        if (core.devices.count(device) == 0) {
            return {};
        }
    }
    return read_alarms(core.device_dir(device) + "/" + kAlarmsDirectory, device);
}

bool valid_device_id(const std::string &device) {
    if (device.empty() || device.size() > kMaxDeviceId || device == "." || device == "..") {
        return false;
    }
    for (char c : device) {
        const bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!allowed) {
            return false;
        }
    }
    return true;
}

} // namespace vexo_cloud
