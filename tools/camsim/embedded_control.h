// The cloud service embedded in the simulator's process.
#ifndef VEXO_CAMSIM_EMBEDDED_CONTROL_H
#define VEXO_CAMSIM_EMBEDDED_CONTROL_H

#include "cloud_control.h"

namespace camsim {

class EmbeddedControl : public CloudControl {
  public:
    /// Opens (or creates) the cloud kept in dir; null with *error when its files are damaged.
    static std::unique_ptr<EmbeddedControl> open(const std::string &dir,
                                                 const std::string &device_id, std::string *error);

    std::shared_ptr<hostkit::CloudTransport> transport() override;
    bool set_order(const vexo_cloud::OrderChange &change, std::string *error) override;
    bool trigger(const std::string &action, int32_t duration_s, std::string *error) override;
    bool abort_order(std::string *error) override;
    bool recordings(std::vector<RecordingSummary> *out, std::string *error) override;
    std::string name() const override { return dir_; }
    std::string media_dir() const override { return dir_; }

  private:
    EmbeddedControl(std::shared_ptr<vexo_cloud::Service> service, std::string device_id,
                    std::string dir);

    std::shared_ptr<vexo_cloud::Service> service_;
    std::shared_ptr<hostkit::CloudTransport> transport_;
    std::string device_id_;
    std::string dir_;
};

} // namespace camsim

#endif
