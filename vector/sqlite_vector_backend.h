// SQLiteVectorBackend: one namespace's documents in one SQLite file, the
// vectors stored as little-endian float blobs. Similarity search scans the
// whole table in this process (there is no vector index); text search uses
// LIKE. Owned by the vector service; the file outlives it.
//
// Thread-safety: one database handle per object, used only under the
// object's mutex, which every operation holds throughout. Database errors
// are printed with the "[SQLiteVector] " prefix and become false, empty or
// zero results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <string_view>
#include <vector>

#include "vector/vector_backend.h"

struct sqlite3;

namespace vostra::data {

class SQLiteVectorBackend : public IVectorBackend {
public:
    SQLiteVectorBackend();
    ~SQLiteVectorBackend() override;
    SQLiteVectorBackend(const SQLiteVectorBackend&) = delete;
    SQLiteVectorBackend& operator=(const SQLiteVectorBackend&) = delete;

    // Whether `key` may name a metadata key in a filter or a text search:
    // letters, digits, "_", "-" and "." only, at least one. Keys are bound
    // into a JSON path, so this keeps every key a plain path, never syntax.
    static bool isUsableMetadataKey(std::string_view key);
    // The (tenant, namespace) recorded in the file at `path`; nothing when
    // it cannot be read or records none.
    static std::optional<std::pair<std::string, std::string>> readOwner(const std::string& path);

    // Opens (creating if missing) the file at `path` and creates the table
    // and its indexes when absent, and records (tenant_id, namespace_id) as
    // the file's owner when none is. False, with the reason printed, when
    // the file cannot be opened, the schema cannot be executed, or the file
    // belongs to another tenant and namespace.
    bool initialize(const std::string& path, const std::string& tenant_id,
                    const std::string& namespace_id, int32_t dimension) override;
    // All documents or none, in one transaction.
    bool add(const std::vector<VectorDocument>& documents) override;
    // Filter keys failing isUsableMetadataKey give an empty result and a
    // printed error; values are compared as given, quotes and all.
    std::vector<VectorSearchResult> search(
        const std::vector<float>& query_embedding, int32_t top_k, float min_score,
        const std::map<std::string, std::string>& filter) override;
    std::optional<VectorDocument> get(const std::string& id) override;
    bool remove(const std::vector<std::string>& ids) override;
    std::size_t removeBySource(const std::string& source) override;
    std::size_t count() override;
    std::vector<std::string> listSources() override;
    // Up to `limit` documents (all for a negative limit) whose content or metadata text
    // contains `query`, ASCII case ignored; with a `field`, only that
    // metadata value is searched. "%" and "_" in `query` are wildcards.
    // Results carry score 1 and no vector.
    std::vector<VectorSearchResult> textSearch(const std::string& query, int32_t limit,
                                               const std::string& field) override;
    void clear() override;
    // Each add and remove commits its own transaction; nothing is pending.
    void flush() override {}

private:
    // Records the owner of a new file, or checks that of an old one.
    bool claim(const std::string& tenant_id, const std::string& namespace_id);
    // Runs a statement without results; prints `what` and the message on failure.
    bool execute(const char* sql, const char* what);
    std::optional<VectorDocument> fetchRow(int64_t rowid);

    mutable std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

}  // namespace vostra::data
