// The vector routes answered in process: the store switched on and off by
// its settings route, and every request it cannot serve.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

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

TEST_F(VectorRoutes, SettingsNeverShowTheApiKeyAndTheMaskKeepsIt) {
    const json with_key = {{"embedding", {{"type", 1}, {"dimension", 8}, {"api_key", "s3cret"}}}};
    const HttpResponse put = call("PUT", "/config", with_key);
    ASSERT_EQ(put.status, 200) << put.body;
    EXPECT_EQ(put.json()["config"]["embedding"]["api_key"], "********");
    EXPECT_EQ(call("GET", "/config").json()["embedding"]["api_key"], "********");
    EXPECT_EQ(put.body.find("s3cret"), std::string::npos);

    // Sending the mask back changes other settings and keeps the key.
    ASSERT_EQ(call("PUT", "/config", {{"chunk_size", 300}, {"embedding", {{"api_key", "********"}}}})
                  .status,
              200);
    const std::string file = dir_ + "/vectors/vector_config.json";
    std::ifstream in(file);
    std::stringstream saved;
    saved << in.rdbuf();
    EXPECT_EQ(json::parse(saved.str())["embedding"]["api_key"], "s3cret");
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(VectorRoutes, NamespacesAreIdempotentAndBadVectorsAreRefused) {
    enableLocalEmbeddings();
    ASSERT_EQ(call("POST", "/namespaces/acme/kb", {{"name", "First"}}).status, 201);
    const HttpResponse again = call("POST", "/namespaces/acme/kb", {{"name", "Second"}});
    EXPECT_EQ(again.status, 201);
    EXPECT_EQ(again.json()["namespace"]["name"], "First");

    // JSON has no NaN, but a number too large for a float becomes infinite.
    const HttpResponse added = daemon_.call("POST", kVector + "/documents/acme/kb",
                                            R"({"documents":[{"content":"x","embedding":[1,1e39]}]})");
    EXPECT_EQ(added.outcome(), "400 Invalid embedding: every value must be a finite number");
    EXPECT_EQ(call("POST", "/search", {{"namespace_id", "kb"}, {"query_embedding", {1e39, 0.0}}},
                   {"X-Tenant-Id: acme"})
                  .outcome(),
              "400 Invalid query embedding: every value must be a finite number");
}

TEST_F(VectorRoutes, AnIngestSaysHowManyChunksGotNoVector) {
    // An embedding service that is not there: chunks are stored with zeros.
    const json settings = {{"enabled", true},
                           {"embedding", {{"type", 0}, {"url", "http://127.0.0.1:9"}, {"dimension", 4}}}};
    ASSERT_EQ(call("PUT", "/config", settings).status, 200);
    const HttpResponse ingested = call(
        "POST", "/ingest", {{"tenant_id", "acme"}, {"source", "s"}, {"text", "One. Two."}});
    ASSERT_EQ(ingested.status, 201) << ingested.body;
    EXPECT_EQ(ingested.json()["zero_vector_chunks"], ingested.json()["embeddings_generated"]);
    EXPECT_GE(ingested.json()["zero_vector_chunks"].get<int>(), 1);
    // Text search still finds them, and without a query lists them all.
    EXPECT_EQ(call("POST", "/text-search", {{"tenant_id", "acme"}}).json()["count"],
              ingested.json()["documents_added"]);
}

}  // namespace
}  // namespace vostra::test
