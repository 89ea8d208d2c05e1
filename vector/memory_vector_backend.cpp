#include "vector/memory_vector_backend.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <system_error>
#include <thread>

#include "vector/cosine_similarity.h"
#include "vector/score_ranking.h"

namespace vostra::data {
namespace {

// Below about a million floats (4 MB) a scan takes a millisecond or two,
// less than starting threads would save.
constexpr std::size_t kFloatsPerThread = std::size_t{1} << 20;
// A filtered-out slot scores NaN, which no threshold admits.
constexpr float kExcluded = std::numeric_limits<float>::quiet_NaN();

bool matchesFilter(const std::map<std::string, std::string>& metadata,
                   const std::map<std::string, std::string>& filter) {
    for (const auto& [key, value] : filter) {
        auto it = metadata.find(key);
        if (it == metadata.end() || it->second != value) return false;
    }
    return true;
}

}  // namespace

MemoryVectorBackend::MemoryVectorBackend(int32_t search_threads)
    : search_threads_(std::max<int32_t>(1, search_threads)) {}

bool MemoryVectorBackend::initialize(const std::string&, const std::string&, const std::string&,
                                     int32_t) {
    return true;
}

bool MemoryVectorBackend::add(const std::vector<VectorDocument>& documents) {
    std::lock_guard lock(mutex_);
    for (const VectorDocument& document : documents)
        store(document);
    compactIfWasteful();
    return true;
}

void MemoryVectorBackend::store(const VectorDocument& document) {
    const std::vector<float>& vector = document.embedding;
    auto [it, inserted] = slot_of_.try_emplace(document.id, slots_.size());
    if (inserted) slots_.emplace_back();
    Slot& slot = slots_[it->second];

    // A replacement of the same length is written in place; any other is
    // appended and its old space counted as waste.
    if (inserted || slot.dimension != vector.size()) {
        if (!inserted) wasted_ += slot.dimension;
        slot.offset = vectors_.size();
        vectors_.insert(vectors_.end(), vector.begin(), vector.end());
    } else {
        std::copy(vector.begin(), vector.end(), vectors_.begin() + slot.offset);
    }
    slot.dimension = vector.size();
    slot.norm = std::sqrt(sumOfSquares(vector.data(), vector.size()));
    slot.document = document;
    slot.document.embedding.clear();
    slot.document.embedding.shrink_to_fit();
}

void MemoryVectorBackend::eraseSlot(std::size_t index) {
    wasted_ += slots_[index].dimension;
    const std::size_t last = slots_.size() - 1;
    if (index != last) {
        slots_[index] = std::move(slots_[last]);
        slot_of_[slots_[index].document.id] = index;
    }
    slots_.pop_back();
}

void MemoryVectorBackend::compactIfWasteful() {
    if (wasted_ == 0 || wasted_ < vectors_.size() / 2) return;
    std::vector<float> packed;
    packed.reserve(vectors_.size() - wasted_);
    for (Slot& slot : slots_) {
        const auto begin = vectors_.begin() + static_cast<std::ptrdiff_t>(slot.offset);
        slot.offset = packed.size();
        packed.insert(packed.end(), begin, begin + static_cast<std::ptrdiff_t>(slot.dimension));
    }
    vectors_ = std::move(packed);
    wasted_ = 0;
}

VectorDocument MemoryVectorBackend::copyOut(const Slot& slot) const {
    VectorDocument document = slot.document;
    const auto begin = vectors_.begin() + static_cast<std::ptrdiff_t>(slot.offset);
    document.embedding.assign(begin, begin + static_cast<std::ptrdiff_t>(slot.dimension));
    return document;
}

void MemoryVectorBackend::scoreSlots(const std::vector<float>& query, float query_norm,
                                     const std::map<std::string, std::string>& filter,
                                     std::size_t begin, std::size_t end, float* scores) const {
    for (std::size_t i = begin; i < end; ++i) {
        const Slot& slot = slots_[i];
        if (!filter.empty() && !matchesFilter(slot.document.metadata, filter)) {
            scores[i] = kExcluded;
        } else if (slot.dimension != query.size() || query.empty()) {
            scores[i] = 0.0f;  // as cosineSimilarity scores vectors of different length
        } else {
            const float dot = dotProduct(query.data(), vectors_.data() + slot.offset, query.size());
            scores[i] = cosineFromNorms(dot, query_norm, slot.norm);
        }
    }
}

std::size_t MemoryVectorBackend::threadsFor(std::size_t floats) const {
    const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t useful = std::max<std::size_t>(1, floats / kFloatsPerThread);
    return std::min({static_cast<std::size_t>(search_threads_), cores, useful});
}

std::vector<VectorSearchResult> MemoryVectorBackend::search(
    const std::vector<float>& query_embedding, int32_t top_k, float min_score,
    const std::map<std::string, std::string>& filter) {
    std::lock_guard lock(mutex_);
    if (slots_.empty() || top_k < 1) return {};

    const float query_norm =
        std::sqrt(sumOfSquares(query_embedding.data(), query_embedding.size()));
    std::vector<float> scores(slots_.size());
    const std::size_t threads = threadsFor(vectors_.size() - wasted_);
    const std::size_t share = (slots_.size() + threads - 1) / threads;
    std::vector<std::thread> helpers;
    std::size_t done_here = 0;  // slots this thread must score itself
    for (std::size_t t = 1; t < threads; ++t) {
        const std::size_t begin = t * share;
        const std::size_t end = std::min(slots_.size(), begin + share);
        if (begin >= end) break;
        try {
            helpers.emplace_back([&, begin, end] {
                scoreSlots(query_embedding, query_norm, filter, begin, end, scores.data());
            });
        } catch (const std::system_error&) {
            // No thread to be had: score the rest here.
            done_here = begin;
            break;
        }
    }
    scoreSlots(query_embedding, query_norm, filter, 0, std::min(share, slots_.size()),
               scores.data());
    if (done_here > 0)
        scoreSlots(query_embedding, query_norm, filter, done_here, slots_.size(), scores.data());
    for (std::thread& helper : helpers)
        helper.join();

    std::vector<ScoredRow> kept;
    for (std::size_t i = 0; i < slots_.size(); ++i)
        if (scores[i] >= min_score) kept.push_back({scores[i], static_cast<int64_t>(i)});
    keepBest(kept, top_k);

    std::vector<VectorSearchResult> results;
    results.reserve(kept.size());
    for (const ScoredRow& row : kept)
        results.push_back(
            {copyOut(slots_[static_cast<std::size_t>(row.row)]), row.score, 1.0f - row.score});
    return results;
}

std::optional<VectorDocument> MemoryVectorBackend::get(const std::string& id) {
    std::lock_guard lock(mutex_);
    auto it = slot_of_.find(id);
    if (it == slot_of_.end()) return std::nullopt;
    return copyOut(slots_[it->second]);
}

bool MemoryVectorBackend::remove(const std::vector<std::string>& ids) {
    std::lock_guard lock(mutex_);
    for (const std::string& id : ids) {
        auto it = slot_of_.find(id);
        if (it == slot_of_.end()) continue;
        const std::size_t index = it->second;
        slot_of_.erase(it);
        eraseSlot(index);
    }
    compactIfWasteful();
    return true;
}

std::size_t MemoryVectorBackend::removeBySource(const std::string& source) {
    std::lock_guard lock(mutex_);
    std::size_t removed = 0;
    for (std::size_t i = slots_.size(); i-- > 0;) {
        if (slots_[i].document.source != source) continue;
        slot_of_.erase(slots_[i].document.id);
        eraseSlot(i);  // moves the last slot, already visited, into i
        ++removed;
    }
    compactIfWasteful();
    return removed;
}

std::size_t MemoryVectorBackend::count() {
    std::lock_guard lock(mutex_);
    return slots_.size();
}

std::vector<std::string> MemoryVectorBackend::listSources() {
    std::lock_guard lock(mutex_);
    std::set<std::string> sources;
    for (const Slot& slot : slots_)
        sources.insert(slot.document.source);
    return {sources.begin(), sources.end()};
}

void MemoryVectorBackend::clear() {
    std::lock_guard lock(mutex_);
    slot_of_.clear();
    slots_.clear();
    vectors_.clear();
    vectors_.shrink_to_fit();
    wasted_ = 0;
}

}  // namespace vostra::data
