/// The embedded cloud: a cloud service linked into the process, reached without a network.
/// Requests go straight to the service core; what the service publishes for this device is
/// delivered to the kit's MQTT thread.
#ifndef VEXO_CAMSIM_EMBEDDED_CLOUD_H
#define VEXO_CAMSIM_EMBEDDED_CLOUD_H

#include <memory>

#include "cloud_service.h"
#include "cloud_transport.h"

namespace camsim {

class EmbeddedCloud : public hostkit::CloudTransport {
  public:
    explicit EmbeddedCloud(std::shared_ptr<vexo_cloud::Service> service);
    hostkit::CloudResponse exchange(const hostkit::CloudRequest &request) override;
    vexo_cloud::Service &service() { return *service_; }

    /// Service options whose publish callback delivers to the kit's MQTT thread.
    static vexo_cloud::Options service_options(const std::string &data_dir,
                                               const std::string &device_id);

  private:
    std::shared_ptr<vexo_cloud::Service> service_;
};

} // namespace camsim

#endif
