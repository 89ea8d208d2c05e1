// IVectorBackend: where one namespace's documents live and how they are
// searched. The vector service owns one backend per tenant and namespace
// and shares it with the requests using it.
//
// Thread-safety: every implementation serialises its operations on one
// mutex of its own, so a backend may be called from any thread. Failures
// are false, empty or zero results, never exceptions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vector/vector_document.h"
#include "vector/vector_search_response.h"

namespace vostra::data {

class IVectorBackend {
public:
    virtual ~IVectorBackend() = default;

    // Prepares the backend to hold the documents of (tenant, namespace);
    // `path` is the backend's file, when it has one. False when unusable.
    virtual bool initialize(const std::string& path, const std::string& tenant_id,
                            const std::string& namespace_id, int32_t dimension) = 0;

    // Stores every document under its id, replacing any with the same id.
    virtual bool add(const std::vector<VectorDocument>& documents) = 0;

    // Documents whose metadata holds every pair of `filter` and whose cosine
    // similarity with `query_embedding` is at least `min_score`, best first,
    // at most `top_k` (none for a `top_k` below 1). Each result carries its
    // vector. A NaN score never matches.
    virtual std::vector<VectorSearchResult> search(
        const std::vector<float>& query_embedding, int32_t top_k, float min_score,
        const std::map<std::string, std::string>& filter) = 0;

    // The document with its vector, or nothing for an unknown id.
    virtual std::optional<VectorDocument> get(const std::string& id) = 0;
    // Ids that are not stored are ignored.
    virtual bool remove(const std::vector<std::string>& ids) = 0;
    // Returns how many documents had that source.
    virtual std::size_t removeBySource(const std::string& source) = 0;
    // Documents stored; 0 when the backend cannot tell.
    virtual std::size_t count() = 0;
    // Distinct sources, ascending.
    virtual std::vector<std::string> listSources() = 0;

    // Documents whose text contains `query`; only backends that can search
    // text override this, the others find nothing. `field` names a metadata
    // key to search instead of the content and metadata.
    virtual std::vector<VectorSearchResult> textSearch(const std::string& query, int32_t limit,
                                                       const std::string& field) {
        (void)query;
        (void)limit;
        (void)field;
        return {};
    }

    // Removes every document; the backend stays usable.
    virtual void clear() = 0;
    // Makes stored documents durable where the backend has storage.
    virtual void flush() = 0;
};

}  // namespace vostra::data
