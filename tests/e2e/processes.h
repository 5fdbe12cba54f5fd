// Programs the end-to-end and integration tests run: in the background (broker, cloud
// service, camera simulator) with their output in a file, and free loopback ports.
#ifndef VEXO_E2E_PROCESSES_H
#define VEXO_E2E_PROCESSES_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace e2e {

/// A program started in the background, its stdout and stderr going to log_path. Killed
/// (SIGKILL) and reaped when destroyed, if still running.
class Process {
  public:
    /// env: NAME=value added to the test's own environment.
    Process(const std::vector<std::string> &argv, const std::string &log_path,
            const std::vector<std::string> &env = {});
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    bool started() const { return pid_ > 0; }
    bool running();
    void signal(int signal_number);
    /// Waits for the program to end: its exit status, -1 when it was killed by a signal,
    /// -2 when it still runs after timeout_s (it is left running).
    int wait(double timeout_s);
    /// What it printed so far.
    std::string output() const;
    /// Waits until its output holds text `count` times; false on timeout or when the program
    /// ended without printing it.
    bool wait_for(const std::string &text, double timeout_s, size_t count = 1);

  private:
    pid_t pid_ = -1;
    int status_ = -2;
    std::string log_path_;
};

/// A loopback TCP port nothing listens on right now.
uint16_t free_port();

/// How often text occurs in haystack.
size_t occurrences(const std::string &haystack, const std::string &text);

} // namespace e2e

#endif
