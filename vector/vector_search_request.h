// VectorSearchRequest: one similarity search as the vector API receives it.
// A plain value record owned by the caller.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct VectorSearchRequest {
    std::string tenant_id = "default";
    std::string namespace_id = "default";
    std::string query;  // embedded when query_embedding is empty
    std::vector<float> query_embedding;
    int32_t top_k = 500;  // deliberately generous when the client names none
    float min_score = 0.0f;
    std::map<std::string, std::string> filter;  // every pair must match the metadata
    bool include_content = true;
    bool include_embedding = false;

    // Reads each key only when present; a wrong type throws type_error.
    static VectorSearchRequest fromJson(const nlohmann::json& json);
};

}  // namespace vostra::data
