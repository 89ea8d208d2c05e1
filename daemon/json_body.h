// Turning a request body into what a handler needs, or into the 400 the
// client gets instead. Every handler reads its body through here.
// Stateless; thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "daemon/http_message.h"

namespace vostra::data {

// The body read into `Record` with Record::fromJson. A body that is not
// JSON, or a key of the wrong type, answers 400 with the parser's message
// and yields nothing.
template <typename Record>
std::optional<Record> readJsonBody(const HttpRequest& request) {
    try {
        return Record::fromJson(nlohmann::json::parse(request.body));
    } catch (const nlohmann::json::exception& error) {
        sendError(request.fd, 400, error.what());
        return std::nullopt;
    }
}

// The body as a JSON object. A body that is not JSON answers 400 with the
// parser's message, other JSON 400 "Request body must be a JSON object";
// both yield nothing.
std::optional<nlohmann::json> readRequiredJsonObject(const HttpRequest& request);

// The body as a JSON object, an empty (or blank) body being an empty one.
// Anything else answers 400 "Request body must be a JSON object" and yields
// nothing.
std::optional<nlohmann::json> readJsonObject(const HttpRequest& request);

}  // namespace vostra::data
