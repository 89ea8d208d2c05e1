// The vector routes answered in process: the store switched on and off by
// its settings route, and every request it cannot serve.
#include <gtest/gtest.h>

#include "tests/support/in_process_daemon.h"

namespace vostra::test {
namespace {

using nlohmann::json;

const std::string kVector = "/api/v1/vector";
const std::string kNotEnabled =
    "Vector storage service not enabled. Enable it via /api/v1/vector/config or dashboard.";

class VectorRoutes : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(daemon_.initialized()); }
    HttpResponse call(const std::string& method, const std::string& path,
                      const json& body = nullptr, const std::vector<std::string>& headers = {}) {
        return daemon_.call(method, kVector + path, body.is_null() ? "" : body.dump(), headers);
    }
    void enableLocalEmbeddings() {
        const json settings = {{"enabled", true}, {"embedding", {{"type", 1}, {"dimension", 256}}}};
        const HttpResponse put = call("PUT", "/config", settings);
        ASSERT_EQ(put.status, 200) << put.body;
        ASSERT_EQ(put.json()["message"], "Vector storage service started");
    }

    InProcessDaemon daemon_;
    const std::string dir_ = daemon_.dir();
};

TEST_F(VectorRoutes, SwitchedOffItAnswers503ExceptForItsSettings) {

    for (const std::string path : {"/health", "/namespaces/acme", "/search", "/config?x=1", "x"}) {
        EXPECT_EQ(call("GET", path).outcome(), "503 " + kNotEnabled) << path;
    }
    const json settings = call("GET", "/config").json();
    EXPECT_EQ(settings["enabled"], false);
    EXPECT_EQ(settings["storage_path"], dir_ + "/vectors");
    EXPECT_EQ(call("POST", "/config", json::object()).status, 405);

    EXPECT_EQ(call("PUT", "/config", json{{"chunk_size", "large"}}).outcome(),
              "400 Failed to update configuration");

    enableLocalEmbeddings();
    EXPECT_EQ(call("GET", "/health").json()["status"], "healthy");
    EXPECT_EQ(call("PUT", "/config", json{{"enabled", false}}).json()["message"],
              "Vector storage service stopped");
    EXPECT_EQ(call("GET", "/health").status, 503);
    EXPECT_EQ(call("PUT", "/config", json{{"enabled", false}}).json()["status"], "unchanged");
}

TEST_F(VectorRoutes, RequestsItCannotServeGetClearAnswers) {

    enableLocalEmbeddings();
    EXPECT_EQ(call("POST", "/ingest", {{"text", "x"}}).outcome(), "400 Missing 'source' field");
    EXPECT_EQ(call("POST", "/search", {{"top_k", 3}}).outcome(), "400 Missing 'query' field");
    EXPECT_EQ(call("POST", "/embed", json::object()).outcome(),
              "400 Missing 'text' or 'texts' field");
    EXPECT_EQ(call("GET", "/search").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("GET", "/nothing-here").outcome(), "404 Vector endpoint not found");
    EXPECT_EQ(call("DELETE", "/namespaces/acme/none").outcome(), "404 Namespace not found");
    EXPECT_EQ(call("POST", "/namespaces/acme/..", json::object()).outcome(),
              "400 Failed to create namespace");
    EXPECT_EQ(
        call("POST", "/search", {{"query", "x"}, {"filter", {{"k') OR 1=1", "v"}}}}).outcome(),
        "400 Invalid filter key: k') OR 1=1");
    EXPECT_EQ(daemon_.call("POST", kVector + "/search", "not json").status, 400);
    EXPECT_EQ(call("POST", "/search", json::array()).status, 400);
    EXPECT_EQ(call("POST", "/documents/acme/docs", {{"documents", {{{"content", "hi"}}}}}).status,
              201);

    const json embedded = call("POST", "/embed", {{"texts", {"a", "b c"}}}).json();
    EXPECT_EQ(embedded["count"], 2);
    EXPECT_EQ(embedded["dimension"], 256);
}

TEST_F(VectorRoutes, DocumentPathsWithAndWithoutAnIdServeDifferentMethods) {
    enableLocalEmbeddings();
    const json one = {{"documents", {{{"id", "a/b"}, {"content", "hi"}}}}};
    EXPECT_EQ(call("POST", "/documents/acme/docs/", one).status, 201);
    EXPECT_EQ(call("GET", "/documents/acme/docs/a/b").json()["id"], "a/b");
    EXPECT_EQ(call("GET", "/documents/acme/docs").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("POST", "/documents/acme/docs/a/b", one).outcome(), "405 Method not allowed");
    EXPECT_EQ(call("GET", "/documents/acme").outcome(), "404 Vector endpoint not found");
    EXPECT_EQ(call("GET", "/sources/acme/docs/x").outcome(), "404 Vector endpoint not found");
    EXPECT_EQ(call("DELETE", "/documents/acme/docs", json::object()).outcome(),
              "400 Missing 'ids' field");
    EXPECT_EQ(call("DELETE", "/documents/acme/docs/", {{"ids", {"a/b"}}}).json()["deleted_count"],
              1);
    // "/namespaces" and "/namespaces/" both list the request's own tenant.
    ASSERT_EQ(call("POST", "/namespaces/", {{"namespace_id", "kb"}}, {"X-Tenant-Id: t1"}).status,
              201);
    EXPECT_EQ(call("GET", "/namespaces", nullptr, {"X-Tenant-Id: t1"}).json()["count"], 1);
    EXPECT_EQ(call("GET", "/namespaces/t1/kb/extra").outcome(), "404 Vector endpoint not found");
    EXPECT_EQ(call("DELETE", "/namespaces/t1").outcome(), "405 Method not allowed");
}

}  // namespace
}  // namespace vostra::test
