// PostgreSQL and MySQL behaviour that needs no server; the rest is covered by
// the integration tests against real ones.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <map>
#include <nlohmann/json.hpp>

#include "connectors/mysql_connector.h"
#include "connectors/postgresql_connector.h"
#include "tests/connectors/closed_port.h"

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
    EXPECT_EQ(MySQLConnector::connectTimeoutSeconds(500), 1u);
    EXPECT_EQ(MySQLConnector::connectTimeoutSeconds(5000), 5u);
    EXPECT_EQ(MySQLConnector::connectTimeoutSeconds(2999), 2u);
    EXPECT_EQ(MySQLConnector::connectTimeoutSeconds(-3000), 1u);
}

TEST(NetworkConnectors, RefusedConnectionAndNoConnectionFailCleanly) {
    test::ClosedPort closed;
    ASSERT_NE(closed.port(), 0);
    DataSourceConfig c;
    c.host = "127.0.0.1";
    c.port = closed.port();
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
        EXPECT_FALSE(connector->isConnected());
        EXPECT_FALSE(connector->validate());
        const QueryResult r = connector->execute("UPDATE t SET a = 1", {"1"});
        EXPECT_EQ(r.error, "Not connected");
        EXPECT_EQ(connector->getLastError(), "Not connected");
        EXPECT_EQ(connector->getStats().at("queries_failed"), 1);
        EXPECT_FALSE(connector->beginTransaction());
        EXPECT_FALSE(connector->commit());
        EXPECT_TRUE(connector->getTables().empty());
        EXPECT_TRUE(connector->getSchema().tables.empty());
    }
    EXPECT_EQ(pg.escape("O'Brien \\"), "'O''Brien \\'");  // no backslash rules offline
}

}  // namespace
}  // namespace vostra::data
