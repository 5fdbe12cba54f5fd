#include "mosquitto_broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "unused_port.h"

extern char **environ;

namespace vexo_test {
namespace {

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return addr;
}

bool accepts_connections(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = loopback(port);
    const bool ok = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

bool MosquittoBroker::available() {
    return access(kBinary, X_OK) == 0;
}

MosquittoBroker::MosquittoBroker(const std::string &dir)
    : config_path_(dir + "/mosquitto.conf"), log_path_(dir + "/mosquitto.log"),
      port_(unused_port()) {
    std::ofstream config(config_path_);
    config << "listener " << port_ << " 127.0.0.1\n"
           << "allow_anonymous true\n"
           << "persistence false\n"
           << "log_dest stderr\n";
}

MosquittoBroker::~MosquittoBroker() {
    stop();
}

bool MosquittoBroker::start(std::string *error) {
    if (pid_ > 0) {
        return true;
    }
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, log_path_.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
    std::string arg0 = "mosquitto";
    std::string arg1 = "-c";
    std::string arg2 = config_path_;
    char *argv[] = {arg0.data(), arg1.data(), arg2.data(), nullptr};
    const int rc = posix_spawn(&pid_, kBinary, &files, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&files);
    if (rc != 0) {
        pid_ = -1;
        *error = std::string("cannot run ") + kBinary + ": " + std::strerror(rc);
        return false;
    }
    for (int i = 0; i < 500; ++i) {
        if (accepts_connections(port_)) {
            return true;
        }
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            *error = "mosquitto ended at start: " + read_file(log_path_);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    stop();
    *error = "mosquitto does not accept connections on port " + std::to_string(port_) + ": " +
             read_file(log_path_);
    return false;
}

void MosquittoBroker::stop() {
    if (pid_ <= 0) {
        return;
    }
    kill(pid_, SIGTERM);
    for (int i = 0; i < 300; ++i) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool publish(int port, const std::string &topic, const std::string &payload, std::string *error) {
    static const int init = mosquitto_lib_init();
    (void)init;
    struct State {
        int mid = -1;
        bool acknowledged = false;
    } state;
    mosquitto *mosq = mosquitto_new(nullptr, true, &state);
    if (mosq == nullptr) {
        *error = "mosquitto_new failed";
        return false;
    }
    mosquitto_publish_callback_set(mosq, [](mosquitto *, void *user, int mid) {
        State *s = static_cast<State *>(user);
        s->acknowledged = s->acknowledged || mid == s->mid;
    });
    bool ok = false;
    int rc = mosquitto_connect(mosq, "127.0.0.1", port, 10);
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_publish(mosq, &state.mid, topic.c_str(), static_cast<int>(payload.size()),
                               payload.data(), 1, false);
    }
    for (int i = 0; rc == MOSQ_ERR_SUCCESS && !state.acknowledged && i < 100; ++i) {
        rc = mosquitto_loop(mosq, 50, 1);
    }
    ok = rc == MOSQ_ERR_SUCCESS && state.acknowledged;
    if (!ok) {
        *error = std::string("publish failed: ") + mosquitto_strerror(rc);
    }
    mosquitto_disconnect(mosq);
    mosquitto_destroy(mosq);
    return ok;
}

} // namespace vexo_test
