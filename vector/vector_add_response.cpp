#include "vector/vector_add_response.h"

#include <nlohmann/json.hpp>

#include "common/sanitize_utf8.h"

namespace vostra::data {

nlohmann::json VectorAddResponse::toJson() const {
    nlohmann::json ids = nlohmann::json::array();
    for (const std::string& id : document_ids)
        ids.push_back(sanitize_utf8(id));
    nlohmann::json out = {{"success", success},
                          {"document_ids", std::move(ids)},
                          {"documents_added", documents_added},
                          {"embeddings_generated", embeddings_generated},
                          {"zero_vector_chunks", zero_vector_chunks},
                          {"time_ms", time_ms}};
    if (!success) out["error"] = error;
    return out;
}

VectorAddResponse VectorAddResponse::failure(std::string message) {
    VectorAddResponse response;
    response.error = std::move(message);
    return response;
}

}  // namespace vostra::data
