#include "vector/embedding_config.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

nlohmann::json EmbeddingConfig::toJson() const {
    return {{"type", static_cast<int32_t>(type)},
            {"url", url},
            {"model", model},
            {"api_key", api_key},
            {"dimension", dimension},
            {"batch_size", batch_size}};
}

void EmbeddingConfig::merge(const nlohmann::json& json) {
    // get_ref throws type_error for a non-object, as a wrongly typed key would.
    json.get_ref<const nlohmann::json::object_t&>();
    auto raw_type = static_cast<int32_t>(type);
    readField(json, "type", raw_type);
    // Any number is kept as it came; only 0 selects Ollama.
    type = static_cast<EmbeddingProviderType>(raw_type);
    readField(json, "url", url);
    readField(json, "model", model);
    readField(json, "api_key", api_key);
    readField(json, "dimension", dimension);
    readField(json, "batch_size", batch_size);
}

EmbeddingConfig EmbeddingConfig::fromJson(const nlohmann::json& json) {
    EmbeddingConfig config;
    config.merge(json);
    return config;
}

}  // namespace vostra::data
