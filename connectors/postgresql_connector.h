// DataConnector for PostgreSQL servers, on libpq. Owns its libpq connection;
// closing happens in disconnect() or the destructor.
#pragma once

#include <string>
#include <vector>

#include "connectors/data_connector.h"
#include "connectors/statement_cache.h"

struct pg_conn;

namespace vostra::data {

class PostgreSQLConnector : public DataConnector {
public:
    PostgreSQLConnector() = default;
    ~PostgreSQLConnector() override;

    ConnectorType getType() const override { return ConnectorType::PostgreSQL; }
    std::string getName() const override { return "PostgreSQL"; }

    // Opens buildConnectionInfo(config) (port 5432 when none is given) and
    // sets the search path to config.schema when one is set. False with
    // libpq's message in getLastError() when the server cannot be reached or
    // refuses; no handle is kept then.
    bool connect(const DataSourceConfig& config) override;
    void disconnect() override;
    // True while the connection reports itself good.
    bool isConnected() const override;
    // Resets a broken connection in place instead of querying it; the next
    // caller then finds it working again.
    bool validate() override;

    // Without parameters the text goes as is and may hold several
    // statements, and the answer is the last one's; with parameters (bound
    // as text to $1, $2, …) only one. affected_rows is the server's count
    // for commands, 0 for queries; last_insert_id stays 0 (use RETURNING).
    // A statement the server stops after pool_config.statement_timeout_ms
    // fails with statementTimedOut(); COPY to or from the client is refused
    // and ended, so the connection stays usable.
    QueryResult query(const std::string& sql, const std::vector<std::string>& params) override;
    QueryResult execute(const std::string& sql, const std::vector<std::string>& params) override;

    // Catalog of config.schema, or of "public" when none is set.
    SchemaInfo getSchema() override;
    std::vector<std::string> getTables() override;
    std::vector<ColumnInfo> getColumns(const std::string& table) override;

    // PQescapeLiteral while connected (empty if that fails), else single
    // quotes doubled.
    std::string escape(const std::string& text) override;

    bool beginTransaction() override;
    bool commit() override;
    bool rollback() override;
    // By PQtransactionStatus, so a BEGIN sent as a statement counts too; a
    // failed transaction is still open until rolled back.
    bool inTransaction() const override;
    bool rollbackOpenTransaction() override;

    // The text handed to libpq: the keywords of getConnectionString() with
    // their values quoted, so empty values and spaces survive; a
    // connect_timeout of connection_timeout_ms in whole seconds (at least 1);
    // for use_ssl, sslmode=require with ssl_cert_path as root certificate;
    // a statement_timeout_ms above 0 as the session's statement_timeout.
    static std::string buildConnectionInfo(const DataSourceConfig& config);

private:
    QueryResult run(const std::string& sql, const std::vector<std::string>& params);
    QueryResult runOnce(const std::string& sql, const std::vector<std::string>& params, bool& prepared_gone);
    // Sends a statement with parameters, prepared on first use (see
    // StatementCache); falls back to an unprepared send when preparing fails.
    int sendWithParams(const std::string& sql, const std::vector<const char*>& values, bool& used_prepared);
    // fail() for a statement whose rows, if any came, belong to no answer.
    QueryResult& failWithoutRows(QueryResult& result, std::string message);
    std::string effectiveSchema() const;

    pg_conn* conn_ = nullptr;
    bool in_transaction_ = false;
    StatementCache statements_;
};

}  // namespace vostra::data
