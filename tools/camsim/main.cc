// vexo-camsim: the camera simulator.
#include "options.h"
#include "run.h"

int main(int argc, char **argv) {
    bool exit_now = false;
    const auto options = camsim::parse_options(argc, argv, &exit_now);
    if (!options) {
        return 2;
    }
    if (exit_now) {
        return 0;
    }
    return camsim::run(*options);
}
