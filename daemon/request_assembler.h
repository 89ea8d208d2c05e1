// RequestAssembler: one HTTP/1.1 request built from the bytes of a
// connection as they arrive, whoever reads them (the event-driven reader of
// the server, or a blocking read on one socket). It finds the end of the
// header block, then takes the body by "Content-Length" (only that spelling
// and "content-length") or by "Transfer-Encoding: chunked" (decoded; any
// header case), and notices "Expect: 100-continue". The caller cuts every
// received piece at its first NUL byte before feeding it: the server carries
// textual bodies, and that rule is kept on purpose.
//
// One per connection; not thread-safe; movable.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "daemon/http_message.h"

namespace vostra::data {

class RequestAssembler {
public:
    enum class Progress {
        NeedMore,      // keep reading
        Complete,      // the request (or as much as the size limit allows) is here
        HeadTooLarge,  // the header block passed its cap: answer 431, never dispatch
        BadChunking,   // a chunked body that does not follow the format: answer 400
    };

    // The largest header block, end included.
    static constexpr std::size_t kMaxHeaderBytes = 1 << 20;
    // What arrives beyond this is not read; the request is dispatched as it is.
    static constexpr std::size_t kMaxRequestBytes = 0x80000000;

    // Feeds the next received bytes. After Complete, HeadTooLarge or
    // BadChunking further bytes are ignored.
    Progress feed(std::string_view bytes);

    // Whether anything at all has arrived.
    bool empty() const { return head_.empty(); }
    // True once the header block is complete.
    bool headDone() const { return head_done_; }
    // True exactly once, right after a header block asking
    // "Expect: 100-continue" completed with a body still to come.
    bool takeContinue();
    // The body bytes this request announced (Content-Length), if any.
    std::optional<std::size_t> declaredLength() const { return declared_; }

    // The request as handlers see it: `raw` is the header block (or all that
    // arrived when it never ended), the body is moved out, and an
    // absolute-form target ("http://host/path") is reduced to its path.
    // Leaves the assembler empty.
    HttpRequest finish(int fd);

private:
    enum class Chunk { Size, Data, DataEnd, Trailer, Done };

    Progress feedHead(std::string_view bytes);
    Progress feedBody(std::string_view bytes);
    Progress feedChunked(std::string_view bytes);
    bool bodyFull() const;

    std::string head_;
    std::string body_;
    std::size_t scanned_ = 0;  // where the next search for the head's end starts
    bool head_done_ = false;
    bool wants_continue_ = false;
    bool chunked_ = false;
    std::optional<std::size_t> declared_;
    Progress done_ = Progress::NeedMore;

    Chunk chunk_ = Chunk::Size;
    std::string line_;          // the chunk-size line, CRLF or trailer being gathered
    std::size_t remaining_ = 0;  // bytes of the current chunk still to come
};

// Answers a request that cannot be read: 431 "Request header fields too
// large" for HeadTooLarge, 400 "Malformed chunked body" for BadChunking.
void sendUnreadable(int fd, RequestAssembler::Progress progress);

// The path of a request target: "http://host:port/a?b" gives "/a?b"; any
// other target is returned as it stands.
std::string originFormOf(std::string_view target);

}  // namespace vostra::data
