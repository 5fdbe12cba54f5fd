// The due times of a fleet's slices: see floor_schedule.h.
#include "floor_schedule.h"

#include <algorithm>
#include <cstdio>

namespace loadgen {

std::vector<DuePut> floor_schedule(const Options &options, uint32_t sender, uint32_t senders) {
    std::vector<DuePut> puts;
    if (senders == 0 || options.cameras == 0 || options.slice_every_s == 0) {
        return puts;
    }
    for (uint32_t camera = sender; camera < options.cameras; camera += senders) {
        const double start = options.ramp_s * camera / options.cameras;
        // The camera's first tick opens its recording; slices go from the next one on.
        for (uint32_t slice = 0;; ++slice) {
            const double at = start + static_cast<double>(slice + 1) * options.slice_every_s;
            if (at >= options.duration_s) {
                break;
            }
            puts.push_back({at, camera, slice});
        }
    }
    std::stable_sort(puts.begin(), puts.end(),
                     [](const DuePut &a, const DuePut &b) { return a.at_s < b.at_s; });
    return puts;
}

std::string floor_key(const Options &options, const DuePut &put) {
    char slice[16];
    std::snprintf(slice, sizeof slice, "%06u", put.slice);
    return device_id(options, put.camera) + "/" + slice + ".media";
}

} // namespace loadgen
