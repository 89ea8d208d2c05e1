// Outgoing JSON calls over libcurl (controller, discovery). Each call uses a
// fresh easy handle and a 10-second total time-out; failures are a false
// return, never an exception. Thread-safe.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra {

// True when the transfer succeeded and the answer parsed as JSON into `out`.
// The HTTP status is not examined.
bool httpGet(const std::string& url, nlohmann::json& out);

// POSTs `body` as compact JSON. True when the transfer succeeded, the answer
// parsed as JSON into `out` and the status was below 400.
bool httpPost(const std::string& url, const nlohmann::json& body, nlohmann::json& out);

}  // namespace vostra
