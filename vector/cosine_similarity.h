// Cosine similarity in single precision, and the float kernels under it that
// the backends use directly on their stored vectors. Every path scores
// through these kernels, so a vector scores the same whichever backend holds
// it. Pure functions; thread-safe.
#pragma once

#include <cstddef>
#include <vector>

namespace vostra::data {

// 0.0 when the lengths differ, either vector is empty or either has no
// magnitude; otherwise dot / (|a| * |b|), not clamped to [-1, 1].
float cosineSimilarity(const std::vector<float>& a, const std::vector<float>& b);

// Sums over n floats kept in 16 independent single-precision lanes, added
// pairwise at the end: results differ from a strictly sequential sum only
// in the last bits, and loads need no alignment.
float dotProduct(const float* a, const float* b, std::size_t n);
float sumOfSquares(const float* a, std::size_t n);
// dotProduct(a, b, n) and sumOfSquares(b, n) in one pass over b, bit for
// bit equal to the two separate calls.
void dotAndSquares(const float* a, const float* b, std::size_t n, float& dot, float& b_squares);

// The final step of cosineSimilarity from the square roots of the two sums
// of squares: 0.0 when either is 0.
float cosineFromNorms(float dot, float norm_a, float norm_b);

}  // namespace vostra::data
