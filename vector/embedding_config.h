// EmbeddingConfig: which embedding provider the vector service creates and
// how it reaches it. A plain value record, part of VectorStorageConfig.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra::data {

// JSON carries the number; every value other than 0 means Local.
enum class EmbeddingProviderType : int32_t { Ollama = 0, Local = 1 };

struct EmbeddingConfig {
    EmbeddingProviderType type = EmbeddingProviderType::Ollama;
    std::string url = "http://localhost:11434";  // base address of the Ollama server
    std::string model = "nomic-embed-text";
    std::string api_key;  // kept; the Ollama provider does not send it
    int32_t dimension = 768;
    int32_t batch_size = 32;  // a hint for callers; the wire traffic does not change

    bool operator==(const EmbeddingConfig&) const = default;

    // Keys "type", "url", "model", "api_key", "dimension", "batch_size".
    nlohmann::json toJson() const;
    // Assigns the keys present in `json`; a wrong type throws type_error.
    void merge(const nlohmann::json& json);
    static EmbeddingConfig fromJson(const nlohmann::json& json);
};

}  // namespace vostra::data
