#include "vector/vector_add_request.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

VectorAddRequest VectorAddRequest::fromJson(const nlohmann::json& json) {
    VectorAddRequest r;
    if (!json.is_object()) return r;
    readField(json, "tenant_id", r.tenant_id);
    readField(json, "namespace_id", r.namespace_id);
    readField(json, "generate_embeddings", r.generate_embeddings);
    if (auto it = json.find("documents"); it != json.end()) {
        // get_ref throws type_error for anything but an array, as readField would.
        for (const nlohmann::json& document : it->get_ref<const nlohmann::json::array_t&>())
            r.documents.push_back(VectorDocument::fromJson(document));
    }
    return r;
}

}  // namespace vostra::data
