/// vexo-cloud serve: the service core, its MQTT publisher and the HTTP server, run until
/// SIGINT or SIGTERM.
#ifndef VEXO_CLOUD_SERVE_H
#define VEXO_CLOUD_SERVE_H

#include "cli_options.h"

namespace vexo_cloud {

/// 0 after a clean stop; 2 when the service could not start (the reason on stderr).
int serve(const ServeOptions &options);

} // namespace vexo_cloud

#endif
