// The answer to a similarity or text search: the matched documents with
// their scores, timing and counts. Plain value records owned by the caller.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "common/status.h"
#include "vector/vector_document.h"

namespace vostra::data {

struct VectorSearchResult {
    VectorDocument document;
    float score = 0.0f;     // cosine similarity
    float distance = 1.0f;  // always 1 - score
};

struct [[nodiscard]] VectorSearchResponse {
    bool success = false;
    std::string error;
    std::vector<VectorSearchResult> results;  // best first
    double search_time_ms = 0.0;
    int64_t total_searched = 0;  // documents in the namespace
    // None on success; Invalid when the request itself was at fault (a
    // filter key the backend cannot use). Not part of the JSON.
    ErrorKind kind = ErrorKind::None;

    // "success", "results" (each the document's JSON plus "score",
    // "distance" and, when the document still carries its vector,
    // "embedding"), "search_time_ms", "total_searched", "count", and "error"
    // when the search failed.
    nlohmann::json toJson() const;

    static VectorSearchResponse failure(ErrorKind kind, std::string message);
};

}  // namespace vostra::data
