/// Sends one admin request to a running service and prints its answer: what the admin
/// commands of vexo-cloud do.
#ifndef VEXO_CLOUD_ADMIN_CLIENT_H
#define VEXO_CLOUD_ADMIN_CLIENT_H

#include "cli_options.h"

namespace vexo_cloud {

/// Prints the answer's JSON on stdout, or the recordings table for a recordings command.
/// 0 for a 2xx answer, 1 when the service refused the request (its error on stderr), 2 when
/// no (usable) answer came.
int run_admin_command(const AdminCommand &command);

} // namespace vexo_cloud

#endif
