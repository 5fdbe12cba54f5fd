// vexo-cloud: the project's cloud service and its admin commands.
#include "admin_client.h"
#include "cli_options.h"
#include "serve.h"

int main(int argc, char **argv) {
    bool exit_now = false;
    const auto command = vexo_cloud::parse_command_line(argc, argv, &exit_now);
    if (!command) {
        return 2;
    }
    if (exit_now) {
        return 0;
    }
    return command->serve ? vexo_cloud::serve(command->serve_options)
                          : vexo_cloud::run_admin_command(command->admin);
}
