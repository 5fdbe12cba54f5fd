// A free TCP port on 127.0.0.1 for a test's own server.
#ifndef VEXO_TESTS_HOST_UNUSED_PORT_H
#define VEXO_TESTS_HOST_UNUSED_PORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vexo_test {

/// A port on 127.0.0.1 that nothing listens on (bound once, then released); -1 on failure.
inline int unused_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

} // namespace vexo_test

#endif
