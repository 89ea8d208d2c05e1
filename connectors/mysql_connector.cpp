#include "connectors/mysql_connector.h"

#include <mysql.h>

#include <algorithm>
#include <chrono>
#include <mutex>

#include "connectors/sql_literal.h"

namespace vostra::data {
namespace {

constexpr unsigned int kMySQLDefaultPort = 3306;
constexpr const char* kInitFailed = "Failed to initialize MySQL connection";

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

    const std::string text =
        spliceParameters(sql, params, [this](const std::string& p) { return escape(p); });
    if (mysql_real_query(mysql_, text.data(), text.size()) != 0) {
        return fail(result, mysql_error(mysql_));
    }

    if (MYSQL_RES* set = mysql_store_result(mysql_)) {
        const unsigned int field_count = mysql_num_fields(set);
        const MYSQL_FIELD* fields = mysql_fetch_fields(set);
        for (unsigned int f = 0; f < field_count; ++f)
            result.columns.emplace_back(fields[f].name);
        while (MYSQL_ROW values = mysql_fetch_row(set)) {
            const unsigned long* lengths = mysql_fetch_lengths(set);
            QueryResult::Row row;
            for (unsigned int f = 0; f < field_count; ++f) {
                row[result.columns[f]] =
                    values[f] != nullptr ? std::string(values[f], lengths[f]) : std::string();
            }
            result.rows.push_back(std::move(row));
        }
        mysql_free_result(set);
    } else if (mysql_field_count(mysql_) != 0) {
        // The statement had a result set but it could not be fetched.
        return fail(result, mysql_error(mysql_));
    }

    result.affected_rows = static_cast<int32_t>(mysql_affected_rows(mysql_));
    result.last_insert_id = static_cast<int64_t>(mysql_insert_id(mysql_));
    succeed(result, start);
    return result;
}

std::vector<std::string> MySQLConnector::getTables() {
    std::vector<std::string> tables;
    const QueryResult result = query("SHOW TABLES", {});
    if (result.columns.empty()) return tables;
    // The column is named after the database ("Tables_in_<db>").
    for (const auto& row : result.rows)
        tables.push_back(row.at(result.columns.front()));
    return tables;
}

std::vector<ColumnInfo> MySQLConnector::getColumns(const std::string& table) {
    std::vector<ColumnInfo> columns;
    const QueryResult result = query("DESCRIBE " + table, {});
    int32_t position = 0;
    for (const auto& row : result.rows) {
        ColumnInfo column;
        column.name = row.at("Field");
        column.type = row.at("Type");
        column.nullable = row.at("Null") == "YES";
        column.primary_key = row.at("Key") == "PRI";
        column.default_value = row.at("Default");
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
