#include "vector/vector_search_response.h"

#include <nlohmann/json.hpp>

namespace vostra::data {

nlohmann::json VectorSearchResponse::toJson() const {
    nlohmann::json items = nlohmann::json::array();
    for (const VectorSearchResult& result : results) {
        nlohmann::json item = result.document.toJson();
        item["score"] = result.score;
        item["distance"] = result.distance;
        if (!result.document.embedding.empty()) item["embedding"] = result.document.embedding;
        items.push_back(std::move(item));
    }
    nlohmann::json out = {{"success", success},
                          {"results", std::move(items)},
                          {"search_time_ms", search_time_ms},
                          {"total_searched", total_searched},
                          {"count", results.size()}};
    if (!success) out["error"] = error;
    return out;
}

VectorSearchResponse VectorSearchResponse::failure(ErrorKind kind, std::string message) {
    VectorSearchResponse response;
    response.error = std::move(message);
    response.kind = kind;
    return response;
}

}  // namespace vostra::data
