// VectorStorageConfig: the settings of the vector store, persisted as
// "vector_config.json" under its storage path and changed at run time
// through the configuration route. A plain value record.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "vector/embedding_config.h"

namespace vostra::data {

struct VectorStorageConfig {
    // The backend number that selects memory; every other number is SQLite.
    static constexpr int32_t kMemoryBackend = 3;
    // Far above any embedding model's output, far below a harmful allocation.
    static constexpr int32_t kMaxDimension = 65536;

    bool enabled = false;
    int32_t backend = 0;
    std::string storage_path = "/var/lib/vostra/vectors";
    EmbeddingConfig embedding;
    std::string chromadb_url;  // kept for clients; no backend uses it
    int32_t chunk_size = 500;  // bytes
    int32_t chunk_overlap = 50;
    bool semantic_chunking = true;
    int32_t max_batch_size = 100;
    int32_t search_threads = 4;  // threads one memory-backend search may use

    bool operator==(const VectorStorageConfig&) const = default;

    bool usesMemoryBackend() const { return backend == kMemoryBackend; }
    // "memory" or "sqlite".
    const char* backendName() const;
    // Why these settings cannot be used (a chunk size below 1, an overlap not
    // below the chunk size, an empty storage path), or empty when they can.
    std::string problem() const;

    // Keys equal the field names; "embedding" is an object.
    nlohmann::json toJson() const;
    // Assigns the keys present in `json`, inside "embedding" too, so a
    // document need name only what it changes. A wrong type throws
    // nlohmann::json::type_error, possibly after some keys were assigned.
    void merge(const nlohmann::json& json);
    static VectorStorageConfig fromJson(const nlohmann::json& json);
};

}  // namespace vostra::data
