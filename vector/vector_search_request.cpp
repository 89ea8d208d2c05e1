#include "vector/vector_search_request.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

VectorSearchRequest VectorSearchRequest::fromJson(const nlohmann::json& json) {
    VectorSearchRequest r;
    if (!json.is_object()) return r;
    readField(json, "tenant_id", r.tenant_id);
    readField(json, "namespace_id", r.namespace_id);
    readField(json, "query", r.query);
    readField(json, "query_embedding", r.query_embedding);
    readField(json, "top_k", r.top_k);
    readField(json, "min_score", r.min_score);
    readField(json, "filter", r.filter);
    readField(json, "include_content", r.include_content);
    readField(json, "include_embedding", r.include_embedding);
    return r;
}

}  // namespace vostra::data
