// Reused prepared statements must behave exactly like freshly prepared ones.
#include <gtest/gtest.h>

#include "connectors/sqlite_connector.h"
#include "tests/connectors/scratch_dir.h"

namespace vostra::data {
namespace {

DataSourceConfig fileSource(const std::string& path) {
    DataSourceConfig c;
    c.path = path;
    c.access_mode = AccessMode::ReadWrite;
    return c;
}

TEST(SQLiteStatementCache, FollowsSchemaChangesAndKeepsBindingRules) {
    SQLiteConnector db;
    ASSERT_TRUE(db.connect(fileSource("")));
    ASSERT_TRUE(db.execute("CREATE TABLE t (a TEXT)", {}).success);
    ASSERT_TRUE(db.execute("INSERT INTO t VALUES (?)", {"x"}).success);
    const std::string select = "SELECT * FROM t";
    EXPECT_EQ(db.query(select, {}).columns, std::vector<std::string>{"a"});

    ASSERT_TRUE(db.execute("DROP TABLE t", {}).success);
    QueryResult gone = db.query(select, {});
    EXPECT_FALSE(gone.success);
    EXPECT_EQ(gone.error, "no such table: t");

    ASSERT_TRUE(db.execute("CREATE TABLE t (b TEXT, c TEXT)", {}).success);
    QueryResult again = db.query(select, {});
    ASSERT_TRUE(again.success) << again.error;
    EXPECT_EQ(again.columns, (std::vector<std::string>{"b", "c"}));

    // Bindings never carry over from an earlier run of the same text.
    ASSERT_TRUE(db.execute("INSERT INTO t VALUES (?, ?)", {"1", "2"}).success);
    EXPECT_FALSE(db.execute("INSERT INTO t VALUES (?, ?)", {"1", "2", "3"}).success);
    ASSERT_TRUE(db.execute("INSERT INTO t VALUES (?, ?)", {"3"}).success);
    QueryResult rows = db.query("SELECT c FROM t WHERE b = ?", {"3"});
    ASSERT_EQ(rows.rows.size(), 1u);
    EXPECT_EQ(rows.rows[0]["c"], "");
}

TEST(SQLiteStatementCache, AFinishedReadHoldsNoLockAgainstOtherConnections) {
    test::ScratchDir dir;
    SQLiteConnector reader, writer;
    ASSERT_TRUE(writer.connect(fileSource(dir.file("db.sqlite"))));
    ASSERT_TRUE(writer.execute("CREATE TABLE t (n INTEGER)", {}).success);
    ASSERT_TRUE(writer.execute("INSERT INTO t VALUES (1), (2)", {}).success);
    ASSERT_TRUE(reader.connect(fileSource(dir.file("db.sqlite"))));

    // Stop after the first of two rows would leave a statement active; the
    // connector must always run it to the end and reset it.
    ASSERT_TRUE(reader.query("SELECT n FROM t", {}).success);
    ASSERT_TRUE(writer.beginTransaction());
    EXPECT_TRUE(writer.execute("DELETE FROM t", {}).success);
    EXPECT_TRUE(writer.commit());

    reader.disconnect();  // closes cleanly with statements still cached
    EXPECT_FALSE(reader.isConnected());
}

}  // namespace
}  // namespace vostra::data
