#include "tests/support/fake_http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <sstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {

FakeHttpServer::FakeHttpServer() : handler_([](const RecordedRequest&) { return FakeResponse{}; }) {
    listen_fd_ = bindLoopback(port_);
    listen(listen_fd_, 64);
    acceptor_ = std::thread(&FakeHttpServer::acceptLoop, this);
}

FakeHttpServer::~FakeHttpServer() {
    running_ = false;
    shutdown(listen_fd_, SHUT_RDWR);
    acceptor_.join();
    close(listen_fd_);
    std::vector<std::thread> clients;
    {
        std::lock_guard lock(mutex_);
        clients.swap(clients_);
    }
    for (auto& client : clients)
        client.join();
}

void FakeHttpServer::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<RecordedRequest> FakeHttpServer::requestsTo(const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<RecordedRequest> matching;
    for (const auto& request : requests_)
        if (request.path.rfind(prefix, 0) == 0) matching.push_back(request);
    return matching;
}

bool FakeHttpServer::waitFor(const std::string& prefix, std::size_t count, int timeout_ms) const {
    return eventually([&] { return requestsTo(prefix).size() >= count; }, timeout_ms);
}

void FakeHttpServer::acceptLoop() {
    while (running_) {
        int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd < 0) continue;
        std::lock_guard lock(mutex_);
        clients_.emplace_back(&FakeHttpServer::serve, this, fd);
    }
}

void FakeHttpServer::serve(int fd) {
    // Read the head, then as much body as Content-Length announces.
    std::string raw;
    char buffer[8192];
    std::size_t head_end = std::string::npos, wanted = 0;
    for (;;) {
        pollfd waiting{fd, POLLIN, 0};
        if (poll(&waiting, 1, 5000) <= 0) break;
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        raw.append(buffer, static_cast<std::size_t>(n));
        if (head_end == std::string::npos) {
            head_end = raw.find("\r\n\r\n");
            if (head_end == std::string::npos) continue;
            std::string head = raw.substr(0, head_end);
            for (char& c : head)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            std::size_t at = head.find("content-length:");
            if (at != std::string::npos) wanted = std::stoul(head.substr(at + 15));
        }
        if (raw.size() - head_end - 4 >= wanted) break;
    }

    RecordedRequest request;
    std::istringstream line(raw.substr(0, raw.find("\r\n")));
    line >> request.method >> request.path;
    if (head_end != std::string::npos) request.body = raw.substr(head_end + 4);
    if (const std::size_t first = raw.find("\r\n"); first != std::string::npos && first < head_end)
        request.headers = raw.substr(first + 2, head_end - first - 2);
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        handler = handler_;
    }
    FakeResponse response = handler(request);
    for (int waited = 0; waited < response.delay_ms && running_; waited += 50)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::string wire = "HTTP/1.1 " + std::to_string(response.status) +
                       " X\r\nContent-Type: " + response.content_type +
                       "\r\nContent-Length: " + std::to_string(response.body.size()) +
                       "\r\nConnection: close\r\n\r\n" + response.body;
    sendAll(fd, wire);
    close(fd);
}

}  // namespace vostra::test
