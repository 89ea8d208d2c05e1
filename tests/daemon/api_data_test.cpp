// The data routes answered in process: which method and path gets which
// status, bodies the data API cannot read, refused registrations, and what
// a statement leaves behind (an open transaction, a figure, a long run).
#include <gtest/gtest.h>

#include "tests/support/in_process_daemon.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class DataRoutes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(daemon_.initialized());
        // An empty path is an in-memory database.
        ASSERT_EQ(call("POST", "/api/v1/data/sources",
                       json{{"id", "a"}, {"type", "sqlite"}, {"path", ""}}.dump())
                      .status,
                  201);
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "") {
        return daemon_.call(method, path, body);
    }
    HttpResponse add(json config) { return call("POST", "/api/v1/data/sources", config.dump()); }
    HttpResponse run(const std::string& route, const std::string& id, const std::string& sql) {
        return call("POST", "/api/v1/data/" + route, json{{"source_id", id}, {"sql", sql}}.dump());
    }

    InProcessDaemon daemon_;
};

TEST_F(DataRoutes, UnknownSubPathsAndMethodsGet404Or405) {
    EXPECT_EQ(call("GET", "/api/v1/data/sources/a").json()["id"], "a");
    EXPECT_EQ(call("GET", "/api/v1/data/sources/a/bogus").outcome(), "404 Not found");
    EXPECT_EQ(call("GET", "/api/v1/data/sources/a/").outcome(), "404 Not found");
    EXPECT_EQ(call("PUT", "/api/v1/data/sources/a").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("DELETE", "/api/v1/data/sources/a/tables").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("PATCH", "/api/v1/data/sources").status, 405);
    EXPECT_EQ(call("GET", "/api/v1/data/query").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("GET", "/api/v1/data/sources/nope").outcome(), "404 Data source not found");
    EXPECT_EQ(call("DELETE", "/api/v1/data/sources/nope").outcome(), "404 Data source not found");
    // Exact routes fail with a query string, and fall through to the index's 404.
    EXPECT_EQ(call("GET", "/api/v1/data/sources?x=1").outcome(), "404 Not found");
    EXPECT_EQ(call("GET", "/health?x=1").outcome(), "404 Not found");
}

TEST_F(DataRoutes, BodiesThatCannotBeReadAnswer400WithTheParsersMessage) {
    const HttpResponse not_json = call("POST", "/api/v1/data/sources", "{oops");
    EXPECT_NE(not_json.outcome().find("400 [json.exception.parse_error"), std::string::npos);
    EXPECT_EQ(call("POST", "/api/v1/data/sources", json{{"id", "x"}, {"port", "5432"}}.dump()).status,
              400);
    EXPECT_EQ(call("POST", "/api/v1/data/query",
                   json{{"source_id", "a"}, {"sql", "SELECT 1"}, {"params", "1"}}.dump())
                  .status,
              400);
    EXPECT_EQ(call("POST", "/api/v1/data/execute", json{{"source_id", 7}}.dump()).status, 400);
    EXPECT_EQ(call("POST", "/api/v1/data/query", json{{"source_id", "a"}, {"sql", "SELECT 1"}}.dump())
                  .json()["rows"][0]["1"],
              "1");
}

TEST_F(DataRoutes, RefusedRegistrationsSayWhyAndLeaveNothingBehind) {
    const std::string missing = daemon_.dir() + "/missing.db";
    const std::pair<json, std::string> cases[] = {
        {{{"id", "big"}, {"pool_config", {{"min_connections", 100000}}}},
         "min_connections 100000 is above the limit of 1000"},
        {{{"id", "upside"}, {"pool_config", {{"min_connections", 5}, {"max_connections", 2}}}},
         "min_connections 5 is above max_connections 2"},
        {{{"id", "a"}}, "Data source already exists: a"},
        {{{"id", ""}}, "Data source id is empty"},
        {{{"id", "gone"}, {"path", missing}},
         "Could not create any connections for gone: unable to open database file"},
    };
    for (const auto& [config, detail] : cases) {
        json full = {{"type", "sqlite"}, {"path", ""}};
        full.update(config);
        const HttpResponse refused = add(full);
        EXPECT_EQ(refused.status, 400) << detail;
        EXPECT_EQ(refused.json(),
                  (json{{"error", "Failed to add data source"}, {"detail", detail}}));
    }
    EXPECT_EQ(call("GET", "/api/v1/data/sources").json().size(), 1u);
}

TEST_F(DataRoutes, ABeginLeftOpenEndsWithItsRequest) {
    const std::string file = daemon_.dir() + "/tx.db";
    ASSERT_EQ(add({{"id", "w"},
                   {"path", file},
                   {"access_mode", "readwrite"},
                   {"pool_config", {{"max_connections", 1}}}})
                  .status,
              201);
    ASSERT_EQ(run("execute", "w", "CREATE TABLE t (v INTEGER)").status, 200);
    EXPECT_EQ(run("execute", "w", "BEGIN").status, 200);
    // The one pooled connection comes back outside the first BEGIN.
    const HttpResponse again = run("execute", "w", "BEGIN");
    EXPECT_EQ(again.status, 200) << again.body;
    EXPECT_EQ(run("execute", "w", "INSERT INTO t VALUES (1)").status, 200);
    ASSERT_EQ(add({{"id", "r"}, {"path", file}}).status, 201);
    EXPECT_EQ(run("query", "r", "SELECT COUNT(*) AS n FROM t").json()["rows"][0]["n"], "1");
}

TEST_F(DataRoutes, AStatementPastTheSourcesLimitFailsAndTheSourceCarriesOn) {
    ASSERT_EQ(add({{"id", "slow"}, {"path", ""}, {"pool_config", {{"statement_timeout_ms", 200}}}})
                  .status,
              201);
    const auto counting = [](const std::string& bound) {
        return "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n" + bound +
               ") SELECT COUNT(*) AS c FROM n";
    };
    const HttpResponse endless = run("query", "slow", counting(""));
    EXPECT_EQ(endless.outcome(), "500 Statement timed out after 200 ms");
    EXPECT_EQ(endless.json()["success"], false);
    // The same connection goes on, and work within the limit is untouched.
    EXPECT_EQ(run("query", "slow", counting(" WHERE i < 5000")).json()["rows"][0]["c"], "5000");
    const json status = call("GET", "/api/v1/data/sources/slow").json();
    EXPECT_EQ(status["queries_failed"], 1);
    EXPECT_EQ(status["queries_executed"], 1);
}

TEST_F(DataRoutes, LastUsedMovesOnlyWhenAStatementRan) {
    // "a" is read-only: the statement is refused before any connector sees it.
    EXPECT_EQ(run("execute", "a", "CREATE TABLE t (v)").outcome(), "500 Data source is read-only");
    json status = call("GET", "/api/v1/data/sources/a").json();
    EXPECT_EQ(status["queries_failed"], 1);
    EXPECT_EQ(status["last_error"], "Data source is read-only");
    EXPECT_EQ(status["last_used"], 0);
    ASSERT_EQ(run("query", "a", "SELECT 1").status, 200);
    status = call("GET", "/api/v1/data/sources/a").json();
    EXPECT_GT(status["last_used"].get<int64_t>(), 0);
}

}  // namespace
}  // namespace vostra::test
