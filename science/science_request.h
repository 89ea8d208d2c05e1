// What a caller asks of one scientific service, and what comes back. Plain
// value records; thread-safe to copy.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "common/status.h"

namespace vostra::data {

struct ScienceRequest {
    std::string provider;
    // A path below the provider's base URL, or the name of one of its query
    // templates ("search", "lookup", ...), which then builds the call.
    std::string endpoint;
    // Sent as the parameters "query" and "limit" of a path endpoint when
    // set; a template places them where its service wants them.
    std::string query;
    int limit = 0;
    std::map<std::string, std::string> params;
    std::string method = "GET";
    std::string body;
    int timeout_ms = 30000;
};

// "success", "data" (the service's JSON, or its text when it sent none),
// "error", "status_code" (the service's; 0 when none answered) and
// "response_time_ms". `kind` says what kind of failure it was, for the
// HTTP layer; "cached" tells an answer served from the cache. A template
// that knows where its service keeps the result list adds "results":
// [{"id", "title", "description", "url"}] taken from it.
struct ScienceResult {
    bool success = false;
    nlohmann::json data;
    nlohmann::json results;  // null unless a template mapped them
    std::string error;
    long status_code = 0;
    int64_t response_time_ms = 0;
    bool cached = false;
    std::size_t bytes = 0;  // the answer's size on the wire
    ErrorKind kind = ErrorKind::None;

    static ScienceResult failure(ErrorKind kind, std::string error) {
        ScienceResult result;
        result.kind = kind;
        result.error = std::move(error);
        return result;
    }

    nlohmann::json toJson() const;
};

}  // namespace vostra::data
