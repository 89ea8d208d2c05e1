#include "connectors/agent_storage.h"

#include <sqlite3.h>

#include <cstdlib>

#include "common/log.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS agents (
    id TEXT PRIMARY KEY,
    name TEXT NOT NULL,
    version TEXT NOT NULL DEFAULT '1.0.0',
    description TEXT,
    system_prompt TEXT NOT NULL,
    allowed_tools TEXT,
    icon TEXT,
    color TEXT,
    temperature REAL DEFAULT -1.0,
    role TEXT DEFAULT 'core',
    category TEXT,
    tags TEXT,
    scope TEXT DEFAULT 'builtin',
    created_by TEXT DEFAULT 'system',
    created_at TEXT DEFAULT (datetime('now')),
    updated_at TEXT DEFAULT (datetime('now')),
    UNIQUE(name, version)
);
CREATE INDEX IF NOT EXISTS idx_agents_scope ON agents(scope);
CREATE INDEX IF NOT EXISTS idx_agents_category ON agents(category);
CREATE INDEX IF NOT EXISTS idx_agents_updated ON agents(updated_at);
)sql";

// Prepares `sql` with every parameter bound as text; nullptr when it does not prepare.
sqlite3_stmt* prepareBound(sqlite3* db, const std::string& sql,
                           const std::vector<std::string>& params) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        sqlite3_finalize(statement);
        return nullptr;
    }
    for (std::size_t i = 0; i < params.size(); ++i)
        sqlite3_bind_text(statement, static_cast<int>(i + 1), params[i].c_str(),
                          static_cast<int>(params[i].size()), SQLITE_TRANSIENT);
    return statement;
}

}  // namespace

AgentStorage::~AgentStorage() {
    std::lock_guard lock(mutex_);
    if (db_) sqlite3_close(db_);
}

std::string AgentStorage::defaultPath() {
    const char* home = std::getenv("HOME");
    return std::string(home ? home : "/tmp") + "/.config/vostra/agent_store.db";
}

bool AgentStorage::open(const std::string& path) {
    std::lock_guard lock(mutex_);
    if (db_) return true;
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        kLog.error("Failed to open agent storage: ", path);
        sqlite3_close(db_);
        db_ = nullptr;
        return false;
    }
    sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db_, "PRAGMA foreign_keys=ON", nullptr, nullptr, nullptr);
    char* message = nullptr;
    if (sqlite3_exec(db_, kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
        kLog.error("Agent storage schema error: ", message ? message : "unknown");
        sqlite3_free(message);
    } else {
        kLog.info("Agent storage initialized: ", path);
    }
    return true;
}

bool AgentStorage::isOpen() const {
    std::lock_guard lock(mutex_);
    return db_ != nullptr;
}

std::vector<AgentStorage::Row> AgentStorage::query(const std::string& sql,
                                                   const std::vector<std::string>& params) {
    std::lock_guard lock(mutex_);
    std::vector<Row> rows;
    if (!db_) return rows;
    sqlite3_stmt* statement = prepareBound(db_, sql, params);
    if (!statement) return rows;
    const int columns = sqlite3_column_count(statement);
    while (sqlite3_step(statement) == SQLITE_ROW) {
        Row row;
        for (int c = 0; c < columns; ++c) {
            const char* name = sqlite3_column_name(statement, c);
            const auto* text = sqlite3_column_text(statement, c);
            row[name ? name : ""] = text ? reinterpret_cast<const char*>(text) : "";
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    return rows;
}

bool AgentStorage::execute(const std::string& sql, const std::vector<std::string>& params) {
    std::lock_guard lock(mutex_);
    if (!db_) return false;
    sqlite3_stmt* statement = prepareBound(db_, sql, params);
    if (!statement) {
        kLog.error("Agent SQL prepare error: ", sqlite3_errmsg(db_));
        return false;
    }
    const bool done = sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_finalize(statement);
    return done;
}

}  // namespace vostra::data
