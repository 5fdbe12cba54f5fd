// The cloud a simulation runs against, as the simulator drives it: the transport the kit's
// cloud calls go through, and the admin side (order, remote trigger, abort, recordings).
// Either the cloud service embedded in the process, or a cloud service on the network
// reached through its admin HTTP endpoints.
#ifndef VEXO_CAMSIM_CLOUD_CONTROL_H
#define VEXO_CAMSIM_CLOUD_CONTROL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cloud_service.h"
#include "cloud_transport.h"
#include "options.h"

namespace camsim {

/// One recording as the summary lists it.
struct RecordingSummary {
    uint32_t start_time = 0;
    uint32_t end_time = 0; // 0 while open
    uint64_t files = 0;
    uint64_t bytes = 0;
    std::string key_md5;
};

class CloudControl {
  public:
    virtual ~CloudControl() = default;

    /// Where the kit's cloud calls go.
    virtual std::shared_ptr<hostkit::CloudTransport> transport() = 0;
    /// Changes the device's order (unset members stay); false with *error when the cloud
    /// refuses or cannot be reached.
    virtual bool set_order(const vexo_cloud::OrderChange &change, std::string *error) = 0;
    /// A remote trigger: action "record", "pic" or "pic_v", ext {"user":"camsim"}.
    virtual bool trigger(const std::string &action, int32_t duration_s, std::string *error) = 0;
    virtual bool abort_order(std::string *error) = 0;
    virtual bool recordings(std::vector<RecordingSummary> *out, std::string *error) = 0;
    /// How the summary names the cloud: "vexo-data/cloud" or the URL.
    virtual std::string name() const = 0;
    /// The directory vexo-media exports from, or empty when the cloud's files are elsewhere.
    virtual std::string media_dir() const = 0;
};

/// The cloud the options ask for: the network cloud at --cloud, or an embedded one in
/// DATA/cloud. Null with *error when it cannot be set up (bad URL or CA file, damaged cloud
/// directory).
std::unique_ptr<CloudControl> make_cloud_control(const Options &options, std::string *error);

} // namespace camsim

#endif
