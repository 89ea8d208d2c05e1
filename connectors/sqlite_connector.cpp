#include "connectors/sqlite_connector.h"

#include <sqlite3.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "connectors/sql_literal.h"

namespace vostra::data {
namespace {

constexpr int kBusyTimeoutMs = 5000;
constexpr std::size_t kPreparedStatements = 16;
// Longer texts are one-off statements; caching them would only pin memory
// that clients choose the size of.
constexpr std::size_t kMaxCachedSqlBytes = 4096;

// Virtual machine steps between two looks at the clock: often enough to stop
// within a millisecond or so, rarely enough to cost nothing measurable.
constexpr int kStepsPerDeadlineCheck = 1000;

// Valid until the statement steps again.
std::string_view columnText(sqlite3_stmt* statement, int column) {
    const unsigned char* text = sqlite3_column_text(statement, column);
    if (text == nullptr) return {};  // SQL NULL
    return std::string_view(reinterpret_cast<const char*>(text),
                            static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

}  // namespace

SQLiteConnector::~SQLiteConnector() {
    disconnect();
}

bool SQLiteConnector::connect(const DataSourceConfig& config) {
    if (db_ != nullptr) disconnect();
    config_ = config;
    const std::string file = config.path.empty() ? ":memory:" : config.path;
    int flags = config.access_mode == AccessMode::ReadWrite
                          ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                          : SQLITE_OPEN_READONLY;
    // A connector serves one caller at a time (the pool sees to that), so
    // SQLite's own per-connection locking is pure cost.
    flags |= SQLITE_OPEN_NOMUTEX;
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(file.c_str(), &handle, flags, nullptr) != SQLITE_OK) {
        // The handle exists even when opening fails and carries the message.
        last_error_ = handle != nullptr ? sqlite3_errmsg(handle) : "out of memory";
        sqlite3_close(handle);
        return false;
    }
    db_ = handle;
    sqlite3_exec(db_, "PRAGMA foreign_keys = ON", nullptr, nullptr, nullptr);
    // Pooled connections to one file take turns writing; without a wait the
    // loser of a race fails at once with "database is locked".
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    if (config.pool_config.statement_timeout_ms > 0) {
        sqlite3_progress_handler(
            db_, kStepsPerDeadlineCheck,
            [](void* self) -> int {
                auto* connector = static_cast<SQLiteConnector*>(self);
                if (std::chrono::steady_clock::now() < connector->deadline_) return 0;
                connector->timed_out_ = true;
                return 1;  // interrupts the statement
            },
            this);
    }
    return true;
}

void SQLiteConnector::disconnect() {
    if (db_ == nullptr) return;
    if (in_transaction_) rollback();
    finalizeCached();  // a handle with live statements refuses to close
    sqlite3_close(db_);
    db_ = nullptr;
}

bool SQLiteConnector::validate() {
    if (db_ == nullptr) return false;
    return query("SELECT 1", {}).success;
}

QueryResult SQLiteConnector::query(const std::string& sql, const std::vector<std::string>& params) {
    return run(sql, params);
}

QueryResult SQLiteConnector::execute(const std::string& sql,
                                     const std::vector<std::string>& params) {
    return run(sql, params);
}

QueryResult SQLiteConnector::run(const std::string& sql, const std::vector<std::string>& params) {
    const auto start = std::chrono::steady_clock::now();
    QueryResult result;
    if (db_ == nullptr) return fail(result, kNotConnected);

    const int32_t limit = config_.pool_config.statement_timeout_ms;
    // Armed for this statement only: the connector's own statements (the
    // rollback on return) must not meet a deadline long past.
    struct Deadline {
        SQLiteConnector* self;
        ~Deadline() { self->deadline_ = std::chrono::steady_clock::time_point::max(); }
    } disarm{this};
    if (limit > 0) {
        deadline_ = start + std::chrono::milliseconds(limit);
        timed_out_ = false;
    }

    sqlite3_stmt* raw = takeCached(sql);
    if (raw == nullptr) {
        // Whatever follows the first statement is ignored on purpose: one call,
        // one statement, so parameters cannot leak into a second one.
        if (sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr) !=
            SQLITE_OK) {
            sqlite3_finalize(raw);
            return fail(result, sqlite3_errmsg(db_));
        }
        if (raw == nullptr) {
            // Only whitespace or comments: nothing to run, as sqlite3_exec sees it.
            result.affected_rows = sqlite3_changes(db_);
            result.last_insert_id = sqlite3_last_insert_rowid(db_);
            succeed(result, start);
            return result;
        }
    }
    // Back to the cache on every way out, reset so it holds no locks.
    struct Keeper {
        SQLiteConnector* self;
        const std::string& sql;
        sqlite3_stmt* statement;
        ~Keeper() { self->keepPrepared(sql, statement); }
    } keeper{this, sql, raw};

    for (std::size_t i = 0; i < params.size(); ++i) {
        if (sqlite3_bind_text(raw, static_cast<int>(i + 1), params[i].c_str(),
                              static_cast<int>(params[i].size()), SQLITE_TRANSIENT) != SQLITE_OK) {
            return fail(result, sqlite3_errmsg(db_));
        }
    }

    // Names are read after the first step: a reused statement is prepared
    // again inside that step when the schema changed, and only then do its
    // columns match the tables as they are now.
    int step = sqlite3_step(raw);
    const int column_count = sqlite3_column_count(raw);
    for (int c = 0; c < column_count; ++c) {
        const char* name = sqlite3_column_name(raw, c);
        result.columns.emplace_back(name != nullptr ? name : "");
    }
    result.rows.setColumns(result.columns);
    for (; step == SQLITE_ROW; step = sqlite3_step(raw))
        result.rows.add([raw](int c) { return columnText(raw, c); });
    if (step != SQLITE_DONE) {
        // Rows read before the failure stay in the result.
        if (limit > 0 && timed_out_ && step == SQLITE_INTERRUPT)
            return fail(result, statementTimedOut(limit));
        return fail(result, sqlite3_errmsg(db_));
    }

    // Taken after every statement, SELECT included, where it repeats the
    // connection's last modification count; callers depend on that.
    result.affected_rows = sqlite3_changes(db_);
    result.last_insert_id = sqlite3_last_insert_rowid(db_);
    succeed(result, start);
    return result;
}

sqlite3_stmt* SQLiteConnector::takeCached(const std::string& sql) {
    for (auto it = prepared_.rbegin(); it != prepared_.rend(); ++it) {
        if (it->first != sql) continue;
        sqlite3_stmt* statement = it->second;
        prepared_.erase(std::next(it).base());
        return statement;
    }
    return nullptr;
}

void SQLiteConnector::keepPrepared(const std::string& sql, sqlite3_stmt* statement) noexcept {
    if (sql.size() > kMaxCachedSqlBytes) {
        sqlite3_finalize(statement);
        return;
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    if (prepared_.size() >= kPreparedStatements) {
        sqlite3_finalize(prepared_.front().second);
        prepared_.erase(prepared_.begin());
    }
    try {
        prepared_.emplace_back(sql, statement);
    } catch (...) {
        sqlite3_finalize(statement);  // out of memory: simply not cached
    }
}

void SQLiteConnector::finalizeCached() {
    for (auto& entry : prepared_) sqlite3_finalize(entry.second);
    prepared_.clear();
}

bool SQLiteConnector::inTransaction() const {
    return db_ != nullptr && sqlite3_get_autocommit(db_) == 0;
}

bool SQLiteConnector::rollbackOpenTransaction() {
    in_transaction_ = false;
    if (!inTransaction()) return true;
    // Cached statements are reset after every run, so none holds the
    // transaction up.
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    return !inTransaction();
}

std::vector<std::string> SQLiteConnector::getTables() {
    std::vector<std::string> tables;
    const QueryResult result =
        query("SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE 'sqlite_%'", {});
    for (const auto& row : result.rows)
        tables.push_back(row["name"]);
    return tables;
}

std::vector<ColumnInfo> SQLiteConnector::getColumns(const std::string& table) {
    std::vector<ColumnInfo> columns;
    const QueryResult result = query("PRAGMA table_info(" + escape(table) + ")", {});
    for (const auto& row : result.rows) {
        ColumnInfo column;
        column.name = row["name"];
        column.type = row["type"];
        column.nullable = row.view("notnull") == "0";
        column.primary_key = row.view("pk") != "0";
        column.default_value = row["dflt_value"];
        column.ordinal_position = std::stoi(row["cid"]);
        columns.push_back(std::move(column));
    }
    return columns;
}

SchemaInfo SQLiteConnector::getSchema() {
    SchemaInfo schema;
    schema.source_id = config_.id;
    for (const std::string& name : getTables()) {
        schema.tables.push_back({name, "", "TABLE", getColumns(name)});
    }
    return schema;
}

std::string SQLiteConnector::escape(const std::string& text) {
    return quoteSqlLiteral(text);
}

bool SQLiteConnector::beginTransaction() {
    if (db_ == nullptr || in_transaction_) return false;
    const bool ok = execute("BEGIN TRANSACTION", {}).success;
    if (ok) in_transaction_ = true;
    return ok;
}

bool SQLiteConnector::commit() {
    if (db_ == nullptr || !in_transaction_) return false;
    const bool ok = execute("COMMIT", {}).success;
    if (ok) in_transaction_ = false;
    return ok;
}

bool SQLiteConnector::rollback() {
    if (db_ == nullptr || !in_transaction_) return false;
    const bool ok = execute("ROLLBACK", {}).success;
    in_transaction_ = false;
    return ok;
}

}  // namespace vostra::data
