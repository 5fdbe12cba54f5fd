// What the outage spool costs and how fast it empties, beside the plain upload path, in one
// run against one vexo-cloud on loopback:
//   plain   the kit's upload call with no spool, the cloud up: what a camera does normally;
//   spool   the same uploads with the cloud down: each one written to the spool (fsync and
//           all), which is what the module's worker waits for during an outage;
//   replay  the cloud back: the kit's sender thread empties the spool, oldest first.
// Prints items/s and MB/s of each and the ratios replay/plain and spool/plain.
//
//   vexo_spool_bench [--items N] [--bytes B] [--dir DIR]
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "curl_transport.h"
#include "host_kit.h"
#include "vexo_cloud.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char kDevice[] = "bench-cam";

/// vexo-cloud serve on a free loopback port, ended with SIGTERM.
class Service {
  public:
    explicit Service(const std::string &data) {
        int out[2];
        if (pipe(out) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            execl(VEXO_BENCH_CLOUD, VEXO_BENCH_CLOUD, "serve", "--data", data.c_str(), "--listen",
                  "127.0.0.1:0", "--quiet", static_cast<char *>(nullptr));
            _exit(127);
        }
        close(out[1]);
        // "vexo-cloud: listening on http://127.0.0.1:PORT"
        FILE *err = fdopen(out[0], "r");
        char line[512];
        const char marker[] = "listening on ";
        while (err != nullptr && std::fgets(line, sizeof line, err) != nullptr) {
            const char *at = std::strstr(line, marker);
            if (at != nullptr) {
                url_ = at + sizeof marker - 1;
                url_.erase(url_.find_first_of(" \r\n"));
                break;
            }
        }
        err_ = err;
    }
    ~Service() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (err_ != nullptr) {
            std::fclose(err_);
        }
    }
    const std::string &url() const { return url_; }

  private:
    pid_t pid_ = -1;
    FILE *err_ = nullptr;
    std::string url_;
};

std::shared_ptr<hostkit::CurlTransport> transport_to(const std::string &url) {
    hostkit::CurlTransportConfig config;
    config.base_url = url;
    std::string error;
    std::shared_ptr<hostkit::CurlTransport> t = hostkit::CurlTransport::create(config, &error);
    if (!t) {
        std::fprintf(stderr, "vexo_spool_bench: %s\n", error.c_str());
        std::exit(1);
    }
    return t;
}

bool start_kit(const std::string &data, std::shared_ptr<hostkit::CloudTransport> cloud,
               bool spool) {
    hostkit::Options o;
    o.data_dir = data;
    o.device_id = kDevice;
    o.log_level = hostkit::LogLevel::kError;
    o.cloud = std::move(cloud);
    o.spool.enabled = spool;
    o.spool.max_bytes = uint64_t{4} << 30;
    return hostkit::start(o) == 0;
}

/// Uploads `items` media files of one recording through the kit's upload call; the seconds it
/// took, or a negative number when one failed.
double upload(uint32_t recording, uint32_t items, const std::vector<uint8_t> &bytes) {
    const Clock::time_point t0 = Clock::now();
    for (uint32_t i = 0; i < items; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "%u_%04u.media", recording, i * 10);
        if (cloud_put_data_to_file(nullptr, "http", 0, name, "media/av", bytes.data(),
                                   static_cast<uint32_t>(bytes.size())) != 0) {
            std::fprintf(stderr, "vexo_spool_bench: upload %s failed\n", name);
            return -1;
        }
    }
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

void row(const char *what, uint32_t items, uint64_t bytes, double seconds) {
    std::printf("%-8s %8u %12.1f %10.3f %10.1f %10.2f\n", what, items,
                static_cast<double>(bytes) / 1e6, seconds, items / seconds,
                static_cast<double>(bytes) / 1e6 / seconds);
}

} // namespace

int main(int argc, char **argv) {
    uint32_t items = 200;
    uint32_t item_bytes = 750 * 1000; // a 10 s slice of a 600 kbit/s camera
    std::string dir = fs::temp_directory_path().string() + "/vexo-spool-bench";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        if (arg == "--items") {
            items = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        } else if (arg == "--bytes") {
            item_bytes = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        } else if (arg == "--dir") {
            dir = argv[i + 1];
        } else {
            std::fprintf(stderr, "usage: vexo_spool_bench [--items N] [--bytes B] [--dir DIR]\n");
            return 2;
        }
    }
    if (items == 0 || item_bytes == 0) {
        std::fprintf(stderr, "vexo_spool_bench: --items and --bytes must be above 0\n");
        return 2;
    }
    fs::remove_all(dir);
    fs::create_directories(dir + "/camera");
    Service service(dir + "/cloud");
    if (service.url().empty()) {
        std::fprintf(stderr, "vexo_spool_bench: vexo-cloud did not start\n");
        return 1;
    }
    const std::shared_ptr<hostkit::CurlTransport> up = transport_to(service.url());
    // The device exists once it has an order.
    hostkit::CloudRequest order;
    order.method = "PUT";
    order.path = std::string("/v1/admin/devices/") + kDevice + "/order";
    order.headers["content-type"] = "application/json";
    order.body = R"({"storeMode":"alltime"})";
    if (up->exchange(order).status != 200) {
        std::fprintf(stderr, "vexo_spool_bench: the service refused the order\n");
        return 1;
    }
    std::vector<uint8_t> bytes(item_bytes);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
    }
    const uint64_t total = uint64_t{items} * item_bytes;
    std::printf("%u items of %u bytes (%.1f MB), vexo-cloud at %s, spool in %s/camera\n\n", items,
                item_bytes, static_cast<double>(total) / 1e6, service.url().c_str(), dir.c_str());
    std::printf("%-8s %8s %12s %10s %10s %10s\n", "path", "items", "MB", "seconds", "items/s",
                "MB/s");

    // Plain: no spool, the cloud up.
    if (!start_kit(dir + "/camera", up, false)) {
        return 1;
    }
    const double plain = upload(1767261600, items, bytes);
    hostkit::stop();
    if (plain < 0) {
        return 1;
    }
    row("plain", items, total, plain);

    // Spool: the cloud down (a port nothing listens on), every upload kept on disk.
    const std::string service_url = service.url();
    const std::string dead_url =
        service_url.substr(0, service_url.rfind(':') + 1) + "1"; // port 1: refused at once
    if (!start_kit(dir + "/camera", transport_to(dead_url), true)) {
        return 1;
    }
    const double spooled = upload(1767265200, items, bytes);
    const uint64_t queued = hostkit::counters().spool_items;
    hostkit::stop();
    if (spooled < 0 || queued != items) {
        std::fprintf(stderr, "vexo_spool_bench: %llu items in the spool, %u expected\n",
                     static_cast<unsigned long long>(queued), items);
        return 1;
    }
    row("spool", items, total, spooled);

    // Replay: the cloud back; the sender starts at once with what the spool holds.
    const Clock::time_point t0 = Clock::now();
    if (!start_kit(dir + "/camera", up, true)) {
        return 1;
    }
    hostkit::Counters c = hostkit::counters();
    while (c.spool_items > 0 && c.spool_dropped == 0 &&
           Clock::now() - t0 < std::chrono::minutes(10)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        c = hostkit::counters();
    }
    const double replay = std::chrono::duration<double>(Clock::now() - t0).count();
    hostkit::stop();
    if (c.spool_items > 0 || c.spool_sent != items) {
        std::fprintf(stderr, "vexo_spool_bench: replay sent %llu of %u items (%llu dropped)\n",
                     static_cast<unsigned long long>(c.spool_sent), items,
                     static_cast<unsigned long long>(c.spool_dropped));
        return 1;
    }
    row("replay", items, total, replay);
    std::printf("\nreplay/plain %.2f, spool/plain %.2f (throughput ratios, same run)\n",
                plain / replay, plain / spooled);
    fs::remove_all(dir);
    return 0;
}
