// Crash tests: a child process does some work and is killed at a random moment of it.
#ifndef VEXO_TESTS_HOST_KILL_WHILE_RUNNING_H
#define VEXO_TESTS_HOST_KILL_WHILE_RUNNING_H

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <random>

namespace vexo_test {

/// Forks a child that runs work(ready_fd) and must write one byte to ready_fd once its first
/// step is done (then _exit on its own only if something fails). Kills the child after a
/// random wait of up to max_delay_us and reaps it.
inline ::testing::AssertionResult kill_while_running(const std::function<void(int)> &work,
                                                     std::mt19937 &rng, int max_delay_us) {
    int ready[2];
    if (pipe(ready) != 0) {
        return ::testing::AssertionFailure() << "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ready[0]);
        work(ready[1]);
        _exit(0);
    }
    close(ready[1]);
    char byte = 0;
    const ssize_t n = child > 0 ? ::read(ready[0], &byte, 1) : -1;
    close(ready[0]);
    if (child < 0) {
        return ::testing::AssertionFailure() << "no child";
    }
    usleep(static_cast<useconds_t>(std::uniform_int_distribution<int>(0, max_delay_us)(rng)));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (n != 1) {
        return ::testing::AssertionFailure() << "the child failed before its first step";
    }
    if (!WIFSIGNALED(status)) {
        return ::testing::AssertionFailure() << "the child ended on its own, status " << status;
    }
    return ::testing::AssertionSuccess();
}

} // namespace vexo_test

#endif
