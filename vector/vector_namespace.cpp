#include "vector/vector_namespace.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

nlohmann::json VectorNamespace::toJson() const {
    return {{"id", id},
            {"namespace_id", namespace_id},
            {"tenant_id", tenant_id},
            {"name", name},
            {"description", description},
            {"document_count", document_count},
            {"total_chunks", total_chunks},
            {"embedding_dim", embedding_dim},
            {"metric", metric},
            {"created_at", created_at},
            {"updated_at", updated_at}};
}

VectorNamespace VectorNamespace::fromJson(const nlohmann::json& json) {
    VectorNamespace n;
    if (!json.is_object()) return n;
    readField(json, "id", n.id);
    readField(json, "namespace_id", n.namespace_id);
    readField(json, "tenant_id", n.tenant_id);
    readField(json, "name", n.name);
    readField(json, "description", n.description);
    readField(json, "document_count", n.document_count);
    readField(json, "total_chunks", n.total_chunks);
    readField(json, "embedding_dim", n.embedding_dim);
    readField(json, "metric", n.metric);
    readField(json, "created_at", n.created_at);
    readField(json, "updated_at", n.updated_at);
    return n;
}

}  // namespace vostra::data
