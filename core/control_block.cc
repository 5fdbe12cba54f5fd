/// The module's one control block and its file-level statics.
#include <new>
#include <type_traits>

#include "core/cloud_storage_internal.h"

cloud_storage_ctl_t cloud_storage_ctl;
uint32_t s_max_frame_size = 0;
const uint8_t s_aes_iv[16] = {0x5c, 0x1e, 0xa7, 0x33, 0x90, 0xd2, 0x4b, 0x68,
                              0xf1, 0x0a, 0x87, 0xc5, 0x26, 0xe9, 0x7d, 0xb4};

void cloud_storage_reset_statics() {
    // Value-initialisation zeroes every field, the atomic words included. The block owns
    // nothing that needs tearing down, so the new object simply takes the old one's place.
    static_assert(std::is_trivially_destructible<cloud_storage_ctl_t>::value,
                  "the control block must not need a destructor");
    new (&cloud_storage_ctl) cloud_storage_ctl_t();
    s_max_frame_size = 0;
    cloud_storage_reset_event_statics();
    cloud_storage_reset_config_statics();
    cloud_storage_reset_intake_statics();
}
