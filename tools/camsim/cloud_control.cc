// The cloud a run uses: on the network with --cloud, else embedded.
#include "cloud_control.h"

#include "cloud_admin.h"
#include "embedded_control.h"

namespace camsim {

std::unique_ptr<CloudControl> make_cloud_control(const Options &options, std::string *error) {
    if (!options.cloud_url.empty()) {
        return CloudAdmin::create(options, error);
    }
    return EmbeddedControl::open(options.data_dir + "/cloud", options.device_id, error);
}

} // namespace camsim
