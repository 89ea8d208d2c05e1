// A loopback TCP port that refuses connections while this object lives: the
// socket is bound, so nobody else takes the port, but never listens. Lets
// network connectors be tested for failure without a server.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vostra::data::test {

class ClosedPort {
public:
    ClosedPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* raw = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd_, raw, length) == 0 && getsockname(fd_, raw, &length) == 0) {
            port_ = ntohs(address.sin_port);
        }
    }
    ~ClosedPort() { close(fd_); }
    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;

    int port() const { return port_; }  // 0 when none could be reserved

private:
    int fd_;
    int port_ = 0;
};

}  // namespace vostra::data::test
