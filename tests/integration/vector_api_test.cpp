// The vector API of the real binary over HTTP: text ingested and found
// again with the local embedder, and namespaces and documents carried across
// a restart. Route by route answers are tested in process (tests/daemon).
#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

const std::string kVector = "/api/v1/vector";
const std::vector<std::string> kAcme = {"X-Tenant-Id: acme"};

class VectorApi : public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-vecapi"); }
    void TearDown() override {
        // A clean exit also means no sanitizer report in instrumented builds.
        if (daemon_) {
            EXPECT_EQ(daemon_->stop(), 0) << daemon_->stderrText();
        }
        removeTree(dir_);
    }

    // There are no vector options: the settings go through a file.
    void start(json config = json::object()) {
        config["vector_path"] = dir_ + "/vectors";
        daemon_ = std::make_unique<DaemonProcess>(ConfigFile{config});
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const json& body = nullptr, const std::vector<std::string>& headers = {}) {
        return request(daemon_->port(), method, kVector + path, body.is_null() ? "" : body.dump(),
                       headers);
    }
    void enableLocalEmbeddings(const json& extra = json::object()) {
        json settings = {{"enabled", true}, {"embedding", {{"type", 1}, {"dimension", 256}}}};
        settings.update(extra);
        const HttpResponse put = call("PUT", "/config", settings);
        ASSERT_EQ(put.status, 200) << put.body;
        ASSERT_EQ(put.json()["message"], "Vector storage service started");
    }

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

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
    EXPECT_EQ(id.size(), 20u);
    EXPECT_EQ(id.rfind("doc-", 0), 0u);
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

TEST_F(VectorApi, ARestartKeepsNamespacesAndDocumentsAndSwitchesTheStoreBackOn) {
    start({{"vector_enabled", true}});
    // Enabled from the daemon's settings; now move to local embeddings.
    ASSERT_EQ(call("PUT", "/config", json{{"embedding", {{"type", 1}}}}).status, 200);
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
    EXPECT_EQ(call("GET", "/health").json()["embedding_provider"], "local");
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
