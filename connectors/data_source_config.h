// The configuration record of one relational data source, with the sizes and
// times of its connection pool. Plain values: the registry keeps one per
// source, and every pool and connector keeps its own copy.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "common/status.h"
#include "connectors/connector_type.h"

namespace vostra::data {

// The most connections one source's pool may be configured to hold, at its
// minimum or its maximum. Each is a descriptor and often a server process;
// far fewer already exhaust most servers.
inline constexpr int32_t kMaxPoolConnections = 1000;

struct PoolConfig {
    int32_t min_connections = 1;
    int32_t max_connections = 10;
    int32_t connection_timeout_ms = 5000;
    int32_t idle_timeout_ms = 300000;
    int32_t health_check_interval_ms = 30000;
    int32_t max_lifetime_ms = 3600000;
    bool validate_on_acquire = true;
    // A connection returned healthy less than this long ago is lent without
    // the validation round trip; idle ones are still validated. 0: always.
    int32_t validation_bypass_ms = 500;
    std::string validation_query = "SELECT 1";
    int32_t statement_timeout_ms = 0;  // 0: statements run as long as they take

    // Starts from the defaults and assigns only the keys present. A non-object
    // gives the defaults; a present key of the wrong JSON type throws
    // nlohmann::json::type_error.
    static PoolConfig fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;

    // Invalid, with the reason, for sizes above kMaxPoolConnections, a
    // minimum above the maximum, or a negative statement_timeout_ms.
    Status check() const;
};

struct DataSourceConfig {
    std::string id;  // unique key in the registry
    std::string name;
    ConnectorType type = ConnectorType::SQLite;
    AccessMode access_mode = AccessMode::ReadOnly;
    std::string host;
    int32_t port = 0;  // 0: the driver's default port
    std::string database;
    std::string username;
    std::string password;
    std::string schema;  // schema to list (PostgreSQL, DB2)
    std::string path;    // SQLite file; empty: an in-memory database
    std::string dsn;     // ODBC data source name (DB2)
    std::string db2_instance;
    bool use_ssl = false;
    std::string ssl_cert_path;
    bool is_zos = false;  // the DB2 server is a mainframe system
    std::string location;
    PoolConfig pool_config;
    std::vector<std::string> labels;
    bool enabled = true;

    // As PoolConfig::fromJson; "type" and "access_mode" are names (unknown
    // names fall back silently) and "labels" replaces the whole list.
    static DataSourceConfig fromJson(const nlohmann::json& json);

    // Same keys as fromJson reads, the password included, so the result reads
    // back to an equal record. Callers that publish it must strip secrets.
    nlohmann::json toJson() const;

    // The driver's connection text for this source's type: the file path for
    // SQLite, a libpq keyword string for PostgreSQL, an ODBC string for
    // DB2_ODBC, and the empty string for the others. Values are inserted
    // verbatim, without quoting.
    std::string getConnectionString() const;
};

}  // namespace vostra::data
