#include "daemon/request_assembler.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "daemon/request_context.h"

namespace vostra::data {
namespace {

constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::string_view kCrLf = "\r\n";
// A chunk-size line is a few hex digits and perhaps an extension; trailers
// are rare. Either one longer than this is not a client we serve.
constexpr std::size_t kMaxChunkLine = 4096;
constexpr std::size_t kMaxTrailerBytes = 64 * 1024;
// Reserved at once for a declared body up to this size; a larger one grows
// as it arrives, so a client that only announces gigabytes costs nothing.
constexpr std::size_t kMaxUpfrontReserve = std::size_t(1) << 30;

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

void sendUnreadable(int fd, RequestAssembler::Progress progress) {
    if (progress == RequestAssembler::Progress::HeadTooLarge)
        sendError(fd, 431, "Request header fields too large");
    else
        sendError(fd, 400, "Malformed chunked body");
}

std::string originFormOf(std::string_view target) {
    const std::size_t scheme_end = target.find("://");
    if (scheme_end == std::string_view::npos) return std::string(target);
    const std::string scheme = lowered(std::string(target.substr(0, scheme_end)));
    if (scheme != "http" && scheme != "https") return std::string(target);
    const std::size_t path = target.find('/', scheme_end + 3);
    return path == std::string_view::npos ? "/" : std::string(target.substr(path));
}

RequestAssembler::Progress RequestAssembler::feed(std::string_view bytes) {
    if (done_ != Progress::NeedMore || bytes.empty()) return done_;
    done_ = head_done_ ? feedBody(bytes) : feedHead(bytes);
    return done_;
}

RequestAssembler::Progress RequestAssembler::feedHead(std::string_view bytes) {
    head_.append(bytes);
    const std::size_t end = head_.find(kHeaderEnd, scanned_);
    if (end == std::string::npos) {
        if (head_.size() > kMaxHeaderBytes) return Progress::HeadTooLarge;
        scanned_ = head_.size() >= 3 ? head_.size() - 3 : 0;
        return Progress::NeedMore;
    }
    const std::size_t head_size = end + kHeaderEnd.size();
    if (head_size > kMaxHeaderBytes) return Progress::HeadTooLarge;
    head_done_ = true;
    const std::string rest = head_.substr(head_size);
    head_.resize(head_size);

    const std::string_view block = std::string_view(head_).substr(0, end + kCrLf.size());
    chunked_ = lowered(headerValue(head_, "Transfer-Encoding")).find("chunked") != std::string::npos;
    if (!chunked_) {
        declared_ = parseContentLength(block);
        if (!declared_) return Progress::Complete;
        body_.reserve(std::min({*declared_, kMaxUpfrontReserve, kMaxRequestBytes}));
    }
    wants_continue_ = lowered(headerValue(head_, "Expect")) == "100-continue";
    if (rest.empty()) return chunked_ || !bodyFull() ? Progress::NeedMore : Progress::Complete;
    return feedBody(rest);
}

bool RequestAssembler::bodyFull() const {
    return head_.size() + body_.size() > kMaxRequestBytes ||
           (declared_ && body_.size() >= *declared_);
}

RequestAssembler::Progress RequestAssembler::feedBody(std::string_view bytes) {
    if (chunked_) return feedChunked(bytes);
    body_.append(bytes);
    return bodyFull() ? Progress::Complete : Progress::NeedMore;
}

RequestAssembler::Progress RequestAssembler::feedChunked(std::string_view bytes) {
    while (!bytes.empty()) {
        switch (chunk_) {
            case Chunk::Data: {
                const std::size_t take = std::min(remaining_, bytes.size());
                body_.append(bytes.substr(0, take));
                bytes.remove_prefix(take);
                remaining_ -= take;
                if (remaining_ == 0) chunk_ = Chunk::DataEnd;
                if (bodyFull()) return Progress::Complete;
                break;
            }
            case Chunk::Size:
            case Chunk::DataEnd:
            case Chunk::Trailer: {
                const std::size_t cap = chunk_ == Chunk::Trailer ? kMaxTrailerBytes : kMaxChunkLine;
                // Gather one line; "\r\n" may be split between two reads.
                const std::size_t before = line_.size();
                line_.append(bytes.substr(0, std::min(bytes.size(), cap + 2)));
                const std::size_t crlf = line_.find(kCrLf, before > 0 ? before - 1 : 0);
                if (crlf == std::string::npos) {
                    if (line_.size() > cap) return Progress::BadChunking;
                    bytes.remove_prefix(line_.size() - before);
                    break;
                }
                bytes.remove_prefix(crlf + kCrLf.size() - before);
                const std::string line = line_.substr(0, crlf);
                line_.clear();
                if (chunk_ == Chunk::DataEnd) {
                    if (!line.empty()) return Progress::BadChunking;
                    chunk_ = Chunk::Size;
                } else if (chunk_ == Chunk::Trailer) {
                    if (line.empty()) {
                        chunk_ = Chunk::Done;
                        return Progress::Complete;
                    }
                } else {
                    // Hex digits, then perhaps ";extension".
                    const std::string_view digits =
                        std::string_view(line).substr(0, line.find(';'));
                    std::size_t size = 0;
                    const auto [stop, error] =
                        std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
                    const bool blanks_only = std::all_of(stop, digits.data() + digits.size(),
                                                         [](char c) { return c == ' ' || c == '\t'; });
                    if (error != std::errc() || stop == digits.data() || !blanks_only)
                        return Progress::BadChunking;
                    remaining_ = size;
                    chunk_ = size == 0 ? Chunk::Trailer : Chunk::Data;
                }
                break;
            }
            case Chunk::Done:
                return Progress::Complete;
        }
    }
    return Progress::NeedMore;
}

bool RequestAssembler::takeContinue() {
    if (!wants_continue_ || done_ != Progress::NeedMore) return false;
    wants_continue_ = false;
    return true;
}

HttpRequest RequestAssembler::finish(int fd) {
    HttpRequest request;
    request.fd = fd;
    std::string no_body;  // the head holds nothing after its end
    parseRequest(head_, request.method, request.path, no_body);
    request.path = originFormOf(request.path);
    request.raw = std::move(head_);
    request.body = std::move(body_);
    *this = RequestAssembler();
    return request;
}

}  // namespace vostra::data
