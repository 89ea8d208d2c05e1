// The interface every database driver implements: one connection to one data
// source, statements with text parameters, catalog listings and transactions.
// Connectors are created by DataConnectorFactory and owned by whoever holds
// the unique_ptr (a ConnectionPool, or a caller that borrowed one).
//
// Thread-safety: an instance serves one caller at a time and is not locked;
// sharing is arranged by the pool. Database failures are never thrown: they
// come back as QueryResult::success == false with `error` set, as a false
// return, and as getLastError().
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "connectors/connector_type.h"
#include "connectors/data_source_config.h"
#include "connectors/query_result.h"
#include "connectors/schema_info.h"

namespace vostra::data {

// The failure text of a statement issued without an open connection.
inline constexpr const char* kNotConnected = "Not connected";

// The failure text of a statement stopped by the source's
// pool_config.statement_timeout_ms.
std::string statementTimedOut(int32_t limit_ms);

class DataConnector {
public:
    virtual ~DataConnector() = default;
    DataConnector(const DataConnector&) = delete;
    DataConnector& operator=(const DataConnector&) = delete;

    virtual ConnectorType getType() const = 0;

    // Display name of the driver ("SQLite", "PostgreSQL", "DB2 (CLI)", …).
    virtual std::string getName() const = 0;

    // Keeps a copy of `config` and opens the connection, closing any previous
    // one first. False on failure, with the driver's message in getLastError().
    virtual bool connect(const DataSourceConfig& config) = 0;

    // Rolls back an open transaction and closes the connection. Safe to call
    // when already disconnected; destructors call it.
    virtual void disconnect() = 0;

    virtual bool isConnected() const = 0;

    // A cheap round trip proving the connection still works. Some drivers
    // repair a dropped connection here; false when it stays unusable.
    virtual bool validate() = 0;

    // Runs one statement with `params` bound positionally as text. Rows come
    // back for any statement that produces them; without a connection the
    // result fails with kNotConnected. Counts success or failure in getStats().
    virtual QueryResult query(const std::string& sql, const std::vector<std::string>& params) = 0;
    virtual QueryResult execute(const std::string& sql, const std::vector<std::string>& params) = 0;

    // Catalog listings; empty when the connection is missing or the catalog
    // query fails.
    virtual SchemaInfo getSchema() = 0;
    virtual std::vector<std::string> getTables() = 0;
    virtual std::vector<ColumnInfo> getColumns(const std::string& table) = 0;

    // `text` as a complete, quoted SQL literal of this driver's dialect.
    virtual std::string escape(const std::string& text) = 0;

    // False when not connected or when the transaction state forbids the
    // call (begin inside a transaction, commit or rollback outside one).
    virtual bool beginTransaction() = 0;
    virtual bool commit() = 0;
    virtual bool rollback() = 0;

    // Whether the database holds a transaction open on this connection,
    // however it began: through beginTransaction() or a statement such as
    // BEGIN. False when not connected.
    virtual bool inTransaction() const { return false; }
    // Rolls back whatever transaction inTransaction() reports, and undoes
    // session settings that would open the next one by themselves, so the
    // next borrower starts clean. True when the connection is outside any
    // transaction afterwards, or not connected; false when it could not be
    // brought out of one and should not be lent again. Not counted as a
    // statement in getStats().
    virtual bool rollbackOpenTransaction() { return true; }

    // Text of the most recent failure; successes leave it unchanged.
    virtual std::string getLastError() const { return last_error_; }

    // {"type": getName(), "connected", "queries_executed", "queries_failed"}.
    virtual nlohmann::json getStats() const;

protected:
    DataConnector() = default;

    // Records a failed statement: `message` goes into the result and into
    // last_error_, and the failure is counted. Returns `result` for chaining.
    QueryResult& fail(QueryResult& result, std::string message);

    // Records a completed statement: success, timing from `start`, counted.
    void succeed(QueryResult& result, std::chrono::steady_clock::time_point start);

    uint64_t queries_executed_ = 0;
    uint64_t queries_failed_ = 0;
    std::string last_error_;
    DataSourceConfig config_;
};

}  // namespace vostra::data
