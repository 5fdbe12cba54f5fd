/// kill -9 during uploads: a child process runs a service and uploads media files, reporting
/// each 200 on a pipe; it is killed at a random point. A service started on the directory
/// afterwards has every acknowledged file with its bytes, and every file it shows is whole.
#include <csignal>
#include <filesystem>
#include <poll.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "service_fixture.h"

namespace service_test {
namespace {

namespace fs = std::filesystem;

constexpr int kUploads = 80;
constexpr size_t kPiece = 4096;
constexpr int kAckTimeoutMs = 60000;

std::string media_name(int index) {
    return std::to_string(kNoon) + "_" + std::to_string(index) + ".media";
}

/// Bytes that differ per file and per position, of a size that differs per file.
std::string media_bytes(int index) {
    std::string bytes(kPiece * 4 + static_cast<size_t>(index) * 97, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>((i * 31 + static_cast<size_t>(index) * 7) & 0xff);
    }
    return bytes;
}

class KillTest : public ServiceTest {
  protected:
    /// The child: uploads every file in pieces, writing each acknowledged index to ack_fd.
    [[noreturn]] void run_child(int ack_fd) {
        vexo_cloud::Options opts = options();
        opts.log = [](const std::string &) {};
        vexo_cloud::Service service(std::move(opts));
        add_device(service, "cam1");
        start(service, "cam1", kNoon, kNoKeyMd5);
        for (int i = 0; i < kUploads; ++i) {
            const std::string bytes = media_bytes(i);
            const vexo_cloud::Request head =
                request("PUT", "/v1/devices/cam1/media/" + media_name(i), "cam1");
            const vexo_cloud::Response answer = service.handle_streamed(
                head, bytes.size(), [&bytes](const vexo_cloud::BodySink &sink) {
                    for (size_t at = 0; at < bytes.size(); at += kPiece) {
                        if (!sink(bytes.data() + at, std::min(kPiece, bytes.size() - at))) {
                            return false;
                        }
                    }
                    return true;
                });
            if (answer.status / 100 == 2 && ::write(ack_fd, &i, sizeof i) != sizeof i) {
                _exit(3);
            }
        }
        _exit(0);
    }
};

TEST_F(KillTest, EveryAcknowledgedUploadSurvivesAKillAndNoPartFileShows) {
    std::random_device seed_source;
    const unsigned seed = seed_source();
    std::mt19937 random(seed);
    const int kill_after = std::uniform_int_distribution<int>(1, kUploads / 2)(random);
    SCOPED_TRACE("seed " + std::to_string(seed) + ", kill after " + std::to_string(kill_after));

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        run_child(fds[1]);
    }
    close(fds[1]);
    std::vector<int> acknowledged;
    auto read_ack = [&](int timeout_ms) {
        pollfd p{fds[0], POLLIN, 0};
        int index = -1;
        if (poll(&p, 1, timeout_ms) != 1 || read(fds[0], &index, sizeof index) != sizeof index) {
            return false;
        }
        acknowledged.push_back(index);
        return true;
    };
    while (static_cast<int>(acknowledged.size()) < kill_after && read_ack(kAckTimeoutMs)) {
    }
    ASSERT_EQ(static_cast<int>(acknowledged.size()), kill_after) << "the child stopped early";
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    while (read_ack(0)) { // what it acknowledged before it died
    }
    close(fds[0]);

    auto service = start_service();
    const std::vector<vexo_cloud::Recording> recordings = service->recordings("cam1");
    ASSERT_EQ(recordings.size(), 1u);
    std::map<std::string, uint64_t> listed;
    for (const vexo_cloud::MediaFileInfo &file : recordings[0].files) {
        listed[file.name] = file.bytes;
    }
    const auto files = snapshot();
    for (int index : acknowledged) {
        const std::string name = media_name(index);
        ASSERT_EQ(listed.count(name), 1u) << name;
        EXPECT_TRUE(files.at("data/cam1/1710072000/" + name) == media_bytes(index)) << name;
    }
    // Whatever else shows (a file stored but not acknowledged) is whole, and nothing else is
    // in the recording's folder.
    for (const auto &entry : fs::directory_iterator(recordings[0].directory)) {
        const std::string name = entry.path().filename().string();
        ASSERT_EQ(listed.count(name), 1u) << "not listed: " << name;
        const int index = std::stoi(name.substr(name.find('_') + 1));
        EXPECT_EQ(fs::file_size(entry.path()), media_bytes(index).size()) << name;
    }
    EXPECT_TRUE(fs::is_empty(dir_ + "/data/.incoming~"));
}

} // namespace
} // namespace service_test
