// The data routes answered in process: which method and path gets which
// status, and bodies the data API cannot read.
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

}  // namespace
}  // namespace vostra::test
