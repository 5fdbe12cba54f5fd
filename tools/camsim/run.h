// One run of the camera simulator: the cloud, the kit, the camera and the module together.
#ifndef VEXO_CAMSIM_RUN_H
#define VEXO_CAMSIM_RUN_H

#include "options.h"

namespace camsim {

/// Runs the simulation and prints its summary. Returns the process exit status: 0 when the
/// run went as asked, 1 when something failed on the way, 2 for unusable input.
int run(const Options &options);

} // namespace camsim

#endif
