// The vector API of the real binary over HTTP: the store switched on and
// off at run time, text ingested and found again with the local embedder,
// and namespaces and documents carried across a restart.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

const std::string kVector = "/api/v1/vector";
const std::string kNotEnabled =
    "Vector storage service not enabled. Enable it via /api/v1/vector/config or dashboard.";
const std::vector<std::string> kAcme = {"X-Tenant-Id: acme"};

class VectorApi : public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-vecapi"); }
    void TearDown() override {
        // A clean exit also means no sanitizer report in instrumented builds.
        if (daemon_) {
            EXPECT_EQ(daemon_->stop(), 0) << daemon_->stderrText();
        }
        daemon_.reset();
        removeTree(dir_);
    }

    // There are no vector options, so everything goes through one file; the
    // fixture's own "-p" is lost behind it, hence our own port.
    void start(const json& extra = json::object()) {
        port_ = freePort();
        json config = {{"port", port_},
                       {"storage_path", dir_ + "/storage"},
                       {"vector_path", dir_ + "/vectors"}};
        config.update(extra);
        const std::string file = dir_ + "/config.json";
        std::ofstream(file) << config.dump();
        daemon_ =
            std::make_unique<DaemonProcess>(std::vector<std::string>{"--config", file}, false);
        ASSERT_TRUE(daemon_->waitReady(port_)) << daemon_->stderrText();
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const json& body = nullptr, const std::vector<std::string>& headers = {}) {
        return request(port_, method, kVector + path, body.is_null() ? "" : body.dump(), headers);
    }
    void enableLocalEmbeddings(const json& extra = json::object()) {
        json settings = {{"enabled", true}, {"embedding", {{"type", 1}, {"dimension", 256}}}};
        settings.update(extra);
        const HttpResponse put = call("PUT", "/config", settings);
        ASSERT_EQ(put.status, 200) << put.body;
        ASSERT_EQ(put.json()["message"], "Vector storage service started");
    }

    std::string dir_;
    int port_ = 0;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(VectorApi, SwitchedOffItAnswers503ExceptForItsSettings) {
    start();
    for (const std::string path : {"/health", "/namespaces/acme", "/search", "/config?x=1", "x"}) {
        const HttpResponse answer = call("GET", path);
        EXPECT_EQ(answer.status, 503) << path;
        EXPECT_EQ(answer.json()["error"], kNotEnabled) << path;
    }
    const json settings = call("GET", "/config").json();
    EXPECT_EQ(settings["enabled"], false);
    EXPECT_EQ(settings["storage_path"], dir_ + "/vectors");
    EXPECT_EQ(call("POST", "/config", json::object()).status, 405);

    const HttpResponse bad = call("PUT", "/config", json{{"chunk_size", "large"}});
    EXPECT_EQ(bad.status, 400);
    EXPECT_EQ(bad.json()["error"], "Failed to update configuration");

    enableLocalEmbeddings();
    EXPECT_EQ(call("GET", "/health").json()["status"], "healthy");
    const HttpResponse off = call("PUT", "/config", json{{"enabled", false}});
    EXPECT_EQ(off.json()["message"], "Vector storage service stopped");
    EXPECT_EQ(call("GET", "/health").status, 503);
    EXPECT_EQ(call("PUT", "/config", json{{"enabled", false}}).json()["status"], "unchanged");
}

TEST_F(VectorApi, IngestedTextIsFoundAgainByMeaningAndByWords) {
    start();
    enableLocalEmbeddings({{"chunk_size", 60}, {"chunk_overlap", 0}});
    const json text = {{"namespace_id", "docs"},
                       {"source", "notes.txt"},
                       {"metadata", {{"lang", "en"}}},
                       {"text",
                        "Volcanoes erupt molten lava and ash over the valley. "
                        "Penguins live in cold southern oceans and eat krill. "
                        "Compilers translate source code into machine code."}};
    const HttpResponse ingested = call("POST", "/ingest", text, kAcme);
    ASSERT_EQ(ingested.status, 201) << ingested.body;
    EXPECT_EQ(ingested.json()["documents_added"], 3);

    // The tenant comes from the header; the body names only the namespace.
    const HttpResponse found =
        call("POST", "/search",
             {{"namespace_id", "docs"}, {"query", "what do penguins eat"}, {"top_k", 1}}, kAcme);
    ASSERT_EQ(found.status, 200) << found.body;
    const json best = found.json()["results"][0];
    EXPECT_EQ(found.json()["count"], 1);
    EXPECT_EQ(found.json()["total_searched"], 3);
    EXPECT_EQ(best["content"], " Penguins live in cold southern oceans and eat krill.");
    EXPECT_EQ(best["chunk_index"], 1);
    EXPECT_EQ(best["metadata"]["lang"], "en");
    EXPECT_NEAR(best["distance"].get<double>(), 1.0 - best["score"].get<double>(), 1e-6);

    const std::string id = best["id"];
    EXPECT_EQ(call("GET", "/documents/acme/docs/" + id).json()["source"], "notes.txt");
    EXPECT_EQ(call("GET", "/documents/acme/docs/doc-none").status, 404);
    const json words = call("POST", "/text-search",
                            {{"tenant_id", "acme"}, {"namespace_id", "docs"}, {"query", "KRILL"}})
                           .json();
    EXPECT_EQ(words["count"], 1);
    EXPECT_EQ(call("GET", "/sources/acme/docs").json()["sources"], json::array({"notes.txt"}));
    EXPECT_EQ(call("DELETE", "/documents/acme/docs/" + id).json()["deleted_count"], 1);
    EXPECT_EQ(
        call("DELETE", "/sources/acme/docs", {{"source", "notes.txt"}}).json()["deleted_count"], 2);
}

TEST_F(VectorApi, RequestsItCannotServeGetClearAnswers) {
    start();
    enableLocalEmbeddings();
    const auto expectError = [&](const HttpResponse& answer, int status, const std::string& error) {
        EXPECT_EQ(answer.status, status) << answer.body;
        EXPECT_EQ(answer.json()["error"], error) << answer.body;
    };
    expectError(call("POST", "/ingest", {{"text", "x"}}), 400, "Missing 'source' field");
    expectError(call("POST", "/search", {{"top_k", 3}}), 400, "Missing 'query' field");
    expectError(call("POST", "/embed", json::object()), 400, "Missing 'text' or 'texts' field");
    expectError(call("GET", "/search"), 405, "Method not allowed");
    expectError(call("GET", "/nothing-here"), 404, "Vector endpoint not found");
    expectError(call("DELETE", "/namespaces/acme/none"), 404, "Namespace not found");
    expectError(call("POST", "/namespaces/acme/..", json::object()), 400,
                "Failed to create namespace");
    expectError(call("POST", "/search", {{"query", "x"}, {"filter", {{"k') OR 1=1", "v"}}}}), 400,
                "Invalid filter key: k') OR 1=1");
    EXPECT_EQ(request(port_, "POST", kVector + "/search", "not json").status, 400);
    EXPECT_EQ(call("POST", "/search", json::array()).status, 400);
    EXPECT_EQ(call("POST", "/documents/acme/docs", {{"documents", {{{"content", "hi"}}}}}).status,
              201);

    const json embedded = call("POST", "/embed", {{"texts", {"a", "b c"}}}).json();
    EXPECT_EQ(embedded["count"], 2);
    EXPECT_EQ(embedded["dimension"], 256);
}

TEST_F(VectorApi, ARestartKeepsNamespacesAndDocumentsAndSwitchesTheStoreBackOn) {
    start({{"vector_enabled", true}});
    // Enabled from the daemon's settings; now move to local embeddings.
    const HttpResponse local = call("PUT", "/config", json{{"embedding", {{"type", 1}}}});
    ASSERT_EQ(local.status, 200) << local.body;
    EXPECT_EQ(call("GET", "/health").json()["embedding_provider"], "local");
    ASSERT_EQ(call("POST", "/namespaces/acme/kb", {{"name", "Knowledge"}}).status, 201);
    const HttpResponse added = call("POST", "/ingest",
                                    {{"tenant_id", "acme"},
                                     {"namespace_id", "kb"},
                                     {"source", "s"},
                                     {"text", "Tides follow the moon."}});
    ASSERT_EQ(added.status, 201);
    const std::string id = added.json()["document_ids"][0];
    ASSERT_EQ(daemon_->stop(), 0);

    start();  // vector_enabled is not set this time
    EXPECT_NE(daemon_->stdoutText().find(
                  "[DataDaemon] Auto-enabling vector storage from persisted config"),
              std::string::npos);
    const json namespaces = call("GET", "/namespaces/acme").json()["namespaces"];
    ASSERT_EQ(namespaces.size(), 1u);
    EXPECT_EQ(namespaces[0]["name"], "Knowledge");
    EXPECT_EQ(call("GET", "/documents/acme/kb/" + id).status, 200);
    const json found =
        call("POST", "/search", {{"tenant_id", "acme"}, {"namespace_id", "kb"}, {"query", "moon"}})
            .json();
    ASSERT_EQ(found["count"], 1);
    EXPECT_EQ(found["results"][0]["id"], id);
}

}  // namespace
}  // namespace vostra::test
