#include "connectors/mysql_connector.h"

#include <mysql.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include "connectors/sql_literal.h"

namespace vostra::data {
namespace {

constexpr unsigned int kMySQLDefaultPort = 3306;
constexpr const char* kInitFailed = "Failed to initialize MySQL connection";
// The error (or warning) of a statement stopped by the session's limit.
constexpr unsigned int kMariaDBStatementTimeout = 1969;  // max_statement_time
constexpr unsigned int kMySQLStatementTimeout = 3024;    // max_execution_time

// mysql_init() initialises the library on first use, which is not safe when
// two pool threads open their first connections at the same moment.
void initLibraryOnce() {
    static std::once_flag once;
    std::call_once(once, [] { mysql_library_init(0, nullptr, nullptr); });
}

}  // namespace

MySQLConnector::~MySQLConnector() {
    disconnect();
}

bool MySQLConnector::connect(const DataSourceConfig& config) {
    disconnect();
    config_ = config;
    return open();
}

bool MySQLConnector::open() {
    initLibraryOnce();
    MYSQL* handle = mysql_init(nullptr);
    if (handle == nullptr) {
        last_error_ = kInitFailed;
        return false;
    }
    const unsigned int timeout_s = connectTimeoutSeconds(config_.pool_config.connection_timeout_ms);
    mysql_options(handle, MYSQL_OPT_CONNECT_TIMEOUT, &timeout_s);
    const my_bool reconnect = 1;
    manual_reconnect_ = mysql_options(handle, MYSQL_OPT_RECONNECT, &reconnect) != 0;
    // Also as a connect option, so a session the client library re-opens by
    // itself after a dropped connection speaks utf8mb4 too.
    mysql_options(handle, MYSQL_SET_CHARSET_NAME, "utf8mb4");
    if (config_.use_ssl) {
        // A source that asks for TLS must not silently fall back to plain text.
        const my_bool enforce = 1;
        mysql_options(handle, MYSQL_OPT_SSL_ENFORCE, &enforce);
        if (!config_.ssl_cert_path.empty()) {
            mysql_options(handle, MYSQL_OPT_SSL_CA, config_.ssl_cert_path.c_str());
        }
    }

    const unsigned int port =
        config_.port < 1 ? kMySQLDefaultPort : static_cast<unsigned int>(config_.port);
    const char* database = config_.database.empty() ? nullptr : config_.database.c_str();
    if (mysql_real_connect(handle, config_.host.c_str(), config_.username.c_str(),
                           config_.password.c_str(), database, port, nullptr, 0) == nullptr) {
        last_error_ = mysql_error(handle);
        mysql_close(handle);
        return false;
    }
    mysql_set_character_set(handle, "utf8mb4");
    mysql_ = handle;
    session_autocommit_ = (mysql_->server_status & SERVER_STATUS_AUTOCOMMIT) != 0;
    if (!limitStatements()) {
        mysql_close(mysql_);
        mysql_ = nullptr;
        return false;
    }
    return true;
}

void MySQLConnector::disconnect() {
    if (mysql_ == nullptr) return;
    if (in_transaction_) rollback();
    mysql_close(mysql_);
    mysql_ = nullptr;
    in_transaction_ = false;
}

bool MySQLConnector::validate() {
    if (mysql_ == nullptr) return false;
    if (mysql_ping(mysql_) == 0) return true;
    last_error_ = mysql_error(mysql_);
    if (!manual_reconnect_) return false;
    mysql_close(mysql_);
    mysql_ = nullptr;
    in_transaction_ = false;
    return open();
}

QueryResult MySQLConnector::query(const std::string& sql, const std::vector<std::string>& params) {
    return run(sql, params);
}

QueryResult MySQLConnector::execute(const std::string& sql,
                                    const std::vector<std::string>& params) {
    return run(sql, params);
}

unsigned int MySQLConnector::connectTimeoutSeconds(int32_t connection_timeout_ms) {
    return static_cast<unsigned int>(std::max(1, connection_timeout_ms / 1000));
}

std::string MySQLConnector::spliceParameters(
    const std::string& sql, const std::vector<std::string>& params,
    const std::function<std::string(const std::string&)>& quote) {
    std::string text = sql;
    std::size_t position = 0;
    for (const std::string& param : params) {
        const std::size_t mark = text.find('?', position);
        if (mark == std::string::npos) break;
        const std::string literal = quote(param);
        text.replace(mark, 1, literal);
        position = mark + literal.size();
    }
    return text;
}

QueryResult MySQLConnector::run(const std::string& sql, const std::vector<std::string>& params) {
    const auto start = std::chrono::steady_clock::now();
    QueryResult result;
    if (mysql_ == nullptr) return fail(result, kNotConnected);
    const int32_t limit = config_.pool_config.statement_timeout_ms;

    const std::string text =
        spliceParameters(sql, params, [this](const std::string& p) { return escape(p); });
    if (mysql_real_query(mysql_, text.data(), text.size()) != 0)
        return failStatement(result, start);

    // Rows are read as the server sends them instead of being stored by the
    // library first, so a big result is never held twice.
    if (MYSQL_RES* set = mysql_use_result(mysql_)) {
        const unsigned int field_count = mysql_num_fields(set);
        const MYSQL_FIELD* fields = mysql_fetch_fields(set);
        for (unsigned int f = 0; f < field_count; ++f)
            result.columns.emplace_back(fields[f].name);
        result.rows.setColumns(result.columns);
        while (MYSQL_ROW values = mysql_fetch_row(set)) {
            const unsigned long* lengths = mysql_fetch_lengths(set);
            result.rows.add([&](int f) {
                return values[f] != nullptr ? std::string_view(values[f], lengths[f])
                                            : std::string_view();
            });
        }
        const bool broken = mysql_errno(mysql_) != 0;
        mysql_free_result(set);
        if (broken) return failStatement(result, start);
        // What the library reports once a stored result is complete.
        result.affected_rows = static_cast<int32_t>(result.rows.size());
    } else if (mysql_field_count(mysql_) != 0) {
        // The statement had a result set but it could not be fetched.
        return failStatement(result, start);
    } else {
        result.affected_rows = static_cast<int32_t>(mysql_affected_rows(mysql_));
    }
    // A SLEEP or DO that the server interrupts for the limit ends without an
    // error; only a warning tells.
    if (limit > 0 && std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(limit) &&
        stoppedByLimit()) {
        return failWithoutRows(result, statementTimedOut(limit));
    }
    result.last_insert_id = static_cast<int64_t>(mysql_insert_id(mysql_));
    succeed(result, start);
    return result;
}

QueryResult& MySQLConnector::failStatement(QueryResult& result,
                                           std::chrono::steady_clock::time_point start) {
    const int32_t limit = config_.pool_config.statement_timeout_ms;
    const unsigned int code = mysql_errno(mysql_);
    // The server's timer starts after ours, so its limit is never reported
    // early; an earlier interruption is someone's KILL.
    if (limit > 0 && (code == kMariaDBStatementTimeout || code == kMySQLStatementTimeout) &&
        std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(limit)) {
        return failWithoutRows(result, statementTimedOut(limit));
    }
    return failWithoutRows(result, mysql_error(mysql_));
}

QueryResult& MySQLConnector::failWithoutRows(QueryResult& result, std::string message) {
    result.columns.clear();
    result.rows.setColumns({});
    result.affected_rows = 0;
    return fail(result, std::move(message));
}

bool MySQLConnector::stoppedByLimit() {
    if (mysql_warning_count(mysql_) == 0) return false;
    static constexpr std::string_view kShowWarnings = "SHOW WARNINGS";
    if (mysql_real_query(mysql_, kShowWarnings.data(), kShowWarnings.size()) != 0) return false;
    MYSQL_RES* warnings = mysql_store_result(mysql_);
    if (warnings == nullptr) return false;
    bool stopped = false;
    // Level, Code, Message.
    while (MYSQL_ROW row = mysql_fetch_row(warnings)) {
        if (mysql_num_fields(warnings) < 2 || row[1] == nullptr) continue;
        const unsigned long code = std::strtoul(row[1], nullptr, 10);
        stopped = stopped || code == kMariaDBStatementTimeout || code == kMySQLStatementTimeout;
    }
    mysql_free_result(warnings);
    return stopped;
}

bool MySQLConnector::limitStatements() {
    const int32_t limit = config_.pool_config.statement_timeout_ms;
    if (limit <= 0) return true;
    // MariaDB limits every statement, in seconds to the microsecond; MySQL
    // has only a limit for SELECT, in milliseconds.
    const bool mariadb =
        std::string_view(mysql_get_server_info(mysql_)).find("MariaDB") != std::string_view::npos;
    char milliseconds[4];
    std::snprintf(milliseconds, sizeof milliseconds, "%03d", static_cast<int>(limit % 1000));
    const std::string set =
        mariadb ? "SET SESSION max_statement_time = " + std::to_string(limit / 1000) + "." +
                      milliseconds
                : "SET SESSION max_execution_time = " + std::to_string(limit);
    if (mysql_real_query(mysql_, set.data(), set.size()) != 0) {
        last_error_ = mysql_error(mysql_);
        return false;
    }
    // The library replays it on the sessions it re-opens by itself, even the
    // one it opens in the middle of running a statement.
    mysql_options(mysql_, MYSQL_INIT_COMMAND, set.c_str());
    return true;
}

bool MySQLConnector::inTransaction() const {
    return mysql_ != nullptr && (mysql_->server_status & SERVER_STATUS_IN_TRANS) != 0;
}

bool MySQLConnector::rollbackOpenTransaction() {
    in_transaction_ = false;
    if (mysql_ == nullptr) return true;
    bool clean = true;
    if (inTransaction()) clean = mysql_rollback(mysql_) == 0;
    // With autocommit switched off by a statement, the next borrower's first
    // statement would open a transaction that the return then undoes.
    const bool autocommit = (mysql_->server_status & SERVER_STATUS_AUTOCOMMIT) != 0;
    if (autocommit != session_autocommit_)
        clean = mysql_autocommit(mysql_, session_autocommit_) == 0 && clean;
    return clean && !inTransaction();
}

std::vector<std::string> MySQLConnector::getTables() {
    std::vector<std::string> tables;
    const QueryResult result = query("SHOW TABLES", {});
    if (result.columns.empty()) return tables;
    // The column is named after the database ("Tables_in_<db>").
    for (const auto& row : result.rows)
        tables.push_back(row[result.columns.front()]);
    return tables;
}

std::vector<ColumnInfo> MySQLConnector::getColumns(const std::string& table) {
    std::vector<ColumnInfo> columns;
    const QueryResult result = query("DESCRIBE " + table, {});
    int32_t position = 0;
    for (const auto& row : result.rows) {
        ColumnInfo column;
        column.name = row["Field"];
        column.type = row["Type"];
        column.nullable = row.view("Null") == "YES";
        column.primary_key = row.view("Key") == "PRI";
        column.default_value = row["Default"];
        column.ordinal_position = ++position;
        columns.push_back(std::move(column));
    }
    return columns;
}

SchemaInfo MySQLConnector::getSchema() {
    SchemaInfo schema;
    schema.source_id = config_.id;
    for (const std::string& name : getTables()) {
        schema.tables.push_back({name, "", "TABLE", getColumns(name)});
    }
    return schema;
}

std::string MySQLConnector::escape(const std::string& text) {
    if (mysql_ == nullptr) return quoteSqlLiteral(text, /*double_backslashes=*/true);
    std::string buffer(text.size() * 2 + 1, '\0');
    const unsigned long length =
        mysql_real_escape_string(mysql_, buffer.data(), text.data(), text.size());
    buffer.resize(length);
    return "'" + buffer + "'";
}

bool MySQLConnector::beginTransaction() {
    if (mysql_ == nullptr || in_transaction_) return false;
    const bool ok = execute("START TRANSACTION", {}).success;
    if (ok) in_transaction_ = true;
    return ok;
}

bool MySQLConnector::commit() {
    if (mysql_ == nullptr || !in_transaction_) return false;
    const bool ok = execute("COMMIT", {}).success;
    if (ok) in_transaction_ = false;
    return ok;
}

bool MySQLConnector::rollback() {
    if (mysql_ == nullptr || !in_transaction_) return false;
    const bool ok = execute("ROLLBACK", {}).success;
    in_transaction_ = false;
    return ok;
}

}  // namespace vostra::data
