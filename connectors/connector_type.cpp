#include "connectors/connector_type.h"

namespace vostra::data {

std::string connectorTypeName(ConnectorType type) {
    switch (type) {
        case ConnectorType::SQLite:
            return "sqlite";
        case ConnectorType::PostgreSQL:
            return "postgresql";
        case ConnectorType::MySQL:
            return "mysql";
        case ConnectorType::DB2_ODBC:
            return "db2_odbc";
        case ConnectorType::DB2_CLI:
            return "db2_cli";
        case ConnectorType::DB2:
            return "db2";
    }
    return "unknown";
}

ConnectorType parseConnectorType(std::string_view name) {
    if (name == "postgresql" || name == "postgres") return ConnectorType::PostgreSQL;
    if (name == "mysql" || name == "mariadb") return ConnectorType::MySQL;
    if (name == "db2_odbc") return ConnectorType::DB2_ODBC;
    if (name == "db2_cli") return ConnectorType::DB2_CLI;
    if (name == "db2" || name == "db2_auto") return ConnectorType::DB2;
    return ConnectorType::SQLite;
}

std::string accessModeName(AccessMode mode) {
    return mode == AccessMode::ReadWrite ? "readwrite" : "readonly";
}

AccessMode parseAccessMode(std::string_view text) {
    if (text == "readwrite" || text == "rw" || text == "write") return AccessMode::ReadWrite;
    return AccessMode::ReadOnly;
}

}  // namespace vostra::data
