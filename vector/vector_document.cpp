#include "vector/vector_document.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"
#include "common/sanitize_utf8.h"

namespace vostra::data {

nlohmann::json VectorDocument::toJson() const {
    nlohmann::json clean_metadata = nlohmann::json::object();
    for (const auto& [key, value] : metadata)
        clean_metadata[sanitize_utf8(key)] = sanitize_utf8(value);
    return {{"id", sanitize_utf8(id)},
            {"content", sanitize_utf8(content)},
            {"source", sanitize_utf8(source)},
            {"namespace_id", sanitize_utf8(namespace_id)},
            {"metadata", std::move(clean_metadata)},
            {"created_at", created_at},
            {"updated_at", updated_at},
            {"chunk_index", chunk_index},
            {"total_chunks", total_chunks},
            {"embedding_dim", embedding.size()}};
}

VectorDocument VectorDocument::fromJson(const nlohmann::json& json) {
    VectorDocument d;
    if (!json.is_object()) return d;
    readField(json, "id", d.id);
    readField(json, "content", d.content);
    readField(json, "source", d.source);
    readField(json, "namespace_id", d.namespace_id);
    readField(json, "metadata", d.metadata);
    readField(json, "created_at", d.created_at);
    readField(json, "updated_at", d.updated_at);
    readField(json, "chunk_index", d.chunk_index);
    readField(json, "total_chunks", d.total_chunks);
    readField(json, "embedding", d.embedding);
    return d;
}

}  // namespace vostra::data
