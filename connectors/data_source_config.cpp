#include "connectors/data_source_config.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {
namespace {

constexpr int32_t kPostgreSQLDefaultPort = 5432;
constexpr int32_t kDB2DefaultPort = 50000;

std::string postgreSQLConnectionString(const DataSourceConfig& c) {
    const int32_t port = c.port < 1 ? kPostgreSQLDefaultPort : c.port;
    return "host=" + c.host + " port=" + std::to_string(port) + " dbname=" + c.database +
           " user=" + c.username + " password=" + c.password;
}

std::string db2ODBCConnectionString(const DataSourceConfig& c) {
    if (!c.dsn.empty()) return "DSN=" + c.dsn + ";UID=" + c.username + ";PWD=" + c.password;
    const int32_t port = c.port > 0 ? c.port : kDB2DefaultPort;
    return "Driver={IBM DB2 ODBC DRIVER};Database=" + c.database + ";Hostname=" + c.host +
           ";Port=" + std::to_string(port) + ";Protocol=TCPIP;Uid=" + c.username +
           ";Pwd=" + c.password;
}

}  // namespace

PoolConfig PoolConfig::fromJson(const nlohmann::json& json) {
    PoolConfig c;
    if (!json.is_object()) return c;
    readField(json, "min_connections", c.min_connections);
    readField(json, "max_connections", c.max_connections);
    readField(json, "connection_timeout_ms", c.connection_timeout_ms);
    readField(json, "idle_timeout_ms", c.idle_timeout_ms);
    readField(json, "health_check_interval_ms", c.health_check_interval_ms);
    readField(json, "max_lifetime_ms", c.max_lifetime_ms);
    readField(json, "validate_on_acquire", c.validate_on_acquire);
    readField(json, "validation_bypass_ms", c.validation_bypass_ms);
    readField(json, "validation_query", c.validation_query);
    readField(json, "statement_timeout_ms", c.statement_timeout_ms);
    return c;
}

nlohmann::json PoolConfig::toJson() const {
    return {{"min_connections", min_connections},
            {"max_connections", max_connections},
            {"connection_timeout_ms", connection_timeout_ms},
            {"idle_timeout_ms", idle_timeout_ms},
            {"health_check_interval_ms", health_check_interval_ms},
            {"max_lifetime_ms", max_lifetime_ms},
            {"validate_on_acquire", validate_on_acquire},
            {"validation_bypass_ms", validation_bypass_ms},
            {"validation_query", validation_query},
            {"statement_timeout_ms", statement_timeout_ms}};
}

Status PoolConfig::check() const {
    const auto invalid = [](std::string reason) {
        return Status::failure(ErrorKind::Invalid, std::move(reason));
    };
    const std::string limit = std::to_string(kMaxPoolConnections);
    if (min_connections > kMaxPoolConnections)
        return invalid("min_connections " + std::to_string(min_connections) +
                       " is above the limit of " + limit);
    if (max_connections > kMaxPoolConnections)
        return invalid("max_connections " + std::to_string(max_connections) +
                       " is above the limit of " + limit);
    if (min_connections > max_connections)
        return invalid("min_connections " + std::to_string(min_connections) +
                       " is above max_connections " + std::to_string(max_connections));
    if (statement_timeout_ms < 0) return invalid("statement_timeout_ms must not be negative");
    if (validation_bypass_ms < 0) return invalid("validation_bypass_ms must not be negative");
    return Status::success();
}

DataSourceConfig DataSourceConfig::fromJson(const nlohmann::json& json) {
    DataSourceConfig c;
    if (!json.is_object()) return c;
    readField(json, "id", c.id);
    readField(json, "name", c.name);
    std::string text;
    if (json.contains("type")) {
        readField(json, "type", text);
        c.type = parseConnectorType(text);
    }
    if (json.contains("access_mode")) {
        readField(json, "access_mode", text);
        c.access_mode = parseAccessMode(text);
    }
    readField(json, "host", c.host);
    readField(json, "port", c.port);
    readField(json, "database", c.database);
    readField(json, "username", c.username);
    readField(json, "password", c.password);
    readField(json, "schema", c.schema);
    readField(json, "path", c.path);
    readField(json, "dsn", c.dsn);
    readField(json, "db2_instance", c.db2_instance);
    readField(json, "use_ssl", c.use_ssl);
    readField(json, "ssl_cert_path", c.ssl_cert_path);
    readField(json, "is_zos", c.is_zos);
    readField(json, "location", c.location);
    if (json.contains("pool_config")) c.pool_config = PoolConfig::fromJson(json.at("pool_config"));
    readField(json, "labels", c.labels);
    readField(json, "enabled", c.enabled);
    return c;
}

nlohmann::json DataSourceConfig::toJson() const {
    return {{"id", id},
            {"name", name},
            {"type", connectorTypeName(type)},
            {"access_mode", accessModeName(access_mode)},
            {"host", host},
            {"port", port},
            {"database", database},
            {"username", username},
            {"password", password},
            {"schema", schema},
            {"path", path},
            {"dsn", dsn},
            {"db2_instance", db2_instance},
            {"use_ssl", use_ssl},
            {"ssl_cert_path", ssl_cert_path},
            {"is_zos", is_zos},
            {"location", location},
            {"pool_config", pool_config.toJson()},
            {"labels", labels},
            {"enabled", enabled}};
}

std::string DataSourceConfig::getConnectionString() const {
    switch (type) {
        case ConnectorType::SQLite:
            return path;
        case ConnectorType::PostgreSQL:
            return postgreSQLConnectionString(*this);
        case ConnectorType::DB2_ODBC:
            return db2ODBCConnectionString(*this);
        default:
            return "";
    }
}

}  // namespace vostra::data
