// A DB2Connector fixed to the ODBC back-end, as created for type "db2_odbc".
// Owned like any connector.
#pragma once

#include "connectors/db2_connector.h"

namespace vostra::data {

class DB2ODBCConnector : public DB2Connector {
public:
    DB2ODBCConnector() : DB2Connector(Preference::ODBC) {}
};

}  // namespace vostra::data
