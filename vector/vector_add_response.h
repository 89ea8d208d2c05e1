// VectorAddResponse: the outcome of storing documents: the ids given to
// them, how many were stored and embedded, and the time the whole call
// took. A plain value record owned by the caller.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct [[nodiscard]] VectorAddResponse {
    bool success = false;
    std::string error;
    std::vector<std::string> document_ids;  // in the order of the request
    int64_t documents_added = 0;
    int64_t embeddings_generated = 0;
    // Of those, how many came back all zeros because the embedding service
    // failed: stored, but not found by similarity.
    int64_t zero_vector_chunks = 0;
    double time_ms = 0.0;

    // "success", "document_ids", "documents_added", "embeddings_generated",
    // "zero_vector_chunks", "time_ms", and "error" when the add failed.
    nlohmann::json toJson() const;

    static VectorAddResponse failure(std::string message);
};

}  // namespace vostra::data
