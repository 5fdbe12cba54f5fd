// The embedded cloud as a CloudControl: the service core in the process, its files under
// DATA/cloud, its MQTT messages delivered straight to the kit.
#include "embedded_control.h"

#include <exception>

#include "embedded_cloud.h"

namespace camsim {

EmbeddedControl::EmbeddedControl(std::shared_ptr<vexo_cloud::Service> service,
                                 std::string device_id, std::string dir)
    : service_(std::move(service)), transport_(std::make_shared<EmbeddedCloud>(service_)),
      device_id_(std::move(device_id)), dir_(std::move(dir)) {}

std::unique_ptr<EmbeddedControl>
EmbeddedControl::open(const std::string &dir, const std::string &device_id, std::string *error) {
    try {
        auto service =
            std::make_shared<vexo_cloud::Service>(EmbeddedCloud::service_options(dir, device_id));
        return std::unique_ptr<EmbeddedControl>(
            new EmbeddedControl(std::move(service), device_id, dir));
    } catch (const std::exception &e) {
        // A damaged record in the cloud directory: say which, change nothing.
        *error = "cannot open the cloud in " + dir + ": " + e.what();
        return nullptr;
    }
}

std::shared_ptr<hostkit::CloudTransport> EmbeddedControl::transport() {
    return transport_;
}

bool EmbeddedControl::set_order(const vexo_cloud::OrderChange &change, std::string *error) {
    return service_->set_order(device_id_, change, error);
}

bool EmbeddedControl::trigger(const std::string &action, int32_t duration_s, std::string *error) {
    return service_->trigger(device_id_, action, duration_s, "{\"user\":\"camsim\"}", error);
}

bool EmbeddedControl::abort_order(std::string *error) {
    return service_->abort_order(device_id_, error);
}

bool EmbeddedControl::recordings(std::vector<RecordingSummary> *out, std::string *error) {
    out->clear();
    try {
        for (const vexo_cloud::Recording &r : service_->recordings(device_id_)) {
            RecordingSummary s;
            s.start_time = r.start_time;
            s.end_time = r.end_time;
            s.files = r.files.size();
            for (const vexo_cloud::MediaFileInfo &f : r.files) {
                s.bytes += f.bytes;
            }
            s.key_md5 = r.key_md5;
            out->push_back(std::move(s));
        }
        return true;
    } catch (const std::exception &e) {
        *error = e.what();
        return false;
    }
}

} // namespace camsim
