#include "tests/support/http_test_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace vostra::test {

int connectTo(int port, int receive_buffer) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd >= 0 && receive_buffer > 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return fd;
    if (fd >= 0) close(fd);
    return -1;
}

bool sendAll(int fd, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

std::string readAll(int fd, int timeout_ms) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::string out;
    char buffer[65536];
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waiting{fd, POLLIN, 0};
        if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) <= 0) break;
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

std::string HttpResponse::outcome() const {
    const nlohmann::json j = json();
    return std::to_string(status) + " " + (j.is_object() ? j.value("error", "") : "");
}

HttpResponse parseResponse(const std::string& raw) {
    HttpResponse response;
    response.raw = raw;
    if (raw.rfind("HTTP/1.1 ", 0) != 0 || raw.size() < 12) return response;
    response.status = std::atoi(raw.c_str() + 9);
    std::size_t end = raw.find("\r\n\r\n");
    response.head = raw.substr(0, end == std::string::npos ? raw.size() : end + 2);
    if (end != std::string::npos) response.body = raw.substr(end + 4);
    return response;
}

HttpResponse sendRaw(int port, const std::string& bytes, int timeout_ms) {
    int fd = connectTo(port);
    if (fd < 0) return {};
    std::string raw;
    if (sendAll(fd, bytes)) raw = readAll(fd, timeout_ms);
    close(fd);
    return parseResponse(raw);
}

HttpResponse request(int port, const std::string& method, const std::string& path,
                     const std::string& body, const std::vector<std::string>& headers) {
    std::string text = method + " " + path + " HTTP/1.1\r\nHost: localhost\r\n";
    for (const auto& header : headers)
        text += header + "\r\n";
    text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    return sendRaw(port, text);
}

}  // namespace vostra::test
