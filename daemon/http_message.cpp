#include "daemon/http_message.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vostra::data {
namespace {

constexpr std::size_t kRecvChunk = 8191;
// Requests larger than this stop being read; what has arrived is dispatched.
constexpr std::size_t kMaxRequestBytes = 0x80000000;
// A header block is a few hundred bytes. One that has not ended by this size
// is treated like a request that stopped arriving, so a flood of endless
// headers cannot hold gigabytes per connection.
constexpr std::size_t kMaxHeaderBytes = 1 << 20;
constexpr std::string_view kHeaderEnd = "\r\n\r\n";

}  // namespace

std::optional<std::size_t> parseContentLength(std::string_view header_block) {
    std::size_t at = header_block.find("Content-Length:");
    if (at == std::string_view::npos) at = header_block.find("content-length:");
    if (at == std::string_view::npos) return std::nullopt;

    std::size_t begin = at + std::strlen("Content-Length:");
    while (begin < header_block.size() && (header_block[begin] == ' ' || header_block[begin] == '\t'))
        ++begin;
    std::size_t end = header_block.find("\r\n", begin);
    if (end == std::string_view::npos) end = header_block.size();

    std::size_t length = 0;
    const char* first = header_block.data() + begin;
    auto [stop, error] = std::from_chars(first, header_block.data() + end, length);
    if (error != std::errc() || stop == first) return std::nullopt;
    return length;
}

std::string readRequest(int fd) {
    timeval timeout{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    std::string raw;
    char buffer[kRecvChunk + 1];
    std::size_t header_end = std::string::npos;
    std::size_t scanned = 0;  // where the next search for the header end may start
    std::size_t declared = 0;

    for (;;) {
        ssize_t received = recv(fd, buffer, kRecvChunk, 0);
        if (received <= 0) break;
        buffer[received] = '\0';
        // The server carries textual bodies; a chunk ends at its first NUL on purpose.
        raw.append(buffer, std::strlen(buffer));

        if (header_end == std::string::npos) {
            header_end = raw.find(kHeaderEnd, scanned);
            if (header_end == std::string::npos) {
                if (raw.size() > kMaxHeaderBytes) break;
                scanned = raw.size() >= 3 ? raw.size() - 3 : 0;
                continue;
            }
            auto length = parseContentLength(std::string_view(raw).substr(0, header_end + 2));
            if (!length) break;
            declared = *length;
        }
        if (raw.size() - header_end - kHeaderEnd.size() >= declared) break;
        if (raw.size() > kMaxRequestBytes) break;
    }
    return raw;
}

void parseRequest(const std::string& raw, std::string& method, std::string& path,
                  std::string& body) {
    // The first two words of the text, split at any white space as a stream
    // would, but without building one per request.
    static constexpr const char* kBlanks = " \t\r\n\v\f";
    std::string_view text(raw);
    auto nextWord = [&text]() {
        const std::size_t begin = text.find_first_not_of(kBlanks);
        if (begin == std::string_view::npos) {
            text = {};
            return std::string();
        }
        const std::size_t end = text.find_first_of(kBlanks, begin);
        std::string word(text.substr(begin, end == std::string_view::npos ? end : end - begin));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end);
        return word;
    };
    method = nextWord();
    path = nextWord();
    std::size_t header_end = raw.find(kHeaderEnd);
    body = header_end == std::string::npos ? std::string() : raw.substr(header_end + kHeaderEnd.size());
}

const char* reasonPhrase(int status) {
    switch (status) {
        case 200: return "OK";
        case 201: return "Created";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 500: return "Internal Server Error";
        default: return "Unknown";
    }
}

std::string formatResponse(int status, std::string_view body, std::string_view content_type) {
    std::string out;
    out.reserve(128 + body.size());
    out += "HTTP/1.1 ";
    out += std::to_string(status);
    out += ' ';
    out += reasonPhrase(status);
    out += "\r\nContent-Type: ";
    out += content_type;
    out += "\r\nContent-Length: ";
    out += std::to_string(body.size());
    out += "\r\nConnection: close\r\n\r\n";
    out += body;
    return out;
}

void sendResponse(int fd, int status, const std::string& body, const std::string& content_type) {
    std::string wire = formatResponse(status, body, content_type);
    (void)send(fd, wire.data(), wire.size(), MSG_NOSIGNAL);
}

void sendJson(int fd, int status, const nlohmann::json& body) {
    sendResponse(fd, status, body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void sendError(int fd, int status, const std::string& message) {
    sendJson(fd, status, {{"error", message}});
}

void sendDashboardRedirect(int fd) {
    static constexpr std::string_view kRedirect =
        "HTTP/1.1 302 Found\r\nLocation: /dashboard\r\nContent-Length: 0\r\n\r\n";
    (void)send(fd, kRedirect.data(), kRedirect.size(), MSG_NOSIGNAL);
}

}  // namespace vostra::data
