#include "connectors/sqlite_connector.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/daemon_process.h"

namespace vostra::data {
namespace {

DataSourceConfig writable(const std::string& path = "") {
    DataSourceConfig c;
    c.id = "local";
    c.path = path;
    c.access_mode = AccessMode::ReadWrite;
    return c;
}

// An open in-memory database with an empty table of people.
class SQLiteConnectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.connect(writable()));
        ASSERT_TRUE(run("CREATE TABLE people (id INTEGER PRIMARY KEY, name TEXT, age INTEGER)"));
    }
    bool run(const std::string& sql, const std::vector<std::string>& params = {}) {
        return db.execute(sql, params).success;
    }
    size_t count(const std::string& table = "people") {
        return db.query("SELECT * FROM " + table, {}).rows.size();
    }
    SQLiteConnector db;
};

TEST_F(SQLiteConnectorTest, StatementsReportRowsChangesAndIdsAsText) {
    const QueryResult insert = db.query(
        "INSERT INTO people (id, name, age) VALUES (41, ?, ?), (42, '', NULL)", {"O'Brien", "52"});
    ASSERT_TRUE(insert.success) << insert.error;
    EXPECT_TRUE(insert.columns.empty() && insert.rows.empty());
    EXPECT_EQ(insert.affected_rows, 2);
    EXPECT_EQ(insert.last_insert_id, 42);

    // A SELECT repeats the last modification's change count.
    const QueryResult select = db.execute("SELECT name, age, 1.5 AS r FROM people ORDER BY id", {});
    EXPECT_EQ(select.affected_rows, 2);
    EXPECT_EQ(select.columns, (std::vector<std::string>{"name", "age", "r"}));
    ASSERT_EQ(select.rows.size(), 2u);
    EXPECT_EQ(select.rows[0]["name"], "O'Brien");
    EXPECT_EQ(select.rows[0]["age"], "52");
    EXPECT_EQ(select.rows[0]["r"], "1.5");
    EXPECT_EQ(select.rows[1]["age"], "");  // NULL and '' look alike
    EXPECT_EQ(db.query("SELECT 1 AS v, 2 AS v", {}).rows[0].size(), 1u);
}

TEST_F(SQLiteConnectorTest, FailuresCarrySQLitesMessageAndRunNothing) {
    const QueryResult surplus = db.execute("INSERT INTO people (name) VALUES (?)", {"a", "b"});
    EXPECT_FALSE(surplus.success);
    EXPECT_EQ(surplus.error, "column index out of range");
    EXPECT_EQ(count(), 0u);
    EXPECT_NE(db.query("SELEC nonsense", {}).error.find("syntax error"), std::string::npos);
    const std::string last = db.getLastError();
    EXPECT_TRUE(
        run("INSERT INTO people (name) VALUES ('a'); INSERT INTO people (name) VALUES ('b')"));
    EXPECT_EQ(count(), 1u) << "only the first statement runs";
    EXPECT_EQ(db.getLastError(), last) << "successes leave the last error";
    EXPECT_EQ(db.getStats().at("queries_failed"), 2);

    // abs() of the smallest integer overflows at the second row only.
    ASSERT_TRUE(run("INSERT INTO people (id) VALUES (2), (3)"));
    const QueryResult partial = db.query(
        "SELECT CASE WHEN id = 2 THEN abs(-9223372036854775807 - 1) ELSE id END AS v "
        "FROM people ORDER BY id",
        {});
    EXPECT_EQ(partial.error, "integer overflow");
    ASSERT_EQ(partial.rows.size(), 1u);  // rows read before the failure stay
}

TEST_F(SQLiteConnectorTest, TransactionFlagFollowsTheOutcome) {
    EXPECT_FALSE(db.commit()) << "commit without begin";
    ASSERT_TRUE(db.beginTransaction());
    EXPECT_FALSE(db.beginTransaction());
    ASSERT_TRUE(run("INSERT INTO people (name) VALUES ('gone')"));
    ASSERT_TRUE(db.rollback());
    EXPECT_EQ(count(), 0u);

    // A failed COMMIT keeps the transaction open for a ROLLBACK.
    ASSERT_TRUE(
        run("CREATE TABLE pets (owner INTEGER REFERENCES people(id) DEFERRABLE "
            "INITIALLY DEFERRED)"));
    ASSERT_TRUE(db.beginTransaction());
    ASSERT_TRUE(run("INSERT INTO pets VALUES (99)"));
    EXPECT_FALSE(db.commit());
    EXPECT_EQ(db.getLastError(), "FOREIGN KEY constraint failed");
    EXPECT_TRUE(db.rollback());
    EXPECT_EQ(count("pets"), 0u);

    // A failed ROLLBACK still ends it.
    ASSERT_TRUE(db.beginTransaction());
    ASSERT_TRUE(run("ROLLBACK"));
    EXPECT_FALSE(db.rollback());
    EXPECT_TRUE(db.beginTransaction());
}

TEST_F(SQLiteConnectorTest, CatalogListsUserTablesAndDescribesQuotedNames) {
    ASSERT_TRUE(
        run("CREATE TABLE \"it's\" (id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "label TEXT NOT NULL DEFAULT 'none', loose)"));
    ASSERT_TRUE(run("INSERT INTO \"it's\" (label) VALUES ('x')"));  // creates sqlite_sequence
    ASSERT_TRUE(run("CREATE VIEW adults AS SELECT * FROM people WHERE age >= 18"));
    EXPECT_EQ(db.getTables(), (std::vector<std::string>{"people", "it's"}));

    const std::vector<ColumnInfo> columns = db.getColumns("it's");
    ASSERT_EQ(columns.size(), 3u);
    EXPECT_TRUE(columns[0].primary_key && columns[0].nullable);
    EXPECT_EQ(columns[1].type, "TEXT");
    EXPECT_FALSE(columns[1].nullable || columns[1].primary_key);
    EXPECT_EQ(columns[1].default_value, "'none'");
    EXPECT_EQ(columns[2].type, "");
    EXPECT_EQ(columns[2].ordinal_position, 2);

    const SchemaInfo schema = db.getSchema();
    EXPECT_EQ(schema.source_id, "local");
    ASSERT_EQ(schema.tables.size(), 2u);
    EXPECT_EQ(schema.tables[0].type, "TABLE");
    EXPECT_EQ(schema.tables[0].columns.size(), 3u);
    EXPECT_EQ(db.escape("O'Brien"), "'O''Brien'");
}

TEST(SQLiteConnector, ConnectChoosesTheFileAndItsAccess) {
    const std::string dir = test::makeTempDir("vostra-conn");
    SQLiteConnector db;
    EXPECT_FALSE(db.query("SELECT 1", {}).success);
    EXPECT_EQ(db.getLastError(), "Not connected");
    EXPECT_FALSE(db.validate());

    DataSourceConfig read_only;
    read_only.path = dir + "/shop.db";
    EXPECT_FALSE(db.connect(read_only)) << "a read-only source needs an existing file";
    EXPECT_EQ(db.getLastError(), "unable to open database file");

    ASSERT_TRUE(db.connect(writable(read_only.path)));
    ASSERT_TRUE(db.execute("CREATE TABLE items (name TEXT)", {}).success);
    ASSERT_TRUE(db.beginTransaction());
    ASSERT_TRUE(db.execute("INSERT INTO items VALUES ('x')", {}).success);
    ASSERT_TRUE(db.connect(read_only));  // reconnecting rolls the insert back
    EXPECT_TRUE(db.validate());
    EXPECT_TRUE(db.query("SELECT * FROM items", {}).rows.empty());
    EXPECT_EQ(db.execute("INSERT INTO items VALUES ('x')", {}).error,
              "attempt to write a readonly database");

    ASSERT_TRUE(db.connect(writable()));  // memory: empty at every connect
    EXPECT_TRUE(db.getTables().empty());
    test::removeTree(dir);
}

TEST_F(SQLiteConnectorTest, ReusedStatementsFollowSchemaChangesAndKeepBindingRules) {
    const std::string select = "SELECT * FROM people";
    EXPECT_EQ(db.query(select, {}).columns.size(), 3u);
    ASSERT_TRUE(run("DROP TABLE people"));
    EXPECT_EQ(db.query(select, {}).error, "no such table: people");
    ASSERT_TRUE(run("CREATE TABLE people (b TEXT, c TEXT)"));
    EXPECT_EQ(db.query(select, {}).columns, (std::vector<std::string>{"b", "c"}));

    // Bindings never carry over from an earlier run of the same text.
    const std::string insert = "INSERT INTO people VALUES (?, ?)";
    ASSERT_TRUE(run(insert, {"1", "2"}));
    EXPECT_FALSE(run(insert, {"1", "2", "3"}));
    ASSERT_TRUE(run(insert, {"3"}));
    const QueryResult rows = db.query("SELECT c FROM people WHERE b = ?", {"3"});
    ASSERT_EQ(rows.rows.size(), 1u);
    EXPECT_EQ(rows.rows[0]["c"], "");
}

TEST(SQLiteConnector, AFinishedReadHoldsNoLockAgainstOtherConnections) {
    const std::string file = test::makeTempDir("vostra-conn") + "/db.sqlite";
    SQLiteConnector reader, writer;
    ASSERT_TRUE(writer.connect(writable(file)));
    ASSERT_TRUE(writer.execute("CREATE TABLE t (n INTEGER)", {}).success);
    ASSERT_TRUE(writer.execute("INSERT INTO t VALUES (1), (2)", {}).success);
    ASSERT_TRUE(reader.connect(writable(file)));

    // Stop after the first of two rows would leave a statement active; the
    // connector must always run it to the end and reset it.
    ASSERT_TRUE(reader.query("SELECT n FROM t", {}).success);
    ASSERT_TRUE(writer.beginTransaction());
    EXPECT_TRUE(writer.execute("DELETE FROM t", {}).success);
    EXPECT_TRUE(writer.commit());
    reader.disconnect();  // closes cleanly with statements still cached
    EXPECT_FALSE(reader.isConnected());
    test::removeTree(file.substr(0, file.rfind('/')));
}

}  // namespace
}  // namespace vostra::data
