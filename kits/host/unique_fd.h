// A file descriptor closed on every path out of a scope.
#ifndef VEXO_HOST_UNIQUE_FD_H
#define VEXO_HOST_UNIQUE_FD_H

#include <unistd.h>

namespace hostkit {

class UniqueFd {
  public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    /// Closes now and reports close's result (a failed close can mean lost data).
    int close_now() {
        int fd = fd_;
        fd_ = -1;
        return ::close(fd);
    }

  private:
    int fd_;
};

} // namespace hostkit

#endif
