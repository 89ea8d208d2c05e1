// Turns a connector type, or its name, into a new unconnected connector, and
// reports which types this build can serve. Stateless; thread-safe. The
// caller owns every connector it creates.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connectors/connector_type.h"
#include "connectors/data_connector.h"

namespace vostra::data {

class DataConnectorFactory {
public:
    // A new connector for `type`, or nullptr for a value outside the
    // enumeration. DB2_ODBC and DB2_CLI give a DB2Connector fixed to that
    // back-end; DB2 gives one that chooses when it connects.
    static std::unique_ptr<DataConnector> create(ConnectorType type);

    // As above after parseConnectorType(), so an unknown name creates a
    // SQLiteConnector rather than failing.
    static std::unique_ptr<DataConnector> create(const std::string& type_name);

    // True when a connector of `type` could actually connect in this build:
    // always for SQLite, PostgreSQL and MySQL, for DB2 types only when their
    // back-end is compiled in.
    static bool isAvailable(ConnectorType type);

    // SQLite, PostgreSQL, MySQL, then any DB2 back-end compiled in.
    static std::vector<ConnectorType> getAvailableTypes();
    // The canonical names of getAvailableTypes(), in the same order.
    static std::vector<std::string> getAvailableTypeNames();
};

}  // namespace vostra::data
