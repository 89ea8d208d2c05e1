// OllamaEmbeddingProvider: embeddings from an Ollama server, one HTTP
// request per text to "<url>/api/embeddings". Owned by the vector service
// (or a test).
//
// Thread-safety: each request uses its own HTTP handle; the provider itself
// never changes after construction. Failures are printed with the
// "[Embedding] " prefix and give `dimension` zeros for that text, so a batch
// always answers one vector per text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vector/embedding_provider.h"

namespace vostra::data {

class OllamaEmbeddingProvider : public IEmbeddingProvider {
public:
    OllamaEmbeddingProvider(std::string url, std::string model, int32_t dimension);

    // The single vector of embedBatch({text}).
    std::vector<float> embed(const std::string& text) override;
    // Each text in turn, up to 60 seconds each. Vectors are taken as the
    // server sends them, whatever their length.
    std::vector<std::vector<float>> embedBatch(const std::vector<std::string>& texts) override;
    int32_t getDimension() const override { return dimension_; }
    std::string getName() const override { return "ollama"; }
    // True when GET "<url>/api/tags" completes, whatever its status; gives
    // up after 2 seconds connecting or 5 in all.
    bool isAvailable() override;

private:
    std::vector<float> requestEmbedding(const std::string& text) const;

    std::string url_;
    std::string model_;
    int32_t dimension_;
};

}  // namespace vostra::data
