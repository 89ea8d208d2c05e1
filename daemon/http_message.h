// The wire side of the daemon's HTTP/1.1 server: reading one request from a
// connected socket, splitting it into method, path and body, and writing
// answers. One request per connection; every answer closes it. Stateless and
// thread-safe; the caller owns and closes the socket.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vostra::data {

// A parsed request as handlers see it. `path` keeps any query string.
struct HttpRequest {
    int fd = -1;
    std::string raw;  // headers and body exactly as received
    std::string method;
    std::string path;
    std::string body;
};

// Reads until the header block and its declared body have arrived, the peer
// stops sending (5 s receive time-out) or the size limit is passed. Returns an
// empty string when nothing at all arrived.
std::string readRequest(int fd);

// The declared body length of a header block, from "Content-Length:" or
// "content-length:" only. Empty when absent or not a decimal number.
std::optional<std::size_t> parseContentLength(std::string_view header_block);

// Method and path are the first two blank-separated words; the body is all
// after the first "\r\n\r\n" (empty when there is none).
void parseRequest(const std::string& raw, std::string& method, std::string& path,
                  std::string& body);

const char* reasonPhrase(int status);

// Status line, Content-Type, Content-Length, "Connection: close" and nothing else.
std::string formatResponse(int status, std::string_view body, std::string_view content_type);

// Sends with a single send(); a short or failed write is neither retried nor reported.
void sendResponse(int fd, int status, const std::string& body,
                  const std::string& content_type = "application/json");

// Sends `body` as compact JSON. Text that is not valid UTF-8 (database and
// file contents often are not) is replaced rather than costing the answer.
void sendJson(int fd, int status, const nlohmann::json& body);

// Sends {"error": message} as compact JSON.
void sendError(int fd, int status, const std::string& message);

// The bare 302 to the dashboard, written as one fixed literal.
void sendDashboardRedirect(int fd);

}  // namespace vostra::data
