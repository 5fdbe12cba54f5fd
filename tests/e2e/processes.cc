// Programs run by the tests, on posix_spawn.
#include "processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

extern char **environ;

namespace e2e {

namespace {

constexpr auto kPoll = std::chrono::milliseconds(50);

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

Process::Process(const std::vector<std::string> &argv, const std::string &log_path,
                 const std::vector<std::string> &env)
    : log_path_(log_path) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char *> args;
    for (const std::string &a : argv) {
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    std::vector<std::string> env_text;
    for (char **e = environ; *e != nullptr; ++e) {
        env_text.emplace_back(*e);
    }
    env_text.insert(env_text.end(), env.begin(), env.end());
    std::vector<char *> envp;
    for (std::string &e : env_text) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) == 0) {
        pid_ = pid;
    }
    posix_spawn_file_actions_destroy(&actions);
}

Process::~Process() {
    if (running()) {
        signal(SIGKILL);
        wait(30);
    }
}

bool Process::running() {
    if (pid_ <= 0 || status_ != -2) {
        return false;
    }
    int wstatus = 0;
    const pid_t done = waitpid(pid_, &wstatus, WNOHANG);
    if (done == pid_) {
        status_ = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
        return false;
    }
    return done == 0;
}

void Process::signal(int signal_number) {
    if (running()) {
        ::kill(pid_, signal_number);
    }
}

int Process::wait(double timeout_s) {
    const auto start = std::chrono::steady_clock::now();
    while (running()) {
        if (seconds_since(start) > timeout_s) {
            return -2;
        }
        std::this_thread::sleep_for(kPoll);
    }
    return status_;
}

std::string Process::output() const {
    std::ifstream in(log_path_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Process::wait_for(const std::string &text, double timeout_s, size_t count) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        if (occurrences(output(), text) >= count) {
            return true;
        }
        if (!running() || seconds_since(start) > timeout_s) {
            return occurrences(output(), text) >= count;
        }
        std::this_thread::sleep_for(kPoll);
    }
}

uint16_t free_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

size_t occurrences(const std::string &haystack, const std::string &text) {
    size_t count = 0;
    for (size_t at = haystack.find(text); at != std::string::npos;
         at = haystack.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

} // namespace e2e
