#include "vector/vector_storage_config.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

const char* VectorStorageConfig::backendName() const {
    return usesMemoryBackend() ? "memory" : "sqlite";
}

std::string VectorStorageConfig::problem() const {
    if (storage_path.empty()) return "storage_path must not be empty";
    if (chunk_size < 1) return "chunk_size must be at least 1";
    // Fixed-length slicing advances by chunk_size - chunk_overlap.
    if (chunk_overlap >= chunk_size) return "chunk_overlap must be below chunk_size";
    // Every failed embedding is a zero vector of this length: an absurd value
    // would make each one a huge allocation.
    if (embedding.dimension < 1 || embedding.dimension > kMaxDimension)
        return "embedding dimension must be between 1 and " + std::to_string(kMaxDimension);
    return {};
}

nlohmann::json VectorStorageConfig::toJson() const {
    return {{"enabled", enabled},
            {"backend", backend},
            {"storage_path", storage_path},
            {"embedding", embedding.toJson()},
            {"chromadb_url", chromadb_url},
            {"chunk_size", chunk_size},
            {"chunk_overlap", chunk_overlap},
            {"semantic_chunking", semantic_chunking},
            {"max_batch_size", max_batch_size},
            {"search_threads", search_threads}};
}

void VectorStorageConfig::merge(const nlohmann::json& json) {
    json.get_ref<const nlohmann::json::object_t&>();  // type_error for a non-object
    readField(json, "enabled", enabled);
    readField(json, "backend", backend);
    readField(json, "storage_path", storage_path);
    if (auto it = json.find("embedding"); it != json.end()) embedding.merge(*it);
    readField(json, "chromadb_url", chromadb_url);
    readField(json, "chunk_size", chunk_size);
    readField(json, "chunk_overlap", chunk_overlap);
    readField(json, "semantic_chunking", semantic_chunking);
    readField(json, "max_batch_size", max_batch_size);
    readField(json, "search_threads", search_threads);
}

VectorStorageConfig VectorStorageConfig::fromJson(const nlohmann::json& json) {
    VectorStorageConfig config;
    config.merge(json);
    return config;
}

}  // namespace vostra::data
