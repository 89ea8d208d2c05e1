// The wire side of the daemon's HTTP/1.1 server: reading one request from a
// connected socket, splitting it into method, path and body, and writing
// answers. One request per connection; every answer closes it. Stateless and
// thread-safe; the caller owns and closes the socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vostra::data {

// A parsed request as handlers see it. `path` keeps any query string.
struct HttpRequest {
    int fd = -1;
    std::string raw;  // the header block exactly as received
    std::string method;
    std::string path;
    // Mutable so that a handler may move a large body on instead of copying
    // it (nothing reads the body after its handler).
    mutable std::string body;
};

// Reads one request from a blocking socket: until the header block and its
// body (by length or chunked) have arrived, the peer stops sending (5 s
// receive time-out) or the size limit is passed. Answers "Expect:
// 100-continue" at once, and a header block over its cap with 431 (then
// returns nothing). Nothing when nothing at all arrived.
std::optional<HttpRequest> readRequest(int fd);

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
// The same head alone, for a body of `length` bytes sent apart.
std::string formatHead(int status, std::string_view content_type, uint64_t length);

// Sends the whole answer, however long it takes while the client keeps
// reading; gives up (silently) after 30 s without progress or on an error.
void sendResponse(int fd, int status, const std::string& body,
                  const std::string& content_type = "application/json");

// Answers 200 with `size` bytes of the open file `file` from its start,
// streamed from the file rather than read into memory. The caller closes
// `file`.
void sendFileResponse(int fd, const std::string& content_type, int file, uint64_t size);

// While one lives on this thread, answers carry their head only (a HEAD
// request): the Content-Length still tells the length of the body left out.
class HeadOnlyAnswers {
public:
    HeadOnlyAnswers();
    ~HeadOnlyAnswers();
    HeadOnlyAnswers(const HeadOnlyAnswers&) = delete;
    HeadOnlyAnswers& operator=(const HeadOnlyAnswers&) = delete;
};

// Sends `body` as compact JSON. Text that is not valid UTF-8 (database and
// file contents often are not) is replaced rather than costing the answer.
void sendJson(int fd, int status, const nlohmann::json& body);

// Sends {"error": message} as compact JSON.
void sendError(int fd, int status, const std::string& message);

// The status of the last answer formatted on this thread (0 for none), and
// forgets it: the request counters learn how each request ended.
int takeLastStatus();

// The bare 302 to the dashboard, written as one fixed literal.
void sendDashboardRedirect(int fd);

}  // namespace vostra::data
