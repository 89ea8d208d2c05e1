// VectorNamespace: the record the vector service keeps for each namespace of
// a tenant, persisted in its namespace table. A plain value record.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra::data {

struct VectorNamespace {
    std::string id;  // the backend key, tenant + "/" + namespace
    std::string namespace_id;
    std::string tenant_id;
    std::string name;
    std::string description;
    int64_t document_count = 0;  // distinct sources
    int64_t total_chunks = 0;    // stored documents (chunks)
    int32_t embedding_dim = 0;
    std::string metric = "cosine";
    int64_t created_at = 0;  // milliseconds since the Unix epoch
    int64_t updated_at = 0;

    // Keys equal the field names.
    nlohmann::json toJson() const;
    // Reads each key only when present; a wrong type throws type_error.
    static VectorNamespace fromJson(const nlohmann::json& json);
};

}  // namespace vostra::data
