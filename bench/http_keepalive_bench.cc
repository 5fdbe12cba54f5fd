// vexo-cloud under many kept-alive cameras: C clients, each on one connection of its own,
// ask storage/config in a loop for D seconds, optionally while H more connections are held
// open without a request (cameras gone quiet). Prints the latency median, p99 and maximum and
// the requests per second. It starts the vexo-cloud it measures on a free loopback port:
//
//   vexo_http_bench [--cloud PATH] [--clients 64] [--seconds 10] [--held 0]
//
// --cloud names another build of vexo-cloud to compare with. An answer that takes more than
// 5 s counts as a failure, and the client connects again.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kRequest[] = "GET /v1/devices/cam1/storage/config HTTP/1.1\r\nHost: bench\r\n"
                            "X-Vexo-Device: cam1\r\nAuthorization: Bearer t\r\n\r\n";

constexpr int kAnswerTimeoutS = 5;

uint16_t free_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &length);
    ::close(fd);
    return ntohs(a.sin_port);
}

int connect_to(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // An answer that takes longer counts as a failure (a starved server answers never).
    const timeval patience{kAnswerTimeoutS, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return fd;
}

/// One request and its whole answer on a kept-alive connection; false when it failed.
bool exchange(int fd, std::string &pending) {
    if (::send(fd, kRequest, sizeof kRequest - 1, MSG_NOSIGNAL) != sizeof kRequest - 1) {
        return false;
    }
    for (;;) {
        const size_t end = pending.find("\r\n\r\n");
        if (end != std::string::npos) {
            const size_t field = pending.find("Content-Length: ");
            const size_t length =
                field == std::string::npos ? 0 : std::strtoul(&pending[field + 16], nullptr, 10);
            if (pending.size() >= end + 4 + length) {
                const bool ok = pending.compare(9, 3, "200") == 0;
                pending.erase(0, end + 4 + length);
                return ok;
            }
        }
        char buffer[4096];
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            return false;
        }
        pending.append(buffer, static_cast<size_t>(n));
    }
}

double percentile(std::vector<double> &values, double p) {
    const size_t at = static_cast<size_t>(p * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
    return values[at];
}

} // namespace

int main(int argc, char **argv) {
    std::string cloud = VEXO_BENCH_CLOUD;
    int clients = 64;
    int seconds = 10;
    int held = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        if (arg == "--cloud") {
            cloud = argv[i + 1];
        } else if (arg == "--clients") {
            clients = std::atoi(argv[i + 1]);
        } else if (arg == "--seconds") {
            seconds = std::atoi(argv[i + 1]);
        } else if (arg == "--held") {
            held = std::atoi(argv[i + 1]);
        } else {
            std::fprintf(stderr, "unknown option %s\n", arg.c_str());
            return 2;
        }
    }
    const std::string data =
        std::filesystem::temp_directory_path() / ("vexo-http-bench-" + std::to_string(::getpid()));
    const uint16_t port = free_port();
    const std::string listen = "127.0.0.1:" + std::to_string(port);
    std::vector<std::string> args = {cloud,  "serve",   "--data", data,     "--listen",
                                     listen, "--token", "cam1=t", "--quiet"};
    std::vector<char *> cargs;
    for (std::string &a : args) {
        cargs.push_back(a.data());
    }
    cargs.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, cloud.c_str(), nullptr, nullptr, cargs.data(), environ) != 0) {
        std::fprintf(stderr, "cannot start %s\n", cloud.c_str());
        return 2;
    }
    int probe = -1;
    for (int i = 0; i < 100 && probe < 0; ++i) { // up to 10 s for the service to listen
        probe = connect_to(port);
        if (probe < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    if (probe < 0) {
        std::fprintf(stderr, "%s did not come up\n", cloud.c_str());
        ::kill(pid, SIGKILL);
        return 2;
    }
    ::close(probe);
    std::vector<int> held_fds;
    for (int i = 0; i < held; ++i) {
        held_fds.push_back(connect_to(port));
    }

    std::atomic<bool> stop{false};
    std::atomic<uint64_t> failures{0};
    std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            std::string pending;
            int fd = connect_to(port);
            while (!stop) {
                const auto t0 = Clock::now();
                if (fd < 0 || !exchange(fd, pending)) {
                    ++failures;
                    if (fd >= 0) {
                        ::close(fd);
                    }
                    pending.clear();
                    fd = connect_to(port);
                    continue;
                }
                latencies[static_cast<size_t>(c)].push_back(
                    std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            }
            if (fd >= 0) {
                ::close(fd);
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stop = true;
    for (std::thread &t : threads) {
        t.join();
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    for (int fd : held_fds) {
        ::close(fd);
    }
    ::kill(pid, SIGTERM);
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::filesystem::remove_all(data);

    std::vector<double> all;
    for (const auto &l : latencies) {
        all.insert(all.end(), l.begin(), l.end());
    }
    if (all.empty()) {
        std::printf("no request answered (%llu failures)\n",
                    static_cast<unsigned long long>(failures.load()));
        return 1;
    }
    const double max = *std::max_element(all.begin(), all.end());
    std::printf("%d clients, %d held, %.1f s: %zu requests (%.0f/s), %llu failures\n", clients,
                held, elapsed, all.size(), static_cast<double>(all.size()) / elapsed,
                static_cast<unsigned long long>(failures.load()));
    std::printf("latency ms: median %.2f  p99 %.2f  max %.2f\n", percentile(all, 0.5),
                percentile(all, 0.99), max);
    return 0;
}
