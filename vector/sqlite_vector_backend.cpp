#include "vector/sqlite_vector_backend.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "vector/cosine_similarity.h"
#include "vector/score_ranking.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[SQLiteVector] ");

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS vectors ("
    " id TEXT PRIMARY KEY, content TEXT, source TEXT, namespace_id TEXT, metadata TEXT,"
    " embedding BLOB, created_at INTEGER, updated_at INTEGER, chunk_index INTEGER,"
    " total_chunks INTEGER );"
    " CREATE INDEX IF NOT EXISTS idx_source ON vectors(source);"
    " CREATE INDEX IF NOT EXISTS idx_namespace ON vectors(namespace_id);"
    " CREATE INDEX IF NOT EXISTS idx_created ON vectors(created_at);"
    // Whose namespace this file is: ids joined into a file name can collide
    // ("a_b"/"c" and "a"/"b_c"), and the file must never serve the other.
    " CREATE TABLE IF NOT EXISTS owner (tenant_id TEXT NOT NULL, namespace_id TEXT NOT NULL);";

// Whole statements rather than pieces joined at run time: the column order
// is what readDocument expects.
constexpr const char* kSelectById =
    "SELECT id, content, source, namespace_id, metadata, embedding, created_at, updated_at,"
    " chunk_index, total_chunks FROM vectors WHERE id = ?";
constexpr const char* kSelectByRowid =
    "SELECT id, content, source, namespace_id, metadata, embedding, created_at, updated_at,"
    " chunk_index, total_chunks FROM vectors WHERE rowid = ?";
constexpr const char* kTextSearchAnywhere =
    "SELECT id, content, source, namespace_id, metadata, created_at, updated_at, chunk_index,"
    " total_chunks FROM vectors"
    " WHERE (metadata LIKE ? COLLATE NOCASE OR content LIKE ? COLLATE NOCASE) LIMIT ?";
constexpr const char* kTextSearchField =
    "SELECT id, content, source, namespace_id, metadata, created_at, updated_at, chunk_index,"
    " total_chunks FROM vectors WHERE json_extract(metadata, ?) LIKE ? COLLATE NOCASE LIMIT ?";

// A prepared statement, finalised when it goes out of scope.
class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) {
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) {
            sqlite3_finalize(statement_);
            statement_ = nullptr;
        }
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    explicit operator bool() const { return statement_ != nullptr; }
    sqlite3_stmt* get() const { return statement_; }

    void bindText(int index, const std::string& text) {
        sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    }

private:
    sqlite3_stmt* statement_ = nullptr;
};

std::string columnText(sqlite3_stmt* statement, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    if (!text) return {};
    return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

std::vector<float> columnFloats(sqlite3_stmt* statement, int column) {
    const void* blob = sqlite3_column_blob(statement, column);
    const std::size_t count = static_cast<std::size_t>(sqlite3_column_bytes(statement, column)) / 4;
    std::vector<float> floats(count);
    if (blob && count > 0) std::memcpy(floats.data(), blob, count * sizeof(float));
    return floats;
}

std::map<std::string, std::string> parseMetadata(const std::string& text) {
    std::map<std::string, std::string> metadata;
    const auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!parsed.is_object()) return metadata;
    for (const auto& [key, value] : parsed.items())
        if (value.is_string()) metadata[key] = value.get<std::string>();
    return metadata;
}

// Reads a row of the document statements (with the vector) or of the text
// search statements (without).
VectorDocument readDocument(sqlite3_stmt* statement, bool with_embedding) {
    VectorDocument d;
    d.id = columnText(statement, 0);
    d.content = columnText(statement, 1);
    d.source = columnText(statement, 2);
    d.namespace_id = columnText(statement, 3);
    d.metadata = parseMetadata(columnText(statement, 4));
    int next = 5;
    if (with_embedding) d.embedding = columnFloats(statement, next++);
    d.created_at = sqlite3_column_int64(statement, next++);
    d.updated_at = sqlite3_column_int64(statement, next++);
    d.chunk_index = sqlite3_column_int(statement, next++);
    d.total_chunks = sqlite3_column_int(statement, next);
    return d;
}

std::string jsonPath(const std::string& key) {
    return "$." + key;
}

}  // namespace

SQLiteVectorBackend::SQLiteVectorBackend() = default;

SQLiteVectorBackend::~SQLiteVectorBackend() {
    if (db_) sqlite3_close(db_);
}

bool SQLiteVectorBackend::isUsableMetadataKey(std::string_view key) {
    if (key.empty()) return false;
    const bool allowed = std::all_of(key.begin(), key.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-' || c == '.';
    });
    // Dots separate path labels; an empty label is no JSON path at all.
    return allowed && key.front() != '.' && key.back() != '.' &&
           key.find("..") == std::string_view::npos;
}

bool SQLiteVectorBackend::execute(const char* sql, const char* what) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
    kLog.error(what, message ? message : sqlite3_errmsg(db_));
    sqlite3_free(message);
    return false;
}

std::optional<std::pair<std::string, std::string>> SQLiteVectorBackend::readOwner(
    const std::string& path) {
    sqlite3* db = nullptr;
    std::optional<std::pair<std::string, std::string>> owner;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* select = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT tenant_id, namespace_id FROM owner LIMIT 1", -1,
                               &select, nullptr) == SQLITE_OK &&
            sqlite3_step(select) == SQLITE_ROW)
            owner.emplace(columnText(select, 0), columnText(select, 1));
        sqlite3_finalize(select);
    }
    sqlite3_close(db);
    return owner;
}

bool SQLiteVectorBackend::initialize(const std::string& path, const std::string& tenant_id,
                                     const std::string& namespace_id, int32_t) {
    std::lock_guard lock(mutex_);
    if (db_) sqlite3_close(db_);
    db_ = nullptr;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        kLog.error("Failed to open database: ", db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return false;
    }
    db_ = db;
    // Another process (a backup, the sqlite3 shell) may hold the file briefly.
    sqlite3_busy_timeout(db_, 5000);
    if (!execute(kSchema, "Failed to create table: ") || !claim(tenant_id, namespace_id)) {
        sqlite3_close(db_);
        db_ = nullptr;
        return false;
    }
    return true;
}

bool SQLiteVectorBackend::claim(const std::string& tenant_id, const std::string& namespace_id) {
    Statement select(db_, "SELECT tenant_id, namespace_id FROM owner LIMIT 1");
    if (!select) return false;
    if (sqlite3_step(select.get()) == SQLITE_ROW) {
        const std::string tenant = columnText(select.get(), 0);
        const std::string ns = columnText(select.get(), 1);
        if (tenant == tenant_id && ns == namespace_id) return true;
        kLog.error("Database file belongs to ", tenant, "/", ns, ", not ", tenant_id, "/",
                   namespace_id);
        return false;
    }
    // A file from before owners were recorded is claimed by its first opener.
    Statement insert(db_, "INSERT INTO owner (tenant_id, namespace_id) VALUES (?, ?)");
    if (!insert) return false;
    insert.bindText(1, tenant_id);
    insert.bindText(2, namespace_id);
    return sqlite3_step(insert.get()) == SQLITE_DONE;
}

bool SQLiteVectorBackend::add(const std::vector<VectorDocument>& documents) {
    std::lock_guard lock(mutex_);
    if (!db_) return false;
    if (!execute("BEGIN TRANSACTION", "Failed to begin transaction: ")) return false;
    Statement insert(db_,
                     "INSERT OR REPLACE INTO vectors (id, content, source, namespace_id, metadata,"
                     " embedding, created_at, updated_at, chunk_index, total_chunks)"
                     " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    bool ok = static_cast<bool>(insert);
    for (std::size_t i = 0; ok && i < documents.size(); ++i) {
        const VectorDocument& d = documents[i];
        sqlite3_stmt* s = insert.get();
        const std::string metadata =
            nlohmann::json(d.metadata)
                .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        insert.bindText(1, d.id);
        insert.bindText(2, d.content);
        insert.bindText(3, d.source);
        insert.bindText(4, d.namespace_id);
        insert.bindText(5, metadata);
        // The machine's own float layout, which is little-endian on every
        // platform this daemon is built for.
        sqlite3_bind_blob64(s, 6,
                            d.embedding.empty() ? "" : static_cast<const void*>(d.embedding.data()),
                            d.embedding.size() * sizeof(float), SQLITE_TRANSIENT);
        sqlite3_bind_int64(s, 7, d.created_at);
        sqlite3_bind_int64(s, 8, d.updated_at);
        sqlite3_bind_int(s, 9, d.chunk_index);
        sqlite3_bind_int(s, 10, d.total_chunks);
        ok = sqlite3_step(s) == SQLITE_DONE;
        sqlite3_reset(s);
    }
    if (!ok) {
        kLog.error("Failed to add documents: ", sqlite3_errmsg(db_));
        execute("ROLLBACK", "Failed to roll back: ");
        return false;
    }
    return execute("COMMIT", "Failed to commit: ");
}

std::vector<VectorSearchResult> SQLiteVectorBackend::search(
    const std::vector<float>& query_embedding, int32_t top_k, float min_score,
    const std::map<std::string, std::string>& filter) {
    std::lock_guard lock(mutex_);
    if (!db_ || top_k < 1) return {};

    // Only the vector is read during the scan; the few winners are fetched
    // whole afterwards, so decoding text and metadata costs nothing for the
    // rows that lose.
    std::string sql = "SELECT rowid, embedding FROM vectors WHERE 1=1";
    for (const auto& [key, value] : filter) {
        if (!isUsableMetadataKey(key)) {
            kLog.error("Invalid filter key: ", key);
            return {};
        }
        sql += " AND json_extract(metadata, ?) = ?";
    }
    Statement scan(db_, sql);
    if (!scan) {
        kLog.error("search prepare failed: ", sqlite3_errmsg(db_));
        return {};
    }
    int parameter = 1;
    for (const auto& [key, value] : filter) {
        scan.bindText(parameter++, jsonPath(key));
        scan.bindText(parameter++, value);
    }

    const std::size_t dimension = query_embedding.size();
    const float query_norm = std::sqrt(sumOfSquares(query_embedding.data(), dimension));
    std::vector<ScoredRow> kept;
    int step;
    while ((step = sqlite3_step(scan.get())) == SQLITE_ROW) {
        const auto* blob = static_cast<const float*>(sqlite3_column_blob(scan.get(), 1));
        const auto floats = static_cast<std::size_t>(sqlite3_column_bytes(scan.get(), 1)) / 4;
        float score = 0.0f;  // vectors of different length score 0, as in cosineSimilarity
        if (floats == dimension && dimension > 0 && blob) {
            float dot = 0.0f;
            float squares = 0.0f;
            dotAndSquares(query_embedding.data(), blob, dimension, dot, squares);
            score = cosineFromNorms(dot, query_norm, std::sqrt(squares));
        }
        if (score >= min_score) kept.push_back({score, sqlite3_column_int64(scan.get(), 0)});
    }
    if (step != SQLITE_DONE) kLog.error("search failed: ", sqlite3_errmsg(db_));
    keepBest(kept, top_k);

    std::vector<VectorSearchResult> results;
    results.reserve(kept.size());
    for (const ScoredRow& row : kept)
        if (auto document = fetchRow(row.row))
            results.push_back({std::move(*document), row.score, 1.0f - row.score});
    return results;
}

std::optional<VectorDocument> SQLiteVectorBackend::fetchRow(int64_t rowid) {
    Statement select(db_, kSelectByRowid);
    if (!select) return std::nullopt;
    sqlite3_bind_int64(select.get(), 1, rowid);
    if (sqlite3_step(select.get()) != SQLITE_ROW) return std::nullopt;
    return readDocument(select.get(), true);
}

std::optional<VectorDocument> SQLiteVectorBackend::get(const std::string& id) {
    std::lock_guard lock(mutex_);
    if (!db_) return std::nullopt;
    Statement select(db_, kSelectById);
    if (!select) return std::nullopt;
    select.bindText(1, id);
    if (sqlite3_step(select.get()) != SQLITE_ROW) return std::nullopt;
    return readDocument(select.get(), true);
}

bool SQLiteVectorBackend::remove(const std::vector<std::string>& ids) {
    std::lock_guard lock(mutex_);
    if (!db_) return false;
    if (!execute("BEGIN TRANSACTION", "Failed to begin transaction: ")) return false;
    Statement erase(db_, "DELETE FROM vectors WHERE id = ?");
    bool ok = static_cast<bool>(erase);
    for (std::size_t i = 0; ok && i < ids.size(); ++i) {
        erase.bindText(1, ids[i]);
        ok = sqlite3_step(erase.get()) == SQLITE_DONE;
        sqlite3_reset(erase.get());
    }
    if (!ok) {
        kLog.error("Failed to remove documents: ", sqlite3_errmsg(db_));
        execute("ROLLBACK", "Failed to roll back: ");
        return false;
    }
    return execute("COMMIT", "Failed to commit: ");
}

std::size_t SQLiteVectorBackend::removeBySource(const std::string& source) {
    std::lock_guard lock(mutex_);
    if (!db_) return 0;
    Statement erase(db_, "DELETE FROM vectors WHERE source = ?");
    if (!erase) return 0;
    erase.bindText(1, source);
    if (sqlite3_step(erase.get()) != SQLITE_DONE) {
        kLog.error("Failed to remove source: ", sqlite3_errmsg(db_));
        return 0;
    }
    return static_cast<std::size_t>(sqlite3_changes(db_));
}

std::size_t SQLiteVectorBackend::count() {
    std::lock_guard lock(mutex_);
    if (!db_) return 0;
    Statement select(db_, "SELECT COUNT(*) FROM vectors");
    if (!select || sqlite3_step(select.get()) != SQLITE_ROW) return 0;
    return static_cast<std::size_t>(sqlite3_column_int64(select.get(), 0));
}

std::vector<std::string> SQLiteVectorBackend::listSources() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> sources;
    if (!db_) return sources;
    Statement select(db_, "SELECT DISTINCT source FROM vectors");
    if (!select) return sources;
    while (sqlite3_step(select.get()) == SQLITE_ROW)
        sources.push_back(columnText(select.get(), 0));
    // DISTINCT promises no order; the interface promises ascending.
    std::sort(sources.begin(), sources.end());
    return sources;
}

std::vector<VectorSearchResult> SQLiteVectorBackend::textSearch(const std::string& query,
                                                                int32_t limit,
                                                                const std::string& field) {
    std::lock_guard lock(mutex_);
    // A negative limit is SQLite's own "no limit".
    if (!db_) return {};
    if (!field.empty() && !isUsableMetadataKey(field)) {
        kLog.error("Invalid text search field: ", field);
        return {};
    }
    const std::string pattern = "%" + query + "%";
    Statement select(db_, field.empty() ? kTextSearchAnywhere : kTextSearchField);
    if (!select) {
        kLog.error("textSearch prepare failed: ", sqlite3_errmsg(db_));
        return {};
    }
    if (field.empty()) {
        select.bindText(1, pattern);
        select.bindText(2, pattern);
    } else {
        select.bindText(1, jsonPath(field));
        select.bindText(2, pattern);
    }
    sqlite3_bind_int(select.get(), 3, limit);

    std::vector<VectorSearchResult> results;
    while (sqlite3_step(select.get()) == SQLITE_ROW)
        results.push_back({readDocument(select.get(), false), 1.0f, 0.0f});
    return results;
}

void SQLiteVectorBackend::clear() {
    std::lock_guard lock(mutex_);
    if (db_) execute("DELETE FROM vectors", "Failed to clear: ");
}

}  // namespace vostra::data
