#include "tests/git/fake_forge.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/daemon_process.h"

namespace vostra::test {

namespace {

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text) {
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) return {};
    return text.substr(start, text.find_last_not_of(" \t\r") - start + 1);
}

// Reads the request head and its Content-Length body; false on a broken
// connection. `read` is recv or SSL_read.
template <typename Read>
bool readRequest(Read read, ForgeRequest& request) {
    std::string raw;
    char buffer[8192];
    std::size_t head_end = std::string::npos;
    std::size_t wanted = 0;
    while (head_end == std::string::npos || raw.size() < head_end + 4 + wanted) {
        const int n = read(buffer, static_cast<int>(sizeof buffer));
        if (n <= 0) return false;
        raw.append(buffer, static_cast<std::size_t>(n));
        if (head_end != std::string::npos) continue;
        head_end = raw.find("\r\n\r\n");
        if (head_end == std::string::npos) continue;

        std::size_t line_start = 0;
        bool first = true;
        while (line_start < head_end) {
            std::size_t line_end = raw.find("\r\n", line_start);
            const std::string line = raw.substr(line_start, line_end - line_start);
            line_start = line_end + 2;
            if (first) {
                const std::size_t space = line.find(' ');
                request.method = line.substr(0, space);
                request.target = line.substr(space + 1, line.rfind(' ') - space - 1);
                first = false;
            } else if (const std::size_t colon = line.find(':'); colon != std::string::npos) {
                request.headers[lowerCase(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
            }
        }
        if (const std::string length = request.header("content-length"); !length.empty())
            wanted = std::stoul(length);
    }
    request.body = raw.substr(head_end + 4, wanted);
    return true;
}

std::string reasonOf(int status) {
    switch (status) {
        case 200: return "OK";
        case 201: return "Created";
        case 202: return "Accepted";
        case 204: return "No Content";
        case 301: return "Moved Permanently";
        case 404: return "Not Found";
        default: return "Status";
    }
}

std::string render(const ForgeReply& reply) {
    std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " " + reasonOf(reply.status) +
                       "\r\nContent-Type: application/json\r\nConnection: close\r\n";
    for (const auto& [name, value] : reply.headers) text += name + ": " + value + "\r\n";
    text += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
    return text;
}

}  // namespace

git::ForgeConfig testForgeConfig(git::ForgeType type, const std::string& url) {
    git::ForgeConfig config;
    config.id = config.alias = "t";
    config.type = type;
    config.url = url;
    config.auth.type = "token";
    config.auth.token = kTestToken;
    config.timeout_seconds = 5;
    return config;
}

std::string ForgeRequest::header(const std::string& lower_case_name) const {
    auto it = headers.find(lower_case_name);
    return it == headers.end() ? std::string() : it->second;
}

FakeForge::FakeForge() : handler_([](const ForgeRequest&) { return ForgeReply{}; }) {
    listen_fd_ = bindLoopback(port_);
    if (listen(listen_fd_, 16) != 0) throw std::runtime_error("fake forge cannot listen");
    server_ = std::thread(&FakeForge::serveLoop, this);
}

FakeForge::FakeForge(const std::string& cert_path, const std::string& key_path) : FakeForge() {
    SSL_CTX* tls = SSL_CTX_new(TLS_server_method());
    if (!tls || SSL_CTX_use_certificate_file(tls, cert_path.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls, key_path.c_str(), SSL_FILETYPE_PEM) != 1) {
        SSL_CTX_free(tls);
        throw std::runtime_error("fake forge cannot load its certificate");
    }
    std::lock_guard lock(mutex_);
    tls_ = tls;
}

FakeForge::~FakeForge() {
    running_ = false;
    server_.join();
    close(listen_fd_);
    SSL_CTX_free(tls_);
}

std::string FakeForge::url() const {
    std::lock_guard lock(mutex_);
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
}

void FakeForge::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void FakeForge::replyWith(int status, std::string body) {
    setHandler([status, body](const ForgeRequest&) { return ForgeReply{status, body, {}}; });
}

std::vector<ForgeRequest> FakeForge::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

ForgeRequest FakeForge::last() const {
    std::lock_guard lock(mutex_);
    return requests_.empty() ? ForgeRequest{} : requests_.back();
}

void FakeForge::serveLoop() {
    while (running_) {
        pollfd waiting{listen_fd_, POLLIN, 0};
        if (poll(&waiting, 1, 50) <= 0) continue;
        const int fd = accept(listen_fd_, nullptr, nullptr);
        if (fd < 0) continue;
        // A client that stalls must not hang the test run.
        timeval limit{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        serve(fd);
        close(fd);
    }
}

void FakeForge::serve(int fd) {
    SSL_CTX* tls_context;
    {
        std::lock_guard lock(mutex_);
        tls_context = tls_;
    }
    SSL* tls = nullptr;
    if (tls_context) {
        tls = SSL_new(tls_context);
        SSL_set_fd(tls, fd);
        if (SSL_accept(tls) != 1) {  // e.g. a client that refuses the certificate
            SSL_free(tls);
            return;
        }
    }
    auto read = [&](char* buffer, int size) {
        return tls ? SSL_read(tls, buffer, size) : static_cast<int>(recv(fd, buffer, size, 0));
    };
    ForgeRequest request;
    if (readRequest(read, request)) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            handler = handler_;
        }
        const std::string answer = render(handler(request));
        if (tls)
            SSL_write(tls, answer.data(), static_cast<int>(answer.size()));
        else
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
    if (tls) {
        SSL_shutdown(tls);
        SSL_free(tls);
    }
}

std::optional<std::pair<std::string, std::string>> makeSelfSignedCertificate(
    const std::string& folder) {
    const std::string cert = folder + "/cert.pem";
    const std::string key = folder + "/key.pem";
    const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 "
                                "-days 1 -keyout '" + key + "' -out '" + cert +
                                "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return std::nullopt;
    return std::make_pair(cert, key);
}

TempFolder::TempFolder() : path_(makeTempDir("forge-test")) {
    if (path_.empty()) throw std::runtime_error("cannot make a temporary folder");
}

TempFolder::~TempFolder() { removeTree(path_); }

}  // namespace vostra::test
