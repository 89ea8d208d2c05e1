#include "vector/local_embedding_provider.h"

#include <cmath>

namespace vostra::data {
namespace {

constexpr uint32_t kFnvOffsetBasis = 2166136261u;
constexpr uint32_t kFnvPrime = 16777619u;

// The C locale's white space, which is what splits words.
bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char lowerAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

LocalEmbeddingProvider::LocalEmbeddingProvider(int32_t dimension) : dimension_(dimension) {}

uint32_t LocalEmbeddingProvider::hashString(const std::string& text) {
    uint32_t hash = kFnvOffsetBasis;
    for (char c : text) {
        hash ^= static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
        hash *= kFnvPrime;
    }
    return hash;
}

std::vector<float> LocalEmbeddingProvider::embed(const std::string& text) {
    if (dimension_ < 1) return {};
    std::vector<float> vector(static_cast<std::size_t>(dimension_), 0.0f);
    std::string word;
    const auto addWord = [&] {
        if (word.empty()) return;
        vector[hashString(word) % static_cast<uint32_t>(dimension_)] += 1.0f;
        word.clear();
    };
    for (char c : text) {
        if (isSpace(c))
            addWord();
        else
            word += lowerAscii(c);
    }
    addWord();

    float squares = 0.0f;
    for (float v : vector)
        squares += v * v;
    const float norm = std::sqrt(squares);
    if (norm > 0.0f)
        for (float& v : vector)
            v /= norm;
    return vector;
}

std::vector<std::vector<float>> LocalEmbeddingProvider::embedBatch(
    const std::vector<std::string>& texts) {
    std::vector<std::vector<float>> vectors;
    vectors.reserve(texts.size());
    for (const std::string& text : texts)
        vectors.push_back(embed(text));
    return vectors;
}

}  // namespace vostra::data
