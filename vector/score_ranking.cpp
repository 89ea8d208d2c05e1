#include "vector/score_ranking.h"

#include <algorithm>

namespace vostra::data {

void keepBest(std::vector<ScoredRow>& rows, int32_t top_k) {
    if (top_k < 1) {
        rows.clear();
        return;
    }
    const auto higher = [](const ScoredRow& a, const ScoredRow& b) { return a.score > b.score; };
    const std::size_t keep = std::min(rows.size(), static_cast<std::size_t>(top_k));
    // A partial sort costs n log k: a top-10 over a large scan stays linear.
    std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(keep), rows.end(),
                      higher);
    rows.resize(keep);
}

}  // namespace vostra::data
