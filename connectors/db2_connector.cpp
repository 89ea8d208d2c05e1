#include "connectors/db2_connector.h"

#include <algorithm>
#include <cctype>
#include <chrono>

#include "connectors/sql_literal.h"

namespace vostra::data {
namespace {

constexpr const char* kNoDriver = "No DB2 driver available";
constexpr const char* kNoODBC = "ODBC support not compiled in";
constexpr const char* kNoCLI = "DB2 CLI support not compiled in";
constexpr int32_t kDB2DefaultPort = 50000;

const char* missingBackendMessage(DB2Connector::Driver driver) {
    switch (driver) {
        case DB2Connector::Driver::ODBC:
            return kNoODBC;
        case DB2Connector::Driver::CLI:
            return kNoCLI;
        case DB2Connector::Driver::None:
            break;
    }
    return kNoDriver;
}

}  // namespace

bool isODBCAvailable() {
    return false;
}
bool isCLIAvailable() {
    return false;
}

DB2Connector::DB2Connector(Preference preference) : preferred_driver_(preference) {}

ConnectorType DB2Connector::getType() const {
    switch (active_driver_) {
        case Driver::ODBC:
            return ConnectorType::DB2_ODBC;
        case Driver::CLI:
            return ConnectorType::DB2_CLI;
        case Driver::None:
            break;
    }
    return ConnectorType::DB2;
}

std::string DB2Connector::getName() const {
    if (active_driver_ == Driver::ODBC) return "DB2 (ODBC)";
    if (active_driver_ == Driver::CLI) return "DB2 (CLI)";
    switch (preferred_driver_) {
        case Preference::ODBC:
            return "DB2 (ODBC)";
        case Preference::CLI:
            return "DB2 (CLI)";
        case Preference::CLIPreferred:
            return "DB2 (CLI preferred)";
        case Preference::Automatic:
            break;
    }
    if (isODBCAvailable()) return "DB2 (ODBC)";
    if (isCLIAvailable()) return "DB2 (CLI)";
    return "DB2 (unavailable)";
}

bool DB2Connector::connect(const DataSourceConfig& config) {
    disconnect();
    config_ = config;
    switch (preferred_driver_) {
        case Preference::CLIPreferred:
            return connectThrough(Driver::CLI);
        case Preference::ODBC:
            return connectThrough(Driver::ODBC);
        case Preference::CLI:
            return connectThrough(Driver::CLI);
        case Preference::Automatic:
            break;
    }
    if (isODBCAvailable()) return connectThrough(Driver::ODBC);
    if (isCLIAvailable()) return connectThrough(Driver::CLI);
    active_driver_ = Driver::None;
    last_error_ = kNoDriver;
    return false;
}

bool DB2Connector::connectThrough(Driver driver) {
    active_driver_ = driver;
    // No back-end is compiled in. One would open its handles here from
    // buildODBCConnectionString / buildCLIConnectionString and set connected_.
    last_error_ = missingBackendMessage(driver);
    return false;
}

void DB2Connector::disconnect() {
    connected_ = false;
}

bool DB2Connector::validate() {
    if (!connected_) return false;
    return query("SELECT 1 FROM SYSIBM.SYSDUMMY1", {}).success;
}

QueryResult DB2Connector::query(const std::string& sql, const std::vector<std::string>& params) {
    return dispatch(sql, params);
}

QueryResult DB2Connector::execute(const std::string& sql, const std::vector<std::string>& params) {
    return dispatch(sql, params);
}

QueryResult DB2Connector::dispatch(const std::string&, const std::vector<std::string>&) {
    QueryResult result;
    return fail(result, missingBackendMessage(active_driver_));
}

std::string DB2Connector::catalogSchema() const {
    if (!config_.schema.empty()) return config_.schema;
    std::string schema = config_.username;
    std::transform(schema.begin(), schema.end(), schema.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return schema;
}

std::vector<std::string> DB2Connector::getTables() {
    std::vector<std::string> tables;
    if (active_driver_ == Driver::None) return tables;
    const QueryResult result = dispatch(buildTablesQuery(catalogSchema()), {});
    for (const auto& row : result.rows)
        tables.push_back(row["TABNAME"]);
    return tables;
}

std::vector<ColumnInfo> DB2Connector::getColumns(const std::string& table) {
    std::vector<ColumnInfo> columns;
    if (active_driver_ == Driver::None) return columns;
    const QueryResult result = dispatch(buildColumnsQuery(catalogSchema(), table), {});
    for (const auto& row : result.rows) {
        ColumnInfo column;
        column.name = row["COLNAME"];
        column.type = row["TYPENAME"];
        column.nullable = row.view("NULLS") == "Y";
        column.default_value = row["DEFAULT"];
        column.ordinal_position = std::stoi(row["COLNO"]);
        // KEYSEQ is the column's place in the primary key, empty or 0 outside it.
        const std::string_view key_sequence = row.view("KEYSEQ");
        column.primary_key = !key_sequence.empty() && key_sequence != "0";
        columns.push_back(std::move(column));
    }
    return columns;
}

SchemaInfo DB2Connector::getSchema() {
    SchemaInfo schema;
    schema.source_id = config_.id;
    for (const std::string& name : getTables()) {
        schema.tables.push_back({name, catalogSchema(), "TABLE", getColumns(name)});
    }
    return schema;
}

std::string DB2Connector::escape(const std::string& text) {
    return quoteSqlLiteral(text);
}

std::string DB2Connector::buildODBCConnectionString(const DataSourceConfig& config) {
    // The source's own ODBC form is rendered only for type DB2_ODBC; reuse it
    // for whatever type this source was declared with.
    DataSourceConfig odbc = config;
    odbc.type = ConnectorType::DB2_ODBC;
    std::string text = odbc.getConnectionString();
    if (config.is_zos && !config.location.empty()) text += ";Location=" + config.location;
    return text;
}

std::string DB2Connector::buildCLIConnectionString(const DataSourceConfig& config) {
    const int32_t port = config.port > 0 ? config.port : kDB2DefaultPort;
    std::string text = "DATABASE=" + config.database + ";HOSTNAME=" + config.host +
                       ";PORT=" + std::to_string(port) + ";PROTOCOL=TCPIP;UID=" + config.username +
                       ";PWD=" + config.password;
    if (!config.schema.empty()) text += ";CURRENTSCHEMA=" + config.schema;
    if (config.is_zos && !config.location.empty()) text += ";LOCATION=" + config.location;
    return text;
}

std::string DB2Connector::buildTablesQuery(const std::string& schema) {
    return "SELECT TABNAME FROM SYSCAT.TABLES WHERE TABSCHEMA = " + quoteSqlLiteral(schema) +
           " AND TYPE = 'T'";
}

std::string DB2Connector::buildColumnsQuery(const std::string& schema, const std::string& table) {
    return "\n        SELECT COLNAME, TYPENAME, NULLS, DEFAULT, COLNO, KEYSEQ"
           "\n        FROM SYSCAT.COLUMNS"
           "\n        WHERE TABSCHEMA = " +
           quoteSqlLiteral(schema) + "\n          AND TABNAME = " + quoteSqlLiteral(table) +
           "\n        ORDER BY COLNO\n    ";
}

}  // namespace vostra::data
