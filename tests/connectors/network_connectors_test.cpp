// The connectors for database servers, as far as no server is needed:
// PostgreSQL and MySQL (the rest is checked against real ones) and DB2,
// which is built without a driver.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <map>
#include <nlohmann/json.hpp>

#include "connectors/db2_cli_connector.h"
#include "connectors/db2_connector.h"
#include "connectors/db2_odbc_connector.h"
#include "connectors/mysql_connector.h"
#include "connectors/postgresql_connector.h"
#include "tests/support/daemon_process.h"

namespace vostra::data {
namespace {

// What libpq itself reads from `conninfo`: keyword to value, set ones only.
std::map<std::string, std::string> parsedByLibpq(const std::string& conninfo) {
    std::map<std::string, std::string> values;
    PQconninfoOption* options = PQconninfoParse(conninfo.c_str(), nullptr);
    for (PQconninfoOption* o = options; o != nullptr && o->keyword != nullptr; ++o) {
        if (o->val != nullptr) values[o->keyword] = o->val;
    }
    PQconninfoFree(options);
    return values;
}

TEST(PostgreSQLConnector, LibpqReadsBackEveryConnectionValueExactly) {
    DataSourceConfig c;
    c.host = "db.internal";
    c.username = "app";
    c.password = "pa ss'w\\rd";
    c.use_ssl = true;
    c.ssl_cert_path = "/etc/ssl/root ca.pem";
    c.pool_config.connection_timeout_ms = 7500;
    auto parsed = parsedByLibpq(PostgreSQLConnector::buildConnectionInfo(c));
    EXPECT_EQ(parsed["port"], "5432");
    EXPECT_EQ(parsed["dbname"], "");  // empty stays empty, swallowing nothing
    EXPECT_EQ(parsed["user"], "app");
    EXPECT_EQ(parsed["password"], c.password);
    EXPECT_EQ(parsed["connect_timeout"], "7");
    EXPECT_EQ(parsed["sslmode"], "require");
    EXPECT_EQ(parsed["sslrootcert"], c.ssl_cert_path);

    c.use_ssl = false;
    c.pool_config.connection_timeout_ms = 300;
    parsed = parsedByLibpq(PostgreSQLConnector::buildConnectionInfo(c));
    EXPECT_EQ(parsed["connect_timeout"], "1");
    EXPECT_EQ(parsed.count("sslmode"), 0u);
}

TEST(MySQLConnector, SplicesParametersLeftToRightAsLiterals) {
    MySQLConnector offline;
    auto splice = [&](const std::string& sql, const std::vector<std::string>& params) {
        return MySQLConnector::spliceParameters(
            sql, params, [&](const std::string& p) { return offline.escape(p); });
    };
    EXPECT_EQ(splice("SELECT * FROM t WHERE a = ? AND b = ?", {"x", "O'Brien"}),
              "SELECT * FROM t WHERE a = 'x' AND b = 'O''Brien'");
    EXPECT_EQ(splice("a = ? AND b = ?", {"1", "2", "3"}), "a = '1' AND b = '2'");
    EXPECT_EQ(splice("a = ? AND b = ?", {"1"}), "a = '1' AND b = ?");
    // Inserted text is never searched again; a quoted "?" is a placeholder.
    EXPECT_EQ(splice("a = ? AND b = ?", {"why?", "2"}), "a = 'why?' AND b = '2'");
    EXPECT_EQ(splice("a = '?' AND b = ?", {"1"}), "a = ''1'' AND b = ?");
    EXPECT_EQ(offline.escape("a\\b'c"), "'a\\\\b''c'");
}

TEST(MySQLConnector, ConnectTimeoutIsWholeSecondsButAtLeastOne) {
    const std::pair<int, unsigned> cases[] = {{500, 1}, {5000, 5}, {2999, 2}, {-3000, 1}};
    for (const auto& [ms, seconds] : cases)
        EXPECT_EQ(MySQLConnector::connectTimeoutSeconds(ms), seconds) << ms;
}

TEST(NetworkConnectors, RefusedConnectionAndNoConnectionFailCleanly) {
    DataSourceConfig c;
    c.host = "127.0.0.1";
    c.port = test::freePort();  // nobody listens there
    c.database = c.username = c.password = "app";
    PostgreSQLConnector pg;
    MySQLConnector my;
    const std::pair<DataConnector*, const char*> cases[] = {{&pg, "Connection refused"},
                                                            {&my, "127.0.0.1"}};
    for (const auto& [connector, reason] : cases) {
        SCOPED_TRACE(connector->getName());
        EXPECT_FALSE(connector->connect(c));
        EXPECT_NE(connector->getLastError().find(reason), std::string::npos)
            << connector->getLastError();
        EXPECT_FALSE(connector->isConnected() || connector->validate());
        const QueryResult r = connector->execute("UPDATE t SET a = 1", {"1"});
        EXPECT_EQ(r.error, "Not connected");
        EXPECT_EQ(connector->getLastError(), "Not connected");
        EXPECT_EQ(connector->getStats().at("queries_failed"), 1);
        EXPECT_FALSE(connector->beginTransaction() || connector->commit());
        EXPECT_TRUE(connector->getTables().empty() && connector->getSchema().tables.empty());
    }
    EXPECT_EQ(pg.escape("O'Brien \\"), "'O''Brien \\'");  // no backslash rules offline
}

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
    const std::string odbc = "Driver={IBM DB2 ODBC DRIVER};Database=PROD;Hostname=mf;Port=";
    const std::string cli = "DATABASE=PROD;HOSTNAME=mf;PORT=";
    EXPECT_EQ(DB2Connector::buildODBCConnectionString(c),
              odbc + "50000;Protocol=TCPIP;Uid=u;Pwd=p");
    EXPECT_EQ(DB2Connector::buildCLIConnectionString(c), cli + "50000;PROTOCOL=TCPIP;UID=u;PWD=p");
    c.is_zos = true;
    c.schema = "APP";
    c.port = 446;
    EXPECT_EQ(DB2Connector::buildODBCConnectionString(c),
              odbc + "446;Protocol=TCPIP;Uid=u;Pwd=p;Location=LOC1");
    EXPECT_EQ(DB2Connector::buildCLIConnectionString(c),
              cli + "446;PROTOCOL=TCPIP;UID=u;PWD=p;CURRENTSCHEMA=APP;LOCATION=LOC1");
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
