#include "connectors/db2_connector.h"

#include <gtest/gtest.h>

#include "connectors/db2_cli_connector.h"
#include "connectors/db2_odbc_connector.h"

namespace vostra::data {
namespace {

TEST(DB2Connector, EveryModeFailsWithItsOwnReasonAndReportsTheChosenType) {
    DB2Connector automatic;
    DB2ODBCConnector odbc;
    DB2CLIConnector cli;
    DB2Connector cli_preferred(DB2Connector::Preference::CLIPreferred);
    EXPECT_EQ(odbc.getType(), ConnectorType::DB2);  // nothing chosen yet
    EXPECT_EQ(cli_preferred.getName(), "DB2 (CLI preferred)");

    const struct {
        DB2Connector& connector;
        const char* error;
        ConnectorType type;
        const char* name;
    } cases[] = {
        {automatic, "No DB2 driver available", ConnectorType::DB2, "DB2 (unavailable)"},
        {odbc, "ODBC support not compiled in", ConnectorType::DB2_ODBC, "DB2 (ODBC)"},
        {cli, "DB2 CLI support not compiled in", ConnectorType::DB2_CLI, "DB2 (CLI)"},
        {cli_preferred, "DB2 CLI support not compiled in", ConnectorType::DB2_CLI, "DB2 (CLI)"},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(c.connector.connect({}));
        EXPECT_EQ(c.connector.getLastError(), c.error);
        EXPECT_EQ(c.connector.getType(), c.type);
        EXPECT_EQ(c.connector.getName(), c.name);
        // Statements fail with the same reason and count as failed.
        EXPECT_EQ(c.connector.execute("DELETE FROM T", {"x"}).error, c.error);
        EXPECT_EQ(c.connector.getStats().at("queries_failed"), 1);
        EXPECT_FALSE(c.connector.validate());
        EXPECT_FALSE(c.connector.beginTransaction());
        EXPECT_TRUE(c.connector.getSchema().tables.empty());
    }
}

TEST(DB2Connector, ConnectionStringsAddSchemaAndMainframeLocation) {
    DataSourceConfig c;
    c.type = ConnectorType::DB2;  // the builders must not depend on the declared type
    c.database = "PROD";
    c.host = "mf";
    c.username = "u";
    c.password = "p";
    c.location = "LOC1";
    const std::string odbc =
        "Driver={IBM DB2 ODBC DRIVER};Database=PROD;Hostname=mf;Port=50000;Protocol=TCPIP;"
        "Uid=u;Pwd=p";
    EXPECT_EQ(DB2Connector::buildODBCConnectionString(c), odbc);
    EXPECT_EQ(DB2Connector::buildCLIConnectionString(c),
              "DATABASE=PROD;HOSTNAME=mf;PORT=50000;PROTOCOL=TCPIP;UID=u;PWD=p");
    c.is_zos = true;
    c.schema = "APP";
    c.port = 446;
    EXPECT_EQ(DB2Connector::buildODBCConnectionString(c),
              "Driver={IBM DB2 ODBC DRIVER};Database=PROD;Hostname=mf;Port=446;Protocol=TCPIP;"
              "Uid=u;Pwd=p;Location=LOC1");
    EXPECT_EQ(DB2Connector::buildCLIConnectionString(c),
              "DATABASE=PROD;HOSTNAME=mf;PORT=446;PROTOCOL=TCPIP;UID=u;PWD=p;CURRENTSCHEMA=APP;"
              "LOCATION=LOC1");
}

TEST(DB2Connector, CatalogQueriesQuoteTheirNames) {
    EXPECT_EQ(DB2Connector::buildTablesQuery("x' OR '1'='1"),
              "SELECT TABNAME FROM SYSCAT.TABLES WHERE TABSCHEMA = 'x'' OR ''1''=''1' AND "
              "TYPE = 'T'");
    EXPECT_NE(DB2Connector::buildColumnsQuery("APP", "O'REILLY")
                  .find("\n          AND TABNAME = 'O''REILLY'\n"),
              std::string::npos);
    EXPECT_EQ(DB2Connector().escape("O'Brien"), "'O''Brien'");
}

}  // namespace
}  // namespace vostra::data
