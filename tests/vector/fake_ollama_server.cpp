#include "tests/vector/fake_ollama_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace vostra::test {
namespace {

std::string readRequest(int fd) {
    std::string data;
    char buffer[4096];
    for (;;) {
        const std::size_t head_end = data.find("\r\n\r\n");
        if (head_end != std::string::npos) {
            std::size_t length = 0;
            const std::size_t at = data.find("Content-Length: ");
            if (at != std::string::npos && at < head_end) length = std::stoul(data.substr(at + 16));
            if (data.size() >= head_end + 4 + length) return data;
        }
        const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) return data;
        data.append(buffer, static_cast<std::size_t>(got));
    }
}

void reply(int fd, int status, const std::string& body) {
    const std::string text =
        "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Error") +
        "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\nConnection: close\r\n\r\n" + body;
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

}  // namespace

FakeOllamaServer::FakeOllamaServer(int dimension) : dimension_(dimension) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (bind(listen_fd_, raw, length) == 0 && listen(listen_fd_, 16) == 0 &&
        getsockname(listen_fd_, raw, &length) == 0)
        port_ = ntohs(address.sin_port);
    thread_ = std::thread(&FakeOllamaServer::serve, this);
}

FakeOllamaServer::~FakeOllamaServer() {
    stopping_.store(true);
    thread_.join();
    close(listen_fd_);
}

std::vector<FakeOllamaServer::Request> FakeOllamaServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void FakeOllamaServer::serve() {
    while (!stopping_.load()) {
        pollfd waiting{listen_fd_, POLLIN, 0};
        if (poll(&waiting, 1, 50) <= 0) continue;
        const int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd < 0) continue;
        answer(fd);
        close(fd);
    }
}

void FakeOllamaServer::answer(int fd) {
    const std::string raw = readRequest(fd);
    Request request;
    const std::size_t space = raw.find(' ');
    request.method = raw.substr(0, space);
    request.path = raw.substr(space + 1, raw.find(' ', space + 1) - space - 1);
    const std::size_t body_at = raw.find("\r\n\r\n");
    if (body_at != std::string::npos) request.body = raw.substr(body_at + 4);
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }

    if (request.path == "/api/tags") {
        reply(fd, 200, R"({"models":[]})");
        return;
    }
    switch (mode_.load()) {
        case Mode::Fail:
            reply(fd, 500, R"({"error":"model not loaded"})");
            return;
        case Mode::Garbage:
            reply(fd, 200, "<html>busy</html>");
            return;
        case Mode::MissingEmbedding:
            reply(fd, 200, R"({"embeddings":[]})");
            return;
        case Mode::Embeddings:
            break;
    }
    const auto body = nlohmann::json::parse(request.body, nullptr, false);
    const std::string prompt = body.is_object() ? body.value("prompt", std::string()) : "";
    std::vector<float> vector(static_cast<std::size_t>(dimension_));
    for (int i = 0; i < dimension_; ++i)
        vector[static_cast<std::size_t>(i)] = static_cast<float>(i);
    if (!vector.empty()) vector[0] = static_cast<float>(prompt.size());
    reply(fd, 200, nlohmann::json{{"embedding", vector}}.dump());
}

}  // namespace vostra::test
