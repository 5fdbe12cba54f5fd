// When each slice of a fleet is due, for senders that PUT the slices without the cameras'
// protocol: the same times vexo-loadgen's cameras send them at.
#ifndef VEXO_LOADGEN_FLOOR_SCHEDULE_H
#define VEXO_LOADGEN_FLOOR_SCHEDULE_H

#include <cstdint>
#include <string>
#include <vector>

#include "options.h"

namespace loadgen {

struct DuePut {
    double at_s = 0;     // seconds after the run's start
    uint32_t camera = 0; // 0-based
    uint32_t slice = 0;  // 0-based, per camera
};

/// The slices of the cameras whose index modulo senders is sender, in the order they fall
/// due. Camera i starts at i * ramp / cameras and sends a slice every slice period from one
/// period after its start, as long as the run lasts.
std::vector<DuePut> floor_schedule(const Options &options, uint32_t sender, uint32_t senders);

/// The object key of a slice: "<device>/<slice, 6 digits>.media".
std::string floor_key(const Options &options, const DuePut &put);

} // namespace loadgen

#endif
