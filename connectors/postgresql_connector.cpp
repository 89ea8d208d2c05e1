#include "connectors/postgresql_connector.h"

#include <libpq-fe.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "connectors/sql_literal.h"

namespace vostra::data {
namespace {

constexpr const char* kColumnsQuery = R"(
        SELECT column_name, data_type, is_nullable, column_default, ordinal_position
        FROM information_schema.columns
        WHERE table_schema = $1 AND table_name = $2
        ORDER BY ordinal_position
    )";

constexpr const char* kPrimaryKeyQuery = R"(
        SELECT kcu.column_name
        FROM information_schema.table_constraints tc
        JOIN information_schema.key_column_usage kcu
            ON tc.constraint_name = kcu.constraint_name
        WHERE tc.table_schema = $1 AND tc.table_name = $2
            AND tc.constraint_type = 'PRIMARY KEY'
    )";

constexpr int32_t kPostgreSQLDefaultPort = 5432;
constexpr const char* kCopyUnsupported = "COPY to or from the client is not supported";
constexpr const char* kQueryCanceled = "57014";  // SQLSTATE of a cancelled statement
// A prepared statement the server no longer has (a DISCARD or DEALLOCATE
// sent as SQL), or whose cached plan a schema change made unusable.
constexpr const char* kNoSuchStatement = "26000";
constexpr const char* kPlanChanged = "0A000";

// A command's row count as libpq reports it; counts beyond 32 bits are
// capped rather than wrapped.
int32_t parseCount(const std::string& text) {
    int64_t count = 0;
    std::from_chars(text.data(), text.data() + text.size(), count);
    return static_cast<int32_t>(std::clamp<int64_t>(count, 0, INT32_MAX));
}

// A libpq keyword value in single quotes, with ' and \ escaped by a backslash.
std::string quoteValue(const std::string& value) {
    std::string quoted = "'";
    for (char c : value) {
        if (c == '\\' || c == '\'') quoted.push_back('\\');
        quoted.push_back(c);
    }
    quoted.push_back('\'');
    return quoted;
}

struct ResultClearer {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultClearer>;

}  // namespace

PostgreSQLConnector::~PostgreSQLConnector() {
    disconnect();
}

std::string PostgreSQLConnector::buildConnectionInfo(const DataSourceConfig& config) {
    // The same keywords as getConnectionString(), but quoted: unquoted, an
    // empty value swallows the keyword after it and a space in a password
    // ends it early.
    const int32_t port = config.port < 1 ? kPostgreSQLDefaultPort : config.port;
    std::string conninfo = "host=" + quoteValue(config.host) + " port=" + std::to_string(port) +
                           " dbname=" + quoteValue(config.database) +
                           " user=" + quoteValue(config.username) +
                           " password=" + quoteValue(config.password);
    // Without a limit an unreachable host holds a pool's first connect for
    // minutes; the pool's own wait budget is the natural bound.
    const int32_t timeout_s = std::max(1, config.pool_config.connection_timeout_ms / 1000);
    conninfo += " connect_timeout=" + std::to_string(timeout_s);
    // Set at the start of every session, so a connection reset in place by
    // validate() keeps it. The server cancels the statement itself, which
    // leaves the connection ready for the next one.
    if (config.pool_config.statement_timeout_ms > 0) {
        conninfo +=
            " options=" + quoteValue("-c statement_timeout=" +
                                     std::to_string(config.pool_config.statement_timeout_ms));
    }
    // A source that asks for TLS must not silently fall back to plain text.
    if (config.use_ssl) {
        conninfo += " sslmode=require";
        if (!config.ssl_cert_path.empty()) {
            conninfo += " sslrootcert=" + quoteValue(config.ssl_cert_path);
        }
    }
    return conninfo;
}

bool PostgreSQLConnector::connect(const DataSourceConfig& config) {
    disconnect();
    config_ = config;
    const std::string conninfo = buildConnectionInfo(config);
    conn_ = PQconnectdb(conninfo.c_str());
    if (PQstatus(conn_) != CONNECTION_OK) {
        last_error_ = PQerrorMessage(conn_);
        PQfinish(conn_);
        conn_ = nullptr;
        return false;
    }
    if (!config.schema.empty()) {
        // Appended as given: the schema comes from the operator's own
        // configuration, and may name several schemas separated by commas.
        Result(PQexec(conn_, ("SET search_path TO " + config.schema).c_str()));
    }
    return true;
}

void PostgreSQLConnector::disconnect() {
    statements_.clear();
    if (conn_ == nullptr) return;
    if (in_transaction_) rollback();
    PQfinish(conn_);
    conn_ = nullptr;
    in_transaction_ = false;
}

bool PostgreSQLConnector::isConnected() const {
    return conn_ != nullptr && PQstatus(conn_) == CONNECTION_OK;
}

bool PostgreSQLConnector::validate() {
    if (conn_ == nullptr) return false;
    if (PQstatus(conn_) != CONNECTION_OK) {
        PQreset(conn_);
        // A reset connection starts outside any transaction, with no
        // prepared statements.
        in_transaction_ = false;
        statements_.clear();
        return PQstatus(conn_) == CONNECTION_OK;
    }
    return query("SELECT 1", {}).success;
}

QueryResult PostgreSQLConnector::query(const std::string& sql,
                                       const std::vector<std::string>& params) {
    return run(sql, params);
}

QueryResult PostgreSQLConnector::execute(const std::string& sql,
                                         const std::vector<std::string>& params) {
    return run(sql, params);
}

QueryResult PostgreSQLConnector::run(const std::string& sql,
                                     const std::vector<std::string>& params) {
    bool prepared_gone = false;
    QueryResult result = runOnce(sql, params, prepared_gone);
    // Once more, preparing afresh: outside a transaction nothing was done.
    if (prepared_gone && !inTransaction()) result = runOnce(sql, params, prepared_gone);
    return result;
}

int PostgreSQLConnector::sendWithParams(const std::string& sql, const std::vector<const char*>& values,
                                        bool& used_prepared) {
    const int count = static_cast<int>(values.size());
    const std::string* name = statements_.find(sql);
    // Preparing inside a failed transaction would only fail again.
    if (!name && PQtransactionStatus(conn_) != PQTRANS_INERROR) {
        std::string evicted;
        const std::string fresh = statements_.reserve(evicted);
        if (!evicted.empty()) Result(PQexec(conn_, ("DEALLOCATE " + evicted).c_str()));
        const Result prepared(PQprepare(conn_, fresh.c_str(), sql.c_str(), count, nullptr));
        if (PQresultStatus(prepared.get()) == PGRES_COMMAND_OK) {
            statements_.remember(sql, fresh);
            name = statements_.find(sql);
        }
    }
    used_prepared = name != nullptr;
    if (name) return PQsendQueryPrepared(conn_, name->c_str(), count, values.data(), nullptr, nullptr, 0);
    return PQsendQueryParams(conn_, sql.c_str(), count, nullptr, values.data(), nullptr, nullptr, 0);
}

QueryResult PostgreSQLConnector::runOnce(const std::string& sql, const std::vector<std::string>& params,
                                         bool& prepared_gone) {
    const auto start = std::chrono::steady_clock::now();
    QueryResult result;
    prepared_gone = false;
    if (conn_ == nullptr) return fail(result, kNotConnected);

    int sent = 0;
    bool used_prepared = false;
    if (params.empty()) {
        sent = PQsendQuery(conn_, sql.c_str());
    } else {
        std::vector<const char*> values;
        values.reserve(params.size());
        for (const std::string& p : params)
            values.push_back(p.c_str());
        sent = sendWithParams(sql, values, used_prepared);
    }
    if (sent == 0) return fail(result, PQerrorMessage(conn_));
    // Rows arrive one at a time and go straight into the compact rows, so a
    // big result is never held twice, once by libpq and once here. Should
    // the mode be refused, results arrive whole and are read the same way.
    PQsetSingleRowMode(conn_);

    // Like PQexec, the answer is the last statement's when the text holds
    // several: its rows, its count, or its error.
    ExecStatusType status = PGRES_EMPTY_QUERY;
    bool statement_ended = true;
    bool copy_refused = false;
    std::string command_count;
    std::string sqlstate;
    while (PGresult* raw = PQgetResult(conn_)) {
        const Result pg(raw);
        const ExecStatusType current = PQresultStatus(raw);
        if (current == PGRES_COPY_IN || current == PGRES_COPY_OUT) {
            // A copy would hold the connection until its data is through,
            // and the data API has no way to carry it: end it here.
            copy_refused = true;
            if (current == PGRES_COPY_IN) {
                PQputCopyEnd(conn_, kCopyUnsupported);
            } else {
                char* buffer = nullptr;
                while (PQgetCopyData(conn_, &buffer, 0) > 0)
                    PQfreemem(buffer);
            }
            continue;
        }
        status = current;
        if (current == PGRES_SINGLE_TUPLE || current == PGRES_TUPLES_OK) {
            if (statement_ended) {
                result.columns.clear();
                for (int f = 0; f < PQnfields(raw); ++f)
                    result.columns.emplace_back(PQfname(raw, f));
                result.rows.setColumns(result.columns);
            }
            for (int t = 0, tuples = PQntuples(raw); t < tuples; ++t) {
                // A NULL reads as the empty string with length 0.
                result.rows.add([&](int f) {
                    return std::string_view(PQgetvalue(raw, t, f),
                                            static_cast<std::size_t>(PQgetlength(raw, t, f)));
                });
            }
            statement_ended = current == PGRES_TUPLES_OK;
            command_count.clear();
            continue;
        }
        statement_ended = true;
        result.columns.clear();
        result.rows.setColumns({});
        command_count = current == PGRES_COMMAND_OK ? PQcmdTuples(raw) : "";
        if (const char* code = PQresultErrorField(raw, PG_DIAG_SQLSTATE)) sqlstate = code;
    }

    if (copy_refused) return failWithoutRows(result, kCopyUnsupported);
    if (used_prepared && (sqlstate == kNoSuchStatement || sqlstate == kPlanChanged)) {
        // The server dropped our statements, or this one's plan: forget
        // them so that the next send prepares afresh.
        if (sqlstate == kNoSuchStatement) {
            statements_.clear();
        } else if (const std::string* stale = statements_.find(sql)) {
            if (!inTransaction()) Result(PQexec(conn_, ("DEALLOCATE " + *stale).c_str()));
            statements_.forget(sql);
        }
        prepared_gone = true;
    }

    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
        const int32_t limit = config_.pool_config.statement_timeout_ms;
        // The server's timer starts after ours, so its time-out is never
        // seen before `limit` has passed here; an earlier cancel is someone
        // else's (an administrator's) and keeps the server's own words.
        if (limit > 0 && sqlstate == kQueryCanceled &&
            std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(limit)) {
            return failWithoutRows(result, statementTimedOut(limit));
        }
        return failWithoutRows(result, PQerrorMessage(conn_));
    }
    if (!command_count.empty()) result.affected_rows = parseCount(command_count);
    succeed(result, start);
    return result;
}

QueryResult& PostgreSQLConnector::failWithoutRows(QueryResult& result, std::string message) {
    result.columns.clear();
    result.rows.setColumns({});
    return fail(result, std::move(message));
}

bool PostgreSQLConnector::inTransaction() const {
    if (conn_ == nullptr) return false;
    const PGTransactionStatusType state = PQtransactionStatus(conn_);
    return state == PQTRANS_INTRANS || state == PQTRANS_INERROR || state == PQTRANS_ACTIVE;
}

bool PostgreSQLConnector::rollbackOpenTransaction() {
    if (!inTransaction()) {
        // A broken connection reports no state at all; validate() repairs it.
        in_transaction_ = false;
        return true;
    }
    Result(PQexec(conn_, "ROLLBACK"));
    in_transaction_ = false;
    return PQtransactionStatus(conn_) == PQTRANS_IDLE;
}

std::string PostgreSQLConnector::effectiveSchema() const {
    return config_.schema.empty() ? "public" : config_.schema;
}

std::vector<std::string> PostgreSQLConnector::getTables() {
    std::vector<std::string> tables;
    const QueryResult result = query(
        "SELECT table_name FROM information_schema.tables WHERE table_schema = $1 AND "
        "table_type = 'BASE TABLE'",
        {effectiveSchema()});
    for (const auto& row : result.rows)
        tables.push_back(row["table_name"]);
    return tables;
}

std::vector<ColumnInfo> PostgreSQLConnector::getColumns(const std::string& table) {
    std::vector<ColumnInfo> columns;
    const std::vector<std::string> params = {effectiveSchema(), table};
    const QueryResult described = query(kColumnsQuery, params);
    const QueryResult keys = query(kPrimaryKeyQuery, params);
    std::vector<std::string> key_columns;
    for (const auto& row : keys.rows)
        key_columns.push_back(row["column_name"]);
    for (const auto& row : described.rows) {
        ColumnInfo column;
        column.name = row["column_name"];
        column.type = row["data_type"];
        column.nullable = row.view("is_nullable") == "YES";
        column.default_value = row["column_default"];
        column.ordinal_position = parseCount(row["ordinal_position"]);
        column.primary_key =
            std::find(key_columns.begin(), key_columns.end(), column.name) != key_columns.end();
        columns.push_back(std::move(column));
    }
    return columns;
}

SchemaInfo PostgreSQLConnector::getSchema() {
    SchemaInfo schema;
    schema.source_id = config_.id;
    for (const std::string& name : getTables()) {
        schema.tables.push_back({name, effectiveSchema(), "TABLE", getColumns(name)});
    }
    return schema;
}

std::string PostgreSQLConnector::escape(const std::string& text) {
    if (conn_ == nullptr) return quoteSqlLiteral(text);
    char* literal = PQescapeLiteral(conn_, text.c_str(), text.size());
    if (literal == nullptr) return "";
    std::string out(literal);
    PQfreemem(literal);
    return out;
}

bool PostgreSQLConnector::beginTransaction() {
    if (!isConnected() || in_transaction_) return false;
    const bool ok = execute("BEGIN", {}).success;
    if (ok) in_transaction_ = true;
    return ok;
}

bool PostgreSQLConnector::commit() {
    if (!isConnected() || !in_transaction_) return false;
    const bool ok = execute("COMMIT", {}).success;
    if (ok) in_transaction_ = false;
    return ok;
}

bool PostgreSQLConnector::rollback() {
    if (!isConnected() || !in_transaction_) return false;
    const bool ok = execute("ROLLBACK", {}).success;
    in_transaction_ = false;
    return ok;
}

}  // namespace vostra::data
