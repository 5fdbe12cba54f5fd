// The network threads, the run's hard end, and the progress line.
#include "fleet.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "camera.h"

namespace loadgen {

namespace asio = boost::asio;

// ---- constants -----------------------------------------------------------------------------

namespace {

constexpr double kBytesPerMegabyte = 1e6;

// ---- helpers -------------------------------------------------------------------------------

/// One network thread: its event loop, its cameras and their measurements.
struct Worker {
    asio::io_context io;
    Stats stats;
    std::unique_ptr<CameraContext> context;
    std::vector<std::unique_ptr<Camera>> cameras;
    std::unique_ptr<asio::steady_timer> hard_end;
    size_t running = 0;
};

/// Bytes that do not compress and repeat nowhere near a slice's length.
std::string slice_bytes(uint64_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(size, '\0');
    for (size_t i = 0; i < bytes.size(); i += sizeof(uint64_t)) {
        const uint64_t word = random();
        for (size_t j = 0; j < sizeof word && i + j < bytes.size(); ++j) {
            bytes[i + j] = static_cast<char>(word >> (8 * j));
        }
    }
    return bytes;
}

void print_progress(std::FILE *out, const Progress &p, double at_s, uint32_t cameras,
                    uint64_t *last_bytes, double *last_s) {
    const uint64_t bytes = p.upload_bytes.load(std::memory_order_relaxed);
    const double span = at_s - *last_s;
    const double rate = span > 0 ? (bytes - *last_bytes) / kBytesPerMegabyte / span : 0;
    std::fprintf(out,
                 "vexo-loadgen: %6.1f s: %lld of %u cameras connected, %llu requests, "
                 "%.2f MB/s, %llu errors\n",
                 at_s, static_cast<long long>(p.connections.load(std::memory_order_relaxed)),
                 cameras,
                 static_cast<unsigned long long>(p.requests.load(std::memory_order_relaxed)), rate,
                 static_cast<unsigned long long>(p.errors.load(std::memory_order_relaxed)));
    std::fflush(out);
    *last_bytes = bytes;
    *last_s = at_s;
}

} // namespace

// ---- exported calls ------------------------------------------------------------------------

std::optional<FleetResult> run_fleet(const Options &options, const ServerUrl &server,
                                     std::FILE *progress_out, std::string *error) {
    asio::io_context resolver_io;
    asio::ip::tcp::resolver resolver(resolver_io);
    boost::system::error_code ec;
    const asio::ip::tcp::resolver::results_type endpoints =
        resolver.resolve(server.host, server.port, ec);
    if (ec) {
        *error = "cannot resolve " + server.host + ": " + ec.message();
        return std::nullopt;
    }
    const std::string slice = slice_bytes(options.slice_bytes, options.seed);
    Progress progress;
    std::mutex mutex;
    std::condition_variable ended;
    uint32_t threads_running = options.threads;

    const Clock::time_point start = Clock::now();
    const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(options.duration_s));
    const auto hard_end = deadline + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(2 * options.timeout_s));
    std::vector<std::unique_ptr<Worker>> workers;
    for (uint32_t t = 0; t < options.threads; ++t) {
        auto worker = std::make_unique<Worker>();
        Worker *w = worker.get();
        w->context.reset(new CameraContext{w->io, options, server, endpoints, slice, w->stats,
                                           progress, start, deadline, [w] {
                                               if (--w->running == 0) {
                                                   w->hard_end->cancel();
                                               }
                                           }});
        for (uint32_t i = t; i < options.cameras; i += options.threads) {
            w->cameras.push_back(std::make_unique<Camera>(*w->context, i));
        }
        w->running = w->cameras.size();
        w->hard_end = std::make_unique<asio::steady_timer>(w->io, hard_end);
        workers.push_back(std::move(worker));
    }

    std::vector<std::thread> threads;
    for (const auto &worker : workers) {
        Worker *w = worker.get();
        threads.emplace_back([w, &mutex, &ended, &threads_running] {
            asio::post(w->io, [w] {
                w->hard_end->async_wait([w](const boost::system::error_code &wait_ec) {
                    if (!wait_ec) {
                        for (const auto &camera : w->cameras) {
                            camera->abort();
                        }
                    }
                });
                if (w->running == 0) {
                    w->hard_end->cancel();
                }
                for (const auto &camera : w->cameras) {
                    camera->start();
                }
            });
            w->io.run();
            std::lock_guard<std::mutex> lock(mutex);
            --threads_running;
            ended.notify_all();
        });
    }
    {
        std::unique_lock<std::mutex> lock(mutex);
        uint64_t last_bytes = 0;
        double last_s = 0;
        const auto every = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(options.progress_every_s));
        auto next = start + every;
        while (threads_running > 0) {
            if (!options.progress || progress_out == nullptr) {
                ended.wait(lock, [&] { return threads_running == 0; });
                break;
            }
            if (ended.wait_until(lock, next, [&] { return threads_running == 0; })) {
                break;
            }
            print_progress(progress_out, progress,
                           std::chrono::duration<double>(Clock::now() - start).count(),
                           options.cameras, &last_bytes, &last_s);
            next += every;
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    FleetResult result;
    result.elapsed_s = std::chrono::duration<double>(Clock::now() - start).count();
    for (const auto &worker : workers) {
        result.stats.merge(worker->stats);
    }
    return result;
}

} // namespace loadgen
