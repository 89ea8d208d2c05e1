// A DB2Connector fixed to the DB2 call-level interface, as created for type
// "db2_cli". Owned like any connector.
#pragma once

#include "connectors/db2_connector.h"

namespace vostra::data {

class DB2CLIConnector : public DB2Connector {
public:
    DB2CLIConnector() : DB2Connector(Preference::CLI) {}
};

}  // namespace vostra::data
