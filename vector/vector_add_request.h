// VectorAddRequest: documents to store in one namespace, and whether the
// service should embed those that arrive without a vector. A plain value
// record owned by the caller.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "vector/vector_document.h"

namespace vostra::data {

struct VectorAddRequest {
    std::string tenant_id = "default";
    std::string namespace_id = "default";
    std::vector<VectorDocument> documents;
    bool generate_embeddings = true;

    // Reads each key only when present; a wrong type throws type_error.
    static VectorAddRequest fromJson(const nlohmann::json& json);
};

}  // namespace vostra::data
