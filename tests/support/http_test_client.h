// A deliberately small HTTP client for tests: it writes exactly the bytes a
// test gives it, so malformed and split requests can be sent on purpose.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::test {

struct HttpResponse {
    int status = 0;    // 0 when nothing (or no status line) came back
    std::string head;  // the status and header lines, each ending in "\r\n"
    std::string body;
    std::string raw;

    nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
    // "<status> <the body's "error" text>", to check both in one comparison.
    std::string outcome() const;
};

// A connected loopback socket, or -1; a non-zero `receive_buffer` caps the
// socket's receive buffer (set before connecting, so the window obeys it).
int connectTo(int port, int receive_buffer = 0);
// Reads until the peer closes or `timeout_ms` passes.
std::string readAll(int fd, int timeout_ms = 10000);
bool sendAll(int fd, const std::string& bytes);
HttpResponse parseResponse(const std::string& raw);

// Sends `bytes` on a new connection and returns whatever comes back.
HttpResponse sendRaw(int port, const std::string& bytes, int timeout_ms = 10000);

// A well-formed request with Content-Length and the given extra header lines.
HttpResponse request(int port, const std::string& method, const std::string& path,
                     const std::string& body = "", const std::vector<std::string>& headers = {});

}  // namespace vostra::test
