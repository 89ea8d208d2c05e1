#include "daemon/http_message.h"

#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

#include "daemon/request_assembler.h"

namespace vostra::data {
namespace {

constexpr std::size_t kRecvChunk = 8191;
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
// Large enough that the kernel, not this loop, sets the pace of a download.
constexpr std::size_t kFileChunk = 1 << 20;

thread_local bool t_head_only = false;
thread_local int t_last_status = 0;

// Sends until done; a send that makes no progress within the socket's send
// time-out, or fails, ends it.
bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

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

std::optional<HttpRequest> readRequest(int fd) {
    timeval timeout{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    RequestAssembler assembler;
    char buffer[kRecvChunk + 1];
    for (;;) {
        const ssize_t received = recv(fd, buffer, kRecvChunk, 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) break;
        buffer[received] = '\0';
        // The server carries textual bodies; a chunk ends at its first NUL on purpose.
        const auto progress = assembler.feed(std::string_view(buffer, std::strlen(buffer)));
        if (assembler.takeContinue()) writeAll(fd, kContinue);
        if (progress == RequestAssembler::Progress::NeedMore) continue;
        if (progress != RequestAssembler::Progress::Complete) {
            sendUnreadable(fd, progress);
            return std::nullopt;
        }
        break;
    }
    if (assembler.empty()) return std::nullopt;
    return assembler.finish(fd);
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

std::string formatHead(int status, std::string_view content_type, uint64_t length) {
    t_last_status = status;
    std::string out;
    out.reserve(128);
    out += "HTTP/1.1 ";
    out += std::to_string(status);
    out += ' ';
    out += reasonPhrase(status);
    out += "\r\nContent-Type: ";
    out += content_type;
    out += "\r\nContent-Length: ";
    out += std::to_string(length);
    out += "\r\nConnection: close\r\n\r\n";
    return out;
}

std::string formatResponse(int status, std::string_view body, std::string_view content_type) {
    std::string out = formatHead(status, content_type, body.size());
    out += body;
    return out;
}

int takeLastStatus() {
    const int status = t_last_status;
    t_last_status = 0;
    return status;
}

HeadOnlyAnswers::HeadOnlyAnswers() { t_head_only = true; }
HeadOnlyAnswers::~HeadOnlyAnswers() { t_head_only = false; }

void sendResponse(int fd, int status, const std::string& body, const std::string& content_type) {
    if (t_head_only || body.size() > kFileChunk) {
        // Head and body apart: a large body is not copied a second time.
        if (writeAll(fd, formatHead(status, content_type, body.size())) && !t_head_only)
            writeAll(fd, body);
        return;
    }
    writeAll(fd, formatResponse(status, body, content_type));
}

void sendFileResponse(int fd, const std::string& content_type, int file, uint64_t size) {
    if (!writeAll(fd, formatHead(200, content_type, size)) || t_head_only) return;
    off_t offset = 0;
    while (static_cast<uint64_t>(offset) < size) {
        const std::size_t want =
            static_cast<std::size_t>(std::min<uint64_t>(size - static_cast<uint64_t>(offset), kFileChunk));
        const ssize_t sent = sendfile(fd, file, &offset, want);
        if (sent < 0 && errno == EINTR) continue;
        // A file that shrank under us ends early; the client sees it short.
        if (sent <= 0) return;
    }
}

void sendJson(int fd, int status, const nlohmann::json& body) {
    sendResponse(fd, status, body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void sendError(int fd, int status, const std::string& message) {
    sendJson(fd, status, {{"error", message}});
}

void sendDashboardRedirect(int fd) {
    t_last_status = 302;
    static constexpr std::string_view kRedirect =
        "HTTP/1.1 302 Found\r\nLocation: /dashboard\r\nContent-Length: 0\r\n\r\n";
    writeAll(fd, kRedirect);
}

}  // namespace vostra::data
