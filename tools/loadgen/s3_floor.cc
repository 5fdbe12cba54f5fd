// vexo-s3-floor: the slices a fleet of vexo-loadgen cameras would upload, PUT straight into
// an S3 gateway at the same times, through the service's own S3 client (one signed request,
// one connection, per slice). What the cloud service cannot beat when its media live there.
//
//   vexo-s3-floor --server http://host:port/bucket [vexo-loadgen's fleet options]
//
// The keys come from AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY; the bucket is created when
// it is missing. --threads is the number of senders (each sends one slice at a time, its
// share of the cameras in due order); a slice sent late has the delay counted as waiting,
// apart from its latency. The result is vexo-loadgen's table, and its JSON with --json.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "durable_file.h"
#include "floor_schedule.h"
#include "options.h"
#include "report.h"
#include "s3_client.h"
#include "server_url.h"
#include "stats.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kUsageError = 2;
constexpr int kRequestsFailed = 3;
constexpr long kHttpOk = 200;
constexpr long kHttpConflict = 409; // the bucket exists already

int usage_error(const std::string &what) {
    std::fprintf(stderr, "vexo-s3-floor: %s\n", what.c_str());
    return kUsageError;
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// One sender: its share of the slices, each at its due time or as soon as the previous
/// one is answered.
void send_slices(const vexo_cloud::S3Client &client, const loadgen::Options &options,
                 const std::vector<loadgen::DuePut> &puts, const std::string &body,
                 Clock::time_point start, loadgen::Stats *stats) {
    for (const loadgen::DuePut &put : puts) {
        const Clock::time_point due = start + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(put.at_s));
        std::this_thread::sleep_until(due);
        const Clock::time_point sent = Clock::now();
        stats->record_wait(std::chrono::duration<double>(sent - due).count());
        vexo_cloud::S3Request request;
        request.method = "PUT";
        request.key = loadgen::floor_key(options, put);
        request.body = &body;
        try {
            const vexo_cloud::S3Response response = client.send(request);
            if (response.status == kHttpOk) {
                stats->record_ok(loadgen::Kind::kUpload, seconds_since(sent));
                stats->add_upload_bytes(body.size());
            } else {
                stats->record_error(loadgen::Kind::kUpload,
                                    "HTTP " + std::to_string(response.status));
            }
        } catch (const vexo_cloud::FileError &) {
            stats->record_error(loadgen::Kind::kUpload, "transfer failed");
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    std::string error;
    bool help = false;
    std::optional<loadgen::Options> parsed = loadgen::parse_options(argc, argv, &error, &help);
    if (!parsed) {
        std::fprintf(stderr, "%s", loadgen::usage());
        return help ? 0 : usage_error(error);
    }
    loadgen::Options options = *parsed;
    options.put_only = true; // plain PUTs of the slices, nothing else
    const std::optional<loadgen::ServerUrl> url = loadgen::parse_server_url(options.server, &error);
    if (!url) {
        return usage_error(error);
    }
    const std::string bucket = url->base_path.empty() ? "" : url->base_path.substr(1);
    if (bucket.empty() || bucket.find('/') != std::string::npos) {
        return usage_error("--server must be http://host:port/bucket, one path segment");
    }
    const char *access_key = std::getenv("AWS_ACCESS_KEY_ID");
    const char *secret_key = std::getenv("AWS_SECRET_ACCESS_KEY");
    if (access_key == nullptr || secret_key == nullptr) {
        return usage_error("AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY are needed");
    }
    vexo_cloud::S3Config config;
    const bool v6 = url->host.find(':') != std::string::npos;
    config.endpoint = "http://" + (v6 ? "[" + url->host + "]" : url->host) + ":" + url->port;
    config.bucket = bucket;
    config.access_key = access_key;
    config.secret_key = secret_key;
    config.timeout_seconds = static_cast<long>(options.timeout_s);
    const vexo_cloud::S3Client client(config);
    try {
        vexo_cloud::S3Request create;
        create.method = "PUT";
        const vexo_cloud::S3Response response = client.send(create);
        if (response.status != kHttpOk && response.status != kHttpConflict) {
            client.fail("creating bucket " + bucket, response);
        }
    } catch (const vexo_cloud::FileError &e) {
        std::fprintf(stderr, "vexo-s3-floor: %s\n", e.what());
        return 1;
    }

    // Media bytes do not compress; neither should the slices on their way.
    std::string body(options.slice_bytes, '\0');
    std::mt19937_64 random(options.seed);
    std::generate(body.begin(), body.end(), [&random] { return static_cast<char>(random()); });

    const uint32_t senders = options.threads;
    std::vector<loadgen::Stats> stats(senders);
    std::vector<std::thread> threads;
    const Clock::time_point start = Clock::now();
    for (uint32_t i = 0; i < senders; ++i) {
        threads.emplace_back(send_slices, std::cref(client), std::cref(options),
                             loadgen::floor_schedule(options, i, senders), std::cref(body), start,
                             &stats[i]);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const double elapsed = std::max(options.duration_s, seconds_since(start));
    for (uint32_t i = 1; i < senders; ++i) {
        stats[0].merge(stats[i]);
    }
    const loadgen::Summary summary = loadgen::summarize(options, stats[0], elapsed);
    std::fprintf(stderr, "%s", loadgen::table_text(summary).c_str());
    if (options.json) {
        std::printf("%s\n", loadgen::json_text(summary).c_str());
    }
    return summary.errors == 0 ? 0 : kRequestsFailed;
}
