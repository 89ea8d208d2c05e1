// Picking the best-scoring rows of a full scan, shared by the vector
// backends. A pure function over the caller's vector; thread-safe.
#pragma once

#include <cstdint>
#include <vector>

namespace vostra::data {

struct ScoredRow {
    float score = 0.0f;
    int64_t row = 0;  // the backend's own handle: a slot or a SQLite rowid
};

// Leaves the `top_k` highest scores in `rows`, highest first; rows with
// equal scores come in no defined order. A `top_k` below 1 empties `rows`.
void keepBest(std::vector<ScoredRow>& rows, int32_t top_k);

}  // namespace vostra::data
