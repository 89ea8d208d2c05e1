// What kind of failure an operation met, carried beside its message so that
// the HTTP layer chooses a status by table instead of re-deriving it from
// the service's rules. Plain values; thread-safe to copy.
#pragma once

#include <string>
#include <utility>

namespace vostra {

enum class ErrorKind {
    None,           // no failure
    Invalid,        // the request itself is malformed or names something unusable
    Refused,        // well-formed, but not allowed (a link on the way, read-only)
    NotFound,       // the tenant, file, source or record does not exist
    Conflict,       // it exists already, or another record holds its name
    QuotaExceeded,  // it would pass a configured limit
    Unavailable,    // the service (or its backend) is not running
    Internal,       // the host failed us: disk, database, peer
};

// Success, or a failure kind with its message (a fixed phrase, then the
// offending path or id).
struct [[nodiscard]] Status {
    ErrorKind kind = ErrorKind::None;
    std::string message;

    bool ok() const { return kind == ErrorKind::None; }
    explicit operator bool() const { return ok(); }

    static Status success() { return {}; }
    static Status failure(ErrorKind kind, std::string message) {
        return {kind, std::move(message)};
    }
};

}  // namespace vostra
