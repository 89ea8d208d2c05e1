#include "connectors/data_connector_factory.h"

#include "connectors/db2_cli_connector.h"
#include "connectors/db2_connector.h"
#include "connectors/db2_odbc_connector.h"
#include "connectors/mysql_connector.h"
#include "connectors/postgresql_connector.h"
#include "connectors/sqlite_connector.h"

namespace vostra::data {

std::unique_ptr<DataConnector> DataConnectorFactory::create(ConnectorType type) {
    switch (type) {
        case ConnectorType::SQLite:
            return std::make_unique<SQLiteConnector>();
        case ConnectorType::PostgreSQL:
            return std::make_unique<PostgreSQLConnector>();
        case ConnectorType::MySQL:
            return std::make_unique<MySQLConnector>();
        case ConnectorType::DB2_ODBC:
            return std::make_unique<DB2ODBCConnector>();
        case ConnectorType::DB2_CLI:
            return std::make_unique<DB2CLIConnector>();
        case ConnectorType::DB2:
            return std::make_unique<DB2Connector>();
    }
    return nullptr;
}

std::unique_ptr<DataConnector> DataConnectorFactory::create(const std::string& type_name) {
    return create(parseConnectorType(type_name));
}

bool DataConnectorFactory::isAvailable(ConnectorType type) {
    switch (type) {
        case ConnectorType::SQLite:
        case ConnectorType::PostgreSQL:
        case ConnectorType::MySQL:
            return true;
        case ConnectorType::DB2_ODBC:
            return isODBCAvailable();
        case ConnectorType::DB2_CLI:
            return isCLIAvailable();
        case ConnectorType::DB2:
            return isODBCAvailable() || isCLIAvailable();
    }
    return false;
}

std::vector<ConnectorType> DataConnectorFactory::getAvailableTypes() {
    std::vector<ConnectorType> types = {ConnectorType::SQLite, ConnectorType::PostgreSQL,
                                        ConnectorType::MySQL};
    if (isODBCAvailable()) types.push_back(ConnectorType::DB2_ODBC);
    if (isCLIAvailable()) types.push_back(ConnectorType::DB2_CLI);
    return types;
}

std::vector<std::string> DataConnectorFactory::getAvailableTypeNames() {
    std::vector<std::string> names;
    for (ConnectorType type : getAvailableTypes())
        names.push_back(connectorTypeName(type));
    return names;
}

}  // namespace vostra::data
