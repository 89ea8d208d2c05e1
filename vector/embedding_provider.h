// IEmbeddingProvider: turns text into vectors of 32-bit floats for the
// vector store. The vector service owns one provider, made from its
// EmbeddingConfig, and shares it with the requests using it.
//
// Thread-safety: providers hold no mutable state after construction and may
// serve several threads at once. A failed request is never thrown: the
// provider prints why and answers zeros for that text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vostra::data {

class IEmbeddingProvider {
public:
    virtual ~IEmbeddingProvider() = default;

    virtual std::vector<float> embed(const std::string& text) = 0;
    // One vector per text, in the order given.
    virtual std::vector<std::vector<float>> embedBatch(const std::vector<std::string>& texts) = 0;
    virtual int32_t getDimension() const = 0;
    // "ollama" or "local".
    virtual std::string getName() const = 0;
    // Whether the provider can be reached now; may take a few seconds.
    virtual bool isAvailable() = 0;
};

}  // namespace vostra::data
