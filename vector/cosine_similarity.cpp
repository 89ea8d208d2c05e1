#include "vector/cosine_similarity.h"

#include <cmath>
#include <cstring>

namespace vostra::data {
namespace {

// Four SSE-width vectors make the 16 lanes: native on every x86-64, so the
// compiler keeps them in registers instead of lowering wider types through
// memory. A full scan is bound by memory bandwidth, not by vector width.
using Lanes4 = float __attribute__((vector_size(16)));
constexpr std::size_t kLanes = 16;

inline Lanes4 load4(const float* p) {
    Lanes4 v;
    std::memcpy(&v, p, sizeof v);  // blobs read from SQLite need not be aligned
    return v;
}

inline float load1(const float* p) {
    float v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Four named vectors rather than an array: the compiler keeps them in
// registers without relying on loop unrolling.
struct Accumulator {
    Lanes4 p0 = {}, p1 = {}, p2 = {}, p3 = {};

    void spill(float (&out)[kLanes]) const {
        std::memcpy(out, &p0, sizeof p0);
        std::memcpy(out + 4, &p1, sizeof p1);
        std::memcpy(out + 8, &p2, sizeof p2);
        std::memcpy(out + 12, &p3, sizeof p3);
    }
};

// Adds the tail into the lanes it would have met, then folds the lanes
// pairwise; the fixed order keeps every caller's result identical.
float fold(float (&lanes)[kLanes]) {
    for (std::size_t width = kLanes / 2; width > 0; width /= 2)
        for (std::size_t j = 0; j < width; ++j)
            lanes[j] += lanes[j + width];
    return lanes[0];
}

}  // namespace

float dotProduct(const float* a, const float* b, std::size_t n) {
    Accumulator acc;
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        acc.p0 += load4(a + i) * load4(b + i);
        acc.p1 += load4(a + i + 4) * load4(b + i + 4);
        acc.p2 += load4(a + i + 8) * load4(b + i + 8);
        acc.p3 += load4(a + i + 12) * load4(b + i + 12);
    }
    float lanes[kLanes];
    acc.spill(lanes);
    for (; i < n; ++i)
        lanes[i % kLanes] += load1(a + i) * load1(b + i);
    return fold(lanes);
}

float sumOfSquares(const float* a, std::size_t n) {
    Accumulator acc;
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        const Lanes4 v0 = load4(a + i), v1 = load4(a + i + 4);
        const Lanes4 v2 = load4(a + i + 8), v3 = load4(a + i + 12);
        acc.p0 += v0 * v0;
        acc.p1 += v1 * v1;
        acc.p2 += v2 * v2;
        acc.p3 += v3 * v3;
    }
    float lanes[kLanes];
    acc.spill(lanes);
    for (; i < n; ++i) {
        const float v = load1(a + i);
        lanes[i % kLanes] += v * v;
    }
    return fold(lanes);
}

void dotAndSquares(const float* a, const float* b, std::size_t n, float& dot, float& b_squares) {
    Accumulator dots;
    Accumulator squares;
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        const Lanes4 b0 = load4(b + i), b1 = load4(b + i + 4);
        const Lanes4 b2 = load4(b + i + 8), b3 = load4(b + i + 12);
        dots.p0 += load4(a + i) * b0;
        dots.p1 += load4(a + i + 4) * b1;
        dots.p2 += load4(a + i + 8) * b2;
        dots.p3 += load4(a + i + 12) * b3;
        squares.p0 += b0 * b0;
        squares.p1 += b1 * b1;
        squares.p2 += b2 * b2;
        squares.p3 += b3 * b3;
    }
    float dot_lanes[kLanes];
    float square_lanes[kLanes];
    dots.spill(dot_lanes);
    squares.spill(square_lanes);
    for (; i < n; ++i) {
        const float vb = load1(b + i);
        dot_lanes[i % kLanes] += load1(a + i) * vb;
        square_lanes[i % kLanes] += vb * vb;
    }
    dot = fold(dot_lanes);
    b_squares = fold(square_lanes);
}

float cosineFromNorms(float dot, float norm_a, float norm_b) {
    if (norm_a == 0.0f || norm_b == 0.0f) return 0.0f;
    return dot / (norm_a * norm_b);
}

float cosineSimilarity(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size() || a.empty()) return 0.0f;
    float dot = 0.0f;
    float b_squares = 0.0f;
    dotAndSquares(a.data(), b.data(), a.size(), dot, b_squares);
    const float a_squares = sumOfSquares(a.data(), a.size());
    return cosineFromNorms(dot, std::sqrt(a_squares), std::sqrt(b_squares));
}

}  // namespace vostra::data
