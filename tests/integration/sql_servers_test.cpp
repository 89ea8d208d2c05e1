// The PostgreSQL and MySQL connectors against the private servers of the
// test run, at the connector level (statements, catalogs, transactions left
// open, statements over their time limit) and through the daemon's data API.
#include <gtest/gtest.h>
#include <unistd.h>

#include "connectors/data_source_config.h"
#include "connectors/mysql_connector.h"
#include "connectors/postgresql_connector.h"
#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"
#include "tests/support/test_servers.h"

namespace vostra::test {
namespace {

using data::DataSourceConfig;
using nlohmann::json;

// Names unique to this process, so parallel test processes never collide.
std::string unique(const std::string& stem) {
    return stem + "_" + std::to_string(getpid());
}

template <typename Connector, TestServer (*server)()>
class ConnectedTest : public ::testing::Test {
protected:
    void SetUp() override {
        TestServer s = server();
        if (!s.available) GTEST_SKIP() << "no " << s.type << " test server";
        config_ = DataSourceConfig::fromJson(s.sourceConfig("t"));
        ASSERT_TRUE(db_.connect(config_)) << db_.getLastError();
    }
    data::QueryResult run(const std::string& sql, const std::vector<std::string>& params = {}) {
        data::QueryResult result = db_.execute(sql, params);
        EXPECT_TRUE(result.success) << sql << ": " << result.error;
        return result;
    }
    // A BEGIN sent as a statement, a row written in it, then the clean-up a
    // pooled connection gets on return: the row is gone, later ones commit.
    void expectRolledBackForTheNextBorrower(const std::string& table) {
        (void)run("CREATE TABLE " + table + " (v INT)");
        ASSERT_TRUE(db_.execute("BEGIN", {}).success);
        (void)run("INSERT INTO " + table + " VALUES (1)");
        EXPECT_TRUE(db_.inTransaction());
        EXPECT_TRUE(db_.rollbackOpenTransaction());
        EXPECT_FALSE(db_.inTransaction());
        (void)run("INSERT INTO " + table + " VALUES (2)");
        Connector other;
        ASSERT_TRUE(other.connect(config_));
        EXPECT_EQ(other.query("SELECT SUM(v) AS s FROM " + table, {}).rows[0]["s"], "2");
        (void)run("DROP TABLE " + table);
    }
    DataSourceConfig config_;
    Connector db_;
};

using PostgresTest = ConnectedTest<data::PostgreSQLConnector, postgresServer>;
using MariadbTest = ConnectedTest<data::MySQLConnector, mariadbServer>;

TEST_F(PostgresTest, DescribesColumnsKeysAndDefaultsInAnotherSchema) {
    const std::string schema = unique("sch");
    (void)run("CREATE SCHEMA " + schema + "; CREATE TABLE " + schema +
        ".items (id SERIAL PRIMARY KEY, name TEXT NOT NULL DEFAULT 'x', note VARCHAR(20))");

    DataSourceConfig scoped = config_;
    scoped.schema = schema;
    data::PostgreSQLConnector db;
    ASSERT_TRUE(db.connect(scoped)) << db.getLastError();
    EXPECT_EQ(db.getTables(), std::vector<std::string>{"items"});
    auto columns = db.getColumns("items");
    ASSERT_EQ(columns.size(), 3u);
    EXPECT_EQ(columns[0].name, "id");
    EXPECT_TRUE(columns[0].primary_key);
    EXPECT_FALSE(columns[1].nullable);
    EXPECT_EQ(columns[1].default_value, "'x'::text");
    EXPECT_TRUE(columns[2].nullable);
    EXPECT_EQ(columns[2].type, "character varying");
    // search_path was set, so unqualified names resolve in the schema.
    EXPECT_TRUE(db.query("SELECT COUNT(*) FROM items", {}).success);

    auto public_tables = db_.getTables();
    EXPECT_EQ(std::count(public_tables.begin(), public_tables.end(), "items"), 0);
    (void)run("DROP SCHEMA " + schema + " CASCADE");
}

TEST_F(PostgresTest, CountsAffectedRowsRunsSeveralStatementsAndRoundTripsText) {
    const std::string table = unique("counts");
    (void)run("CREATE TABLE " + table + " (id INT, v TEXT, n TEXT); INSERT INTO " + table +
        " VALUES (1,'a'),(2,'a'),(3,'a'),(4,'b')");
    EXPECT_EQ(run("UPDATE " + table + " SET v = 'c' WHERE v = $1", {"a"}).affected_rows, 3);
    auto selected = run("SELECT * FROM " + table + " WHERE v = $1", {"c"});
    EXPECT_EQ(selected.rows.size(), 3u);
    EXPECT_EQ(selected.affected_rows, 0);
    EXPECT_FALSE(db_.execute("SELECT 1; SELECT 2", {"x"}).success);

    const std::string text = "Grüße, 東京, emoji 🚀, quote ' and backslash \\";
    (void)run("UPDATE " + table + " SET v = $1 WHERE id = 4", {text});
    auto back = run("SELECT v, n FROM " + table + " WHERE id = 4");
    ASSERT_EQ(back.rows.size(), 1u);
    EXPECT_EQ(back.rows[0]["v"], text);
    EXPECT_EQ(back.rows[0]["n"], "");  // NULL
    EXPECT_EQ(db_.escape("O'Brien"), "'O''Brien'");
    (void)run("DROP TABLE " + table);
}

// Texts with parameters are prepared once per connection; whatever drops
// them on the server (a DISCARD sent as SQL, a table changed under a cached
// plan) is met by preparing again, never by a failed query.
TEST_F(PostgresTest, PreparedStatementsAreReusedBoundedAndPreparedAgainWhenDropped) {
    const std::string table = unique("prepared");
    (void)run("CREATE TABLE " + table + " (id INT, v TEXT); INSERT INTO " + table + " VALUES (1, 'one')");
    const std::string select = "SELECT * FROM " + table + " WHERE id = $1";
    auto prepared = [&] { return std::stoi(std::string(run("SELECT count(*) AS n FROM pg_prepared_statements").rows[0]["n"])); };
    EXPECT_EQ(run(select, {"1"}).rows[0]["v"], "one");
    EXPECT_EQ(run(select, {"1"}).rows[0]["v"], "one");
    EXPECT_EQ(prepared(), 1);

    (void)run("DISCARD ALL");
    EXPECT_EQ(prepared(), 0);
    EXPECT_EQ(run(select, {"1"}).rows[0]["v"], "one");
    EXPECT_EQ(prepared(), 1);
    (void)run("DEALLOCATE ALL");
    EXPECT_EQ(run(select, {"1"}).rows[0]["v"], "one");

    (void)run("ALTER TABLE " + table + " ADD COLUMN extra TEXT DEFAULT 'x'");
    const auto widened = run(select, {"1"});
    EXPECT_EQ(widened.columns.size(), 3u);
    EXPECT_EQ(widened.rows[0]["extra"], "x");

    for (int i = 0; i < 80; ++i) (void)run("SELECT $1::int + " + std::to_string(i) + " AS n", {"1"});
    EXPECT_LE(prepared(), 64);
    EXPECT_FALSE(db_.execute("SELECT * FROM no_such_table_at_all WHERE id = $1", {"1"}).success);
    EXPECT_EQ(run(select, {"1"}).rows[0]["v"], "one");
    (void)run("DROP TABLE " + table);
}

TEST_F(PostgresTest, ACopyIsRefusedAndEndedSoTheConnectionGoesOn) {
    const std::string table = unique("copied");
    (void)run("CREATE TABLE " + table + " (v INT); INSERT INTO " + table + " VALUES (1), (2)");
    for (const std::string& copy :
         {"COPY " + table + " TO STDOUT", "COPY " + table + " FROM STDIN"}) {
        EXPECT_EQ(db_.execute(copy, {}).error, "COPY to or from the client is not supported");
        EXPECT_EQ(run("SELECT COUNT(*) AS n FROM " + table).rows[0]["n"], "2") << copy;
    }
    (void)run("DROP TABLE " + table);
}

TEST_F(MariadbTest, SplicesEscapedParametersAndDropsSurplusOnes) {
    const std::string table = unique("people");
    (void)run("CREATE TABLE " + table + " (a VARCHAR(20), b VARCHAR(20))");
    (void)run("INSERT INTO " + table + " VALUES (?, ?)", {"x", "O'Brien"});
    (void)run("INSERT INTO " + table + " VALUES (?, ?)", {"y", "what?"});

    auto found =
        run("SELECT * FROM " + table + " WHERE a = ? AND b = ?", {"x", "O'Brien", "extra"});
    ASSERT_EQ(found.rows.size(), 1u);
    EXPECT_EQ(found.rows[0]["b"], "O'Brien");
    // A "?" inside a value is never taken for a placeholder.
    EXPECT_EQ(run("SELECT b FROM " + table + " WHERE a = ? AND b = ?", {"y", "what?"}).rows.size(),
              1u);
    (void)run("DROP TABLE " + table);
}

TEST_F(MariadbTest, ReportsAutoIncrementKeysDescribesColumnsAndRoundTripsBytes) {
    const std::string table = unique("auto");
    (void)run("CREATE TABLE " + table +
        " (id INT AUTO_INCREMENT PRIMARY KEY, name VARCHAR(10) NOT NULL DEFAULT 'n', t TEXT,"
        " b VARBINARY(10)) CHARACTER SET utf8mb4");
    EXPECT_EQ(run("INSERT INTO " + table + " (t) VALUES (?)", {"a"}).last_insert_id, 1);
    const std::string text = "Grüße, 東京, emoji 🚀, back\\slash";
    auto second =
        run("INSERT INTO " + table + " (t, b) VALUES (?, CONCAT('a', CHAR(0), 'b'))", {text});
    EXPECT_EQ(second.last_insert_id, 2);
    EXPECT_EQ(second.affected_rows, 1);
    auto back = run("SELECT t, b FROM " + table + " WHERE id = 2");
    ASSERT_EQ(back.rows.size(), 1u);
    EXPECT_EQ(back.rows[0]["t"], text);
    EXPECT_EQ(back.rows[0]["b"], std::string("a\0b", 3));

    auto columns = db_.getColumns(table);
    ASSERT_EQ(columns.size(), 4u);
    EXPECT_TRUE(columns[0].primary_key);
    EXPECT_EQ(columns[0].ordinal_position, 1);
    EXPECT_FALSE(columns[1].nullable);
    EXPECT_EQ(columns[1].default_value, "n");
    auto tables = db_.getTables();
    EXPECT_NE(std::find(tables.begin(), tables.end(), table), tables.end());
    (void)run("DROP TABLE " + table);
}

// Long enough that a limit that does not work shows as a test that never ends.
constexpr const char* kForever = "3600";

TEST_F(PostgresTest, AStatementPastItsLimitIsCancelledAndTheConnectionGoesOn) {
    DataSourceConfig limited = config_;
    limited.pool_config.statement_timeout_ms = 300;
    data::PostgreSQLConnector db;
    ASSERT_TRUE(db.connect(limited)) << db.getLastError();
    const std::string sleep = std::string("SELECT pg_sleep(") + kForever + ")";
    EXPECT_EQ(db.query(sleep, {}).error, "Statement timed out after 300 ms");
    EXPECT_EQ(db.query("SELECT 1 AS one", {}).rows[0]["one"], "1");

    // A session reset in place keeps its limit.
    (void)run("SELECT pg_terminate_backend(" + db.query("SELECT pg_backend_pid() AS p", {}).rows[0]["p"] +
        ")");
    EXPECT_FALSE(db.query("SELECT 1", {}).success);  // how the client learns of it
    EXPECT_TRUE(db.validate());
    EXPECT_EQ(db.query(sleep, {}).error, "Statement timed out after 300 ms");

    // Inside a transaction the cancel fails the transaction, which then
    // waits to be rolled back.
    ASSERT_TRUE(db.execute("BEGIN", {}).success);
    EXPECT_FALSE(db.query(sleep, {}).success);
    EXPECT_TRUE(db.inTransaction());
    EXPECT_TRUE(db.rollbackOpenTransaction());
    EXPECT_EQ(db.query("SELECT 2 AS two", {}).rows[0]["two"], "2");
}

TEST_F(MariadbTest, AStatementPastItsLimitIsStoppedAndTheConnectionGoesOn) {
    DataSourceConfig limited = config_;
    limited.pool_config.statement_timeout_ms = 300;
    data::MySQLConnector db;
    ASSERT_TRUE(db.connect(limited)) << db.getLastError();
    // The server ends a SELECT with an error, but a DO with a mere warning.
    for (const char* verb : {"SELECT", "DO"}) {
        const std::string sleep = std::string(verb) + " SLEEP(" + kForever + ")";
        EXPECT_EQ(db.query(sleep, {}).error, "Statement timed out after 300 ms") << verb;
        EXPECT_EQ(db.query("SELECT 1 AS one", {}).rows[0]["one"], "1");
    }

    // The session the client library opens again by itself, here in the
    // middle of running the statement, has the limit too.
    const std::string session = db.query("SELECT CONNECTION_ID() AS id", {}).rows[0]["id"];
    (void)run("KILL " + session);
    EXPECT_EQ(db.query(std::string("SELECT SLEEP(") + kForever + ")", {}).error,
              "Statement timed out after 300 ms");
    EXPECT_NE(db.query("SELECT CONNECTION_ID() AS id", {}).rows[0]["id"], session);
}

TEST_F(PostgresTest, ATransactionLeftOpenIsRolledBackForTheNextBorrower) {
    expectRolledBackForTheNextBorrower(unique("open_tx"));
    // A transaction failed by an error is open just the same.
    ASSERT_TRUE(db_.execute("BEGIN", {}).success);
    EXPECT_FALSE(db_.execute("SELECT 1 / 0", {}).success);
    EXPECT_TRUE(db_.inTransaction());
    EXPECT_TRUE(db_.rollbackOpenTransaction());
    EXPECT_TRUE(db_.execute("SELECT 1", {}).success);
}

TEST_F(MariadbTest, ATransactionLeftOpenIsRolledBackForTheNextBorrower) {
    expectRolledBackForTheNextBorrower(unique("open_tx"));
    // With autocommit switched off every statement opens a transaction; the
    // return switches it back on, or the next borrower's writes would vanish.
    const std::string table = unique("no_autocommit");
    (void)run("CREATE TABLE " + table + " (v INT)");
    (void)run("SET autocommit = 0");
    (void)run("INSERT INTO " + table + " VALUES (1)");
    EXPECT_TRUE(db_.rollbackOpenTransaction());
    (void)run("INSERT INTO " + table + " VALUES (2)");
    EXPECT_FALSE(db_.inTransaction());
    data::MySQLConnector other;
    ASSERT_TRUE(other.connect(config_));
    EXPECT_EQ(other.query("SELECT SUM(v) AS s FROM " + table, {}).rows[0]["s"], "2");
    (void)run("DROP TABLE " + table);
}

// The same servers through the daemon's HTTP data API.
class SqlServersApiTest : public ::testing::TestWithParam<TestServer (*)()> {
protected:
    void SetUp() override {
        server_ = GetParam()();
        if (!server_.available) GTEST_SKIP() << "no test server";
        daemon_ = std::make_unique<DaemonProcess>();
        ASSERT_TRUE(daemon_->ready());
        json config = server_.sourceConfig("db");
        config["access_mode"] = "readwrite";
        ASSERT_EQ(request(daemon_->port(), "POST", "/api/v1/data/sources", config.dump()).status,
                  201);
    }
    HttpResponse call(const std::string& route, const std::string& sql,
                      const std::vector<std::string>& params = {}) {
        json body = {{"source_id", "db"}, {"sql", sql}, {"params", params}};
        return request(daemon_->port(), "POST", "/api/v1/data/" + route, body.dump());
    }
    std::string placeholder(int n) const {
        return server_.type == "postgresql" ? "$" + std::to_string(n) : "?";
    }
    TestServer server_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_P(SqlServersApiTest, ServesTablesSchemaQueriesAndStatements) {
    const std::string table = unique("api_" + server_.type);
    ASSERT_EQ(
        call("execute", "CREATE TABLE " + table + " (id INT PRIMARY KEY, name VARCHAR(40))").status,
        200);
    auto inserted =
        call("execute", "INSERT INTO " + table + " VALUES (1, " + placeholder(1) + "), (2, 'b')",
             {"ünïcödé"});
    EXPECT_EQ(inserted.status, 200) << inserted.body;
    EXPECT_EQ(inserted.json()["affected_rows"], 2);

    auto selected =
        call("query", "SELECT name FROM " + table + " WHERE id = " + placeholder(1), {"1"});
    EXPECT_EQ(selected.json()["rows"], json::parse(R"([{"name":"ünïcödé"}])"));

    auto tables = request(daemon_->port(), "GET", "/api/v1/data/sources/db/tables").json();
    EXPECT_NE(std::find(tables.begin(), tables.end(), table), tables.end());
    auto schema = request(daemon_->port(), "GET", "/api/v1/data/sources/db/schema").json();
    EXPECT_FALSE(schema["tables"].empty());

    auto broken = call("query", "SELECT * FROM no_such_table_here");
    EXPECT_EQ(broken.status, 500);
    EXPECT_FALSE(broken.json()["error"].get<std::string>().empty());
    EXPECT_EQ(call("execute", "DROP TABLE " + table).status, 200);
}

INSTANTIATE_TEST_SUITE_P(Servers, SqlServersApiTest,
                         ::testing::Values(&postgresServer, &mariadbServer), [](const auto& info) {
                             return info.param == &postgresServer ? std::string("PostgreSQL")
                                                                  : std::string("MariaDB");
                         });

}  // namespace
}  // namespace vostra::test
