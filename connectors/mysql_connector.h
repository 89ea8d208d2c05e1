// DataConnector for MySQL and MariaDB servers, on the MariaDB client library.
// Parameters are not bound on the server: they are spliced into the text as
// escaped literals. Owns its client handle; closing happens in disconnect()
// or the destructor.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "connectors/data_connector.h"

struct st_mysql;

namespace vostra::data {

class MySQLConnector : public DataConnector {
public:
    MySQLConnector() = default;
    ~MySQLConnector() override;

    ConnectorType getType() const override { return ConnectorType::MySQL; }
    std::string getName() const override { return "MySQL"; }

    // Connects to host and port (3306 when none is given; "localhost" means
    // the local socket) with a connect timeout of connection_timeout_ms in
    // whole seconds, at least 1, and the utf8mb4 character set. use_ssl makes
    // TLS mandatory, with ssl_cert_path as the certificate authority. False
    // with the client's message in getLastError(); no handle is kept then.
    bool connect(const DataSourceConfig& config) override;
    void disconnect() override;
    bool isConnected() const override { return mysql_ != nullptr; }
    // Pings the server. A dropped connection is re-established by the ping
    // itself, or by one fresh connect where the library cannot reconnect.
    bool validate() override;

    // One statement, with params spliced by spliceParameters(). Values keep
    // embedded zero bytes; SQL NULL arrives as the empty string. With a
    // pool_config.statement_timeout_ms above 0 the session carries it as the
    // server's limit (max_statement_time on MariaDB; on MySQL
    // max_execution_time, which limits SELECT only), and a statement it
    // stops fails with statementTimedOut().
    QueryResult query(const std::string& sql, const std::vector<std::string>& params) override;
    QueryResult execute(const std::string& sql, const std::vector<std::string>& params) override;

    // SHOW TABLES and DESCRIBE; the table name goes into DESCRIBE unquoted,
    // so only names taken from getTables() are safe to pass.
    SchemaInfo getSchema() override;
    std::vector<std::string> getTables() override;
    std::vector<ColumnInfo> getColumns(const std::string& table) override;

    // Always a complete quoted literal: the client library's escaping while
    // connected, else backslashes and single quotes doubled.
    std::string escape(const std::string& text) override;

    bool beginTransaction() override;
    bool commit() override;
    bool rollback() override;
    // By the server's SERVER_STATUS_IN_TRANS flag, so a BEGIN sent as a
    // statement counts too.
    bool inTransaction() const override;
    // Also restores the autocommit mode the session started with.
    bool rollbackOpenTransaction() override;

    // Replaces each "?" of `sql`, left to right, by quote(param) for the next
    // parameter. Quoted "?" count as placeholders too; inserted text is never
    // searched again; surplus parameters are dropped and surplus "?" stay.
    static std::string spliceParameters(
        const std::string& sql, const std::vector<std::string>& params,
        const std::function<std::string(const std::string&)>& quote);

    // The client's connect timeout: whole seconds, truncated, never below 1.
    static unsigned int connectTimeoutSeconds(int32_t connection_timeout_ms);

private:
    QueryResult run(const std::string& sql, const std::vector<std::string>& params);
    // fail() with the client's error, or statementTimedOut() when the
    // server stopped the statement for its limit.
    QueryResult& failStatement(QueryResult& result, std::chrono::steady_clock::time_point start);
    QueryResult& failWithoutRows(QueryResult& result, std::string message);
    // Whether the statement just run has a warning of the session's limit.
    bool stoppedByLimit();
    // Sets the statement limit on a freshly opened handle, for this session
    // and those the library re-opens; false with last_error_ set.
    bool limitStatements();
    // Opens a fresh handle from config_; false with last_error_ set.
    bool open();

    st_mysql* mysql_ = nullptr;
    bool in_transaction_ = false;
    // Set when the library refused automatic reconnection, so validate()
    // must reconnect by itself.
    bool manual_reconnect_ = false;
    bool session_autocommit_ = true;
};

}  // namespace vostra::data
