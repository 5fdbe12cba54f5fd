// vexo-loadgen: a fleet of virtual cameras against a cloud service (or, with --put-only,
// against a plain web server), and the latency and throughput they saw.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "fleet.h"
#include "options.h"
#include "report.h"
#include "server_url.h"

namespace {

constexpr int kUsageError = 2;
constexpr int kRequestsFailed = 3;
/// Descriptors beyond one per camera: standard streams, the resolver, the event loops.
constexpr rlim_t kSpareFiles = 64;

/// Raises the soft limit of open files to what the cameras need, within the hard limit.
bool enough_files(uint32_t cameras, std::string *error) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return true; // nothing to learn; connecting will say
    }
    const rlim_t needed = cameras + kSpareFiles;
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < needed) {
        rlimit raised = limit;
        raised.rlim_cur =
            limit.rlim_max == RLIM_INFINITY ? needed : std::min(needed, limit.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &raised) != 0 || raised.rlim_cur < needed) {
            *error = std::to_string(cameras) + " cameras need " + std::to_string(needed) +
                     " open files, the limit is " + std::to_string(limit.rlim_max) +
                     ": raise it (ulimit -n) or run fewer cameras";
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::string error;
    bool help = false;
    const std::optional<loadgen::Options> options =
        loadgen::parse_options(argc, argv, &error, &help);
    if (!options) {
        if (help) {
            std::fputs(loadgen::usage(), stdout);
            return 0;
        }
        std::fprintf(stderr, "vexo-loadgen: %s\n%s", error.c_str(), loadgen::usage());
        return kUsageError;
    }
    const std::optional<loadgen::ServerUrl> server =
        loadgen::parse_server_url(options->server, &error);
    if (!server) {
        std::fprintf(stderr, "vexo-loadgen: %s\n", error.c_str());
        return kUsageError;
    }
    if (!enough_files(options->cameras, &error)) {
        std::fprintf(stderr, "vexo-loadgen: %s\n", error.c_str());
        return kUsageError;
    }
    const std::optional<loadgen::FleetResult> result =
        loadgen::run_fleet(*options, *server, stderr, &error);
    if (!result) {
        std::fprintf(stderr, "vexo-loadgen: %s\n", error.c_str());
        return kUsageError;
    }
    const loadgen::Summary summary = loadgen::summarize(*options, result->stats, result->elapsed_s);
    const std::string table = loadgen::table_text(summary);
    if (options->json) {
        std::fputs(table.c_str(), stderr);
        std::fputs(loadgen::json_text(summary).c_str(), stdout);
    } else {
        std::fputs(table.c_str(), stdout);
    }
    std::fflush(stdout);
    return summary.errors == 0 ? 0 : kRequestsFailed;
}
