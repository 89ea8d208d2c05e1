// DataConnector for SQLite files and in-memory databases, on the sqlite3 C
// interface. The factory's fallback for unknown type names. Owns its database
// handle; closing happens in disconnect() or the destructor.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "connectors/data_connector.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vostra::data {

class SQLiteConnector : public DataConnector {
public:
    SQLiteConnector() = default;
    ~SQLiteConnector() override;

    ConnectorType getType() const override { return ConnectorType::SQLite; }
    std::string getName() const override { return "SQLite"; }

    // Opens `config.path` (":memory:" when empty, a fresh database each time)
    // read-write-create for ReadWrite sources and read-only otherwise, so a
    // read-only source whose file is missing fails with SQLite's message.
    // Foreign keys are switched on.
    bool connect(const DataSourceConfig& config) override;
    void disconnect() override;
    bool isConnected() const override { return db_ != nullptr; }
    bool validate() override;

    // query and execute are one routine: only the first statement of `sql`
    // runs; more parameters than placeholders fail with SQLite's range error
    // and nothing runs. affected_rows is sqlite3_changes after every
    // statement, so after a SELECT it repeats the last modification's count.
    // A statement still running after pool_config.statement_timeout_ms is
    // interrupted and fails with statementTimedOut() (time spent waiting for
    // another connection's lock is not cut short).
    QueryResult query(const std::string& sql, const std::vector<std::string>& params) override;
    QueryResult execute(const std::string& sql, const std::vector<std::string>& params) override;

    // Tables in sqlite_master order, without views or SQLite's own tables.
    SchemaInfo getSchema() override;
    std::vector<std::string> getTables() override;
    // PRAGMA table_info with the name escaped, so any table name works.
    // Throws std::out_of_range only for a column number beyond 32 bits.
    std::vector<ColumnInfo> getColumns(const std::string& table) override;

    std::string escape(const std::string& text) override;

    // A failed COMMIT keeps the transaction open for a ROLLBACK; a ROLLBACK
    // ends it whatever its outcome.
    bool beginTransaction() override;
    bool commit() override;
    bool rollback() override;
    // By sqlite3_get_autocommit, so a BEGIN sent as a statement counts too.
    bool inTransaction() const override;
    bool rollbackOpenTransaction() override;

private:
    QueryResult run(const std::string& sql, const std::vector<std::string>& params);
    // A prepared statement for `sql` taken out of the cache, or nullptr.
    sqlite3_stmt* takeCached(const std::string& sql);
    // Resets `statement` and keeps it for the next run of the same text.
    void keepPrepared(const std::string& sql, sqlite3_stmt* statement) noexcept;
    void finalizeCached();

    sqlite3* db_ = nullptr;
    bool in_transaction_ = false;
    // When the running statement must stop; read by the progress handler,
    // which connect() installs only for sources with a statement limit.
    std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::time_point::max();
    bool timed_out_ = false;  // the handler stopped the last statement
    // Recently run statements, prepared once and reused: a pooled connection
    // runs the same few texts (look-ups, validation) over and over, and
    // preparing costs as much as the look-up itself. Most recent last.
    std::vector<std::pair<std::string, sqlite3_stmt*>> prepared_;
};

}  // namespace vostra::data
