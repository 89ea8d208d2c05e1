// The arithmetic kernels under every backend's cosine scores.
#include "vector/cosine_similarity.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

namespace vostra::data {
namespace {

std::vector<float> randomVector(std::size_t n, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v)
        x = value(engine);
    return v;
}

TEST(CosineSimilarity, KernelsMatchADoublePrecisionSum) {
    for (std::size_t n : {1u, 15u, 16u, 17u, 768u, 1001u}) {
        const std::vector<float> a = randomVector(n, 2), b = randomVector(n, 3);
        double dot = 0, squares = 0;
        for (std::size_t i = 0; i < n; ++i) {
            dot += double{a[i]} * b[i];
            squares += double{a[i]} * a[i];
        }
        EXPECT_NEAR(dotProduct(a.data(), b.data(), n), dot, 1e-5 * n) << n;
        EXPECT_NEAR(sumOfSquares(a.data(), n), squares, 1e-5 * n) << n;
    }
}

TEST(CosineSimilarity, FusedKernelIsBitEqualAndReadsUnalignedVectors) {
    const std::vector<float> a = randomVector(99, 4), b = randomVector(99, 5);
    // SQLite hands blobs over at any address: copy b one byte off alignment.
    std::vector<char> bytes(b.size() * sizeof(float) + 1);
    std::memcpy(bytes.data() + 1, b.data(), b.size() * sizeof(float));
    const auto* unaligned = reinterpret_cast<const float*>(bytes.data() + 1);
    for (std::size_t n = 0; n <= b.size(); n += 7) {
        float dot = 0, squares = 0;
        dotAndSquares(a.data(), unaligned, n, dot, squares);
        EXPECT_EQ(dot, dotProduct(a.data(), b.data(), n)) << n;
        EXPECT_EQ(squares, sumOfSquares(b.data(), n)) << n;
    }
}

}  // namespace
}  // namespace vostra::data
