// MemoryVectorBackend: one namespace's documents in process memory, gone
// when the backend is destroyed. Vectors sit side by side in one float
// array with their norms computed at insertion, so a search is one
// streaming pass, split over up to `search_threads` threads when the
// namespace is large. Owned by the vector service.
//
// Thread-safety: every operation holds the backend's mutex for its whole
// duration; searches of one namespace are serialised. Operations keep the
// promises of IVectorBackend; only those that never fail are noted here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vector/vector_backend.h"

namespace vostra::data {

class MemoryVectorBackend : public IVectorBackend {
public:
    // `search_threads` below 1 means 1; more than the machine's cores are
    // not used.
    explicit MemoryVectorBackend(int32_t search_threads = 1);
    MemoryVectorBackend(const MemoryVectorBackend&) = delete;
    MemoryVectorBackend& operator=(const MemoryVectorBackend&) = delete;

    // Keeps nothing on disk; always true.
    bool initialize(const std::string& path, const std::string& tenant_id,
                    const std::string& namespace_id, int32_t dimension) override;
    // Always true.
    bool add(const std::vector<VectorDocument>& documents) override;
    std::vector<VectorSearchResult> search(
        const std::vector<float>& query_embedding, int32_t top_k, float min_score,
        const std::map<std::string, std::string>& filter) override;
    std::optional<VectorDocument> get(const std::string& id) override;
    // Always true.
    bool remove(const std::vector<std::string>& ids) override;
    std::size_t removeBySource(const std::string& source) override;
    std::size_t count() override;
    std::vector<std::string> listSources() override;
    void clear() override;
    void flush() override {}

private:
    // A document without its vector, and where that vector lives.
    struct Slot {
        VectorDocument document;  // embedding left empty
        std::size_t offset = 0;   // into vectors_
        std::size_t dimension = 0;
        float norm = 0.0f;  // square root of the sum of squares
    };

    void store(const VectorDocument& document);
    void eraseSlot(std::size_t slot);
    // Rewrites vectors_ without the space of replaced and removed vectors
    // once that space outweighs the live vectors.
    void compactIfWasteful();
    VectorDocument copyOut(const Slot& slot) const;
    void scoreSlots(const std::vector<float>& query, float query_norm,
                    const std::map<std::string, std::string>& filter, std::size_t begin,
                    std::size_t end, float* scores) const;
    std::size_t threadsFor(std::size_t floats) const;

    const int32_t search_threads_;
    mutable std::mutex mutex_;
    std::map<std::string, std::size_t> slot_of_;  // id -> index into slots_
    std::vector<Slot> slots_;
    std::vector<float> vectors_;
    std::size_t wasted_ = 0;  // floats in vectors_ that no slot uses
};

}  // namespace vostra::data
