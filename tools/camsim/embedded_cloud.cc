// The embedded cloud transport.
#include "embedded_cloud.h"

#include "host_kit.h"

namespace camsim {

EmbeddedCloud::EmbeddedCloud(std::shared_ptr<vexo_cloud::Service> service)
    : service_(std::move(service)) {}

hostkit::CloudResponse EmbeddedCloud::exchange(const hostkit::CloudRequest &request) {
    vexo_cloud::Request req;
    req.method = request.method;
    req.path = request.path;
    req.query = request.query;
    req.headers = request.headers;
    req.body = request.body;
    const vexo_cloud::Response resp = service_->handle(req);
    hostkit::CloudResponse out;
    out.status = resp.status;
    out.content_type = resp.content_type;
    out.body = resp.body;
    return out;
}

vexo_cloud::Options EmbeddedCloud::service_options(const std::string &data_dir,
                                                   const std::string &device_id) {
    vexo_cloud::Options options;
    options.data_dir = data_dir;
    // The service runs on the kit's clock, so its day turns at the kit's midnight.
    options.clock = [] { return static_cast<uint32_t>(hostkit::now_ms() / 1000); };
    options.publish = [device_id](const std::string &device, const std::string &payload) {
        if (device == device_id) {
            hostkit::mqtt_deliver(payload);
        }
    };
    return options;
}

} // namespace camsim
