// LocalEmbeddingProvider: a dependency-free hashing embedder that always
// works: each white-space separated word, lower-cased, adds 1 to the
// element its hash picks, and the vector is scaled to unit length. Owned
// by the vector service (or a test); stateless and thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vector/embedding_provider.h"

namespace vostra::data {

class LocalEmbeddingProvider : public IEmbeddingProvider {
public:
    // A `dimension` below 1 gives empty vectors.
    explicit LocalEmbeddingProvider(int32_t dimension);

    // Unit length, or all zeros for a text without words.
    std::vector<float> embed(const std::string& text) override;
    std::vector<std::vector<float>> embedBatch(const std::vector<std::string>& texts) override;
    int32_t getDimension() const override { return dimension_; }
    std::string getName() const override { return "local"; }
    bool isAvailable() override { return true; }

    // 32-bit FNV-1a in which each byte is sign-extended before the
    // exclusive-or, so bytes of 128 and above enter with their upper 24 bits
    // set. Stored vectors depend on this exact quirk; never "fix" it.
    static uint32_t hashString(const std::string& text);

private:
    int32_t dimension_;
};

}  // namespace vostra::data
