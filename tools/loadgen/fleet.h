// Runs the cameras: spread over the network threads, each thread with its own event loop
// and its own measurements, merged at the end.
#ifndef VEXO_LOADGEN_FLEET_H
#define VEXO_LOADGEN_FLEET_H

#include <cstdio>
#include <optional>
#include <string>

#include "options.h"
#include "server_url.h"
#include "stats.h"

namespace loadgen {

struct FleetResult {
    Stats stats;
    double elapsed_s = 0; // from the start until the last camera ended
};

/// Runs options.cameras cameras against server until options.duration_s has passed and each
/// camera's last request was answered (or the run's hard end, the duration plus twice the
/// request timeout, cut it off). progress: where the progress lines go (nullptr: none).
/// nullopt with *error when the server's name does not resolve.
std::optional<FleetResult> run_fleet(const Options &options, const ServerUrl &server,
                                     std::FILE *progress, std::string *error);

} // namespace loadgen

#endif
