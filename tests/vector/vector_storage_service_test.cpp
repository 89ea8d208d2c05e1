// VectorStorageService without a socket: ingestion and search end to end,
// failures that must store nothing, namespaces on disk across restarts,
// and the settings route's decisions.
#include "vector/vector_storage_service.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/support/daemon_process.h"
#include "tests/vector/fake_ollama_server.h"
#include "vector/embedding_provider.h"
#include "vector/local_embedding_provider.h"
#include "vector/vector_backend.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;
using Action = VectorStorageService::ConfigChange::Action;

// Answers one vector fewer than it was asked for.
class ShortProvider : public IEmbeddingProvider {
public:
    std::vector<float> embed(const std::string&) override { return {1, 0}; }
    std::vector<std::vector<float>> embedBatch(const std::vector<std::string>& texts) override {
        return std::vector<std::vector<float>>(texts.empty() ? 0 : texts.size() - 1, {1, 0});
    }
    int32_t getDimension() const override { return 2; }
    std::string getName() const override { return "short"; }
    bool isAvailable() override { return true; }
};

class VectorService : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override {
        dir_ = test::makeTempDir("vostra-vecsvc");
        config_.enabled = true;
        config_.backend = GetParam();
        config_.storage_path = dir_ + "/vectors";
        config_.embedding.type = EmbeddingProviderType::Local;
        config_.embedding.dimension = 256;
        ASSERT_TRUE(service_->initialize(config_));
    }
    void TearDown() override {
        service_->shutdown();
        test::removeTree(dir_);
    }
    // As the daemon does: the settings come back from the persisted file.
    void restart() {
        service_->shutdown();
        service_ = std::make_unique<VectorStorageService>();
        const auto persisted = VectorStorageService::loadConfigFile(config_.storage_path);
        ASSERT_TRUE(persisted);
        ASSERT_TRUE(service_->initialize(*persisted));
    }
    VectorSearchResponse searchText(const std::string& query, const std::string& ns = "docs") {
        VectorSearchRequest request;
        request.tenant_id = "acme";
        request.namespace_id = ns;
        request.query = query;
        return service_->search(request);
    }
    bool sqlite() const { return GetParam() != VectorStorageConfig::kMemoryBackend; }

    std::string dir_;
    VectorStorageConfig config_;
    std::unique_ptr<VectorStorageService> service_ = std::make_unique<VectorStorageService>();
};

TEST_P(VectorService, IngestedTextIsFoundByItsOwnWords) {
    const std::string text =
        "Volcanoes erupt molten lava and ash. "
        "Penguins live in cold southern oceans. "
        "Compilers translate source code into machine code.";
    VectorStorageConfig small = config_;
    small.chunk_size = 40;
    small.chunk_overlap = 0;
    ASSERT_TRUE(service_->updateConfig(small));
    const VectorAddResponse added =
        service_->addText("acme", "docs", text, "nature.txt", {{"topic", "mixed"}});
    ASSERT_TRUE(added.success) << added.error;
    EXPECT_EQ(added.documents_added, 3);
    EXPECT_EQ(added.embeddings_generated, 3);
    for (const std::string& id : added.document_ids)
        EXPECT_TRUE(std::regex_match(id, std::regex("doc-[0-9a-f]{16}"))) << id;

    const VectorSearchResponse found = searchText("where do penguins live");
    ASSERT_TRUE(found.success) << found.error;
    EXPECT_EQ(found.total_searched, 3);
    ASSERT_FALSE(found.results.empty());
    const VectorDocument& best = found.results[0].document;
    EXPECT_EQ(best.content, " Penguins live in cold southern oceans.");
    EXPECT_EQ(best.chunk_index, 1);
    EXPECT_EQ(best.total_chunks, 3);
    EXPECT_EQ(best.source, "nature.txt");
    EXPECT_EQ(best.metadata.at("topic"), "mixed");
    EXPECT_TRUE(best.embedding.empty()) << "vectors are only sent on request";
}

TEST_P(VectorService, SearchShowsContentAndVectorsOnlyAsAsked) {
    ASSERT_TRUE(service_->addText("acme", "docs", "alpha beta", "s", {}).success);
    VectorSearchRequest request;
    request.tenant_id = "acme";
    request.namespace_id = "docs";
    request.query = "alpha";
    request.include_content = false;
    request.include_embedding = true;
    const VectorSearchResponse response = service_->search(request);
    ASSERT_EQ(response.results.size(), 1u);
    EXPECT_TRUE(response.results[0].document.content.empty());
    EXPECT_EQ(response.results[0].document.embedding.size(), 256u);
    EXPECT_EQ(response.toJson()["results"][0]["embedding"].size(), 256u);
}

TEST_P(VectorService, EmptyTextAddsNothing) {
    const VectorAddResponse added = service_->addText("acme", "docs", "", "s", {});
    EXPECT_TRUE(added.success);
    EXPECT_EQ(added.documents_added, 0);
    EXPECT_TRUE(service_->listSources("acme", "docs").empty());
}

TEST_P(VectorService, AProviderAnsweringTooFewVectorsStoresNothing) {
    service_->setEmbeddingProvider(std::make_unique<ShortProvider>());
    const VectorAddResponse added = service_->addText("acme", "docs", "One. Two. Three.", "s", {});
    EXPECT_FALSE(added.success);
    EXPECT_EQ(added.error, "Embedding generation failed");
    EXPECT_TRUE(service_->listSources("acme", "docs").empty());
}

TEST_P(VectorService, WithoutAProviderOnlyGivenVectorsWork) {
    service_->setEmbeddingProvider(nullptr);
    EXPECT_EQ(service_->addText("acme", "docs", "text", "s", {}).error,
              "Embedding generation failed");
    EXPECT_EQ(searchText("text").error, "No query embedding provided");

    VectorAddRequest add;
    add.tenant_id = "acme";
    add.namespace_id = "docs";
    VectorDocument given;
    given.id = "mine";
    given.content = "x";
    given.embedding = {0.6f, 0.8f};
    add.documents = {given};
    const VectorAddResponse added = service_->addDocuments(add);
    ASSERT_TRUE(added.success) << added.error;
    EXPECT_EQ(added.document_ids, std::vector<std::string>{"mine"});
    EXPECT_EQ(added.embeddings_generated, 0);

    VectorSearchRequest request;
    request.tenant_id = "acme";
    request.namespace_id = "docs";
    request.query_embedding = {0.6f, 0.8f};
    const VectorSearchResponse found = service_->search(request);
    ASSERT_EQ(found.results.size(), 1u);
    EXPECT_NEAR(found.results[0].score, 1.0f, 1e-6);
    EXPECT_FALSE(service_->generateEmbeddings({"x"}));
    EXPECT_EQ(service_->getMetrics()["embedding_provider"], "none");
}

TEST_P(VectorService, IdsThatWouldLeaveTheStorePathGetNoBackend) {
    for (const std::string bad : {"..", "a/../..", "", "."}) {
        EXPECT_EQ(searchText("x", bad).error, "Namespace not found") << bad;
        EXPECT_EQ(service_->addText(bad, "docs", "x", "s", {}).error,
                  "Failed to get vector backend");
        EXPECT_FALSE(service_->createNamespace("acme", bad, "", ""));
    }
    EXPECT_FALSE(fs::exists(dir_ + "/acme_...db"));
    EXPECT_FALSE(fs::exists(dir_ + "/...db"));
}

TEST_P(VectorService, NamespacesAreRecordedOnceAndDeletedWithTheirData) {
    ASSERT_TRUE(service_->createNamespace("acme", "docs", "Docs", "manuals"));
    EXPECT_FALSE(service_->createNamespace("acme", "docs", "", ""));
    ASSERT_TRUE(service_->createNamespace("acme", "other", "", ""));
    ASSERT_TRUE(service_->createNamespace("zeta", "docs", "", ""));
    ASSERT_TRUE(service_->addText("acme", "docs", "One. Two.", "a.txt", {}).success);

    const auto record = service_->getNamespace("acme", "docs");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->id, "acme/docs");
    EXPECT_EQ(record->name, "Docs");
    EXPECT_EQ(record->description, "manuals");
    EXPECT_EQ(record->embedding_dim, 256);
    EXPECT_EQ(record->total_chunks, 1);
    EXPECT_EQ(record->document_count, 1);
    EXPECT_EQ(service_->listNamespaces("acme").size(), 2u);
    EXPECT_EQ(service_->getNamespace("acme", "other")->name, "other");

    const std::string file = config_.storage_path + "/acme_docs.db";
    EXPECT_EQ(fs::exists(file), sqlite());
    ASSERT_TRUE(service_->deleteNamespace("acme", "docs"));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(service_->getNamespace("acme", "docs"));
    EXPECT_FALSE(service_->deleteNamespace("acme", "docs"));
    EXPECT_TRUE(service_->listSources("acme", "docs").empty());
}

TEST_P(VectorService, DocumentsAreDeletedByIdAndBySource) {
    const auto first = service_->addText("acme", "docs", "A. B.", "one.md", {});
    ASSERT_TRUE(service_->addText("acme", "docs", "C.", "two.md", {}).success);
    EXPECT_EQ(service_->listSources("acme", "docs"),
              (std::vector<std::string>{"one.md", "two.md"}));
    ASSERT_TRUE(service_->getDocument("acme", "docs", first.document_ids[0]));
    EXPECT_EQ(service_->deleteDocuments("acme", "docs", {first.document_ids[0], "nope"}), 1);
    EXPECT_FALSE(service_->getDocument("acme", "docs", first.document_ids[0]));
    EXPECT_EQ(service_->deleteBySource("acme", "docs", "two.md"), 1);
    EXPECT_EQ(service_->listSources("acme", "docs"), std::vector<std::string>{});
}

TEST_P(VectorService, MetricsAndHealthDescribeTheService) {
    ASSERT_TRUE(service_->addText("acme", "docs", "A.", "s", {}).success);
    searchText("A");
    const nlohmann::json metrics = service_->getMetrics();
    EXPECT_EQ(metrics["backend"], sqlite() ? "sqlite" : "memory");
    EXPECT_EQ(metrics["embedding_provider"], "local");
    EXPECT_EQ(metrics["embedding_dimension"], 256);
    EXPECT_EQ(metrics["total_documents_added"], 1);
    EXPECT_EQ(metrics["total_searches"], 1);
    const nlohmann::json health = service_->getHealth();
    EXPECT_EQ(health["status"], "healthy");
    EXPECT_EQ(health["embedding_available"], true);
    service_->shutdown();
    EXPECT_EQ(service_->getHealth()["status"], "stopped");
    EXPECT_EQ(searchText("A").error, "Namespace not found");
}

INSTANTIATE_TEST_SUITE_P(Backends, VectorService,
                         ::testing::Values(0, VectorStorageConfig::kMemoryBackend),
                         [](const auto& info) { return info.param == 0 ? "SQLite" : "Memory"; });

class SQLiteVectorService : public VectorService {};

TEST_P(SQLiteVectorService, NamespacesDocumentsAndSettingsSurviveARestart) {
    ASSERT_TRUE(service_->createNamespace("acme", "docs", "Docs", ""));
    const auto added = service_->addText("acme", "docs", "Rivers flow. Deserts bake.", "geo", {});
    ASSERT_TRUE(added.success);
    VectorStorageConfig changed = service_->getConfig();
    changed.chunk_size = 77;
    ASSERT_TRUE(service_->updateConfig(changed));
    restart();

    EXPECT_EQ(service_->getConfig().chunk_size, 77);
    const auto namespaces = service_->listNamespaces("acme");
    ASSERT_EQ(namespaces.size(), 1u);
    EXPECT_EQ(namespaces[0].name, "Docs");
    EXPECT_EQ(namespaces[0].total_chunks, 1);
    ASSERT_TRUE(service_->getDocument("acme", "docs", added.document_ids[0]));
    ASSERT_EQ(searchText("deserts").results.size(), 1u);
}

TEST_P(SQLiteVectorService, TenantsWhoseFileNamesCollideAreKeptApart) {
    // "a_b" + "_" + "c" and "a" + "_" + "b_c" name the same file.
    ASSERT_TRUE(service_->createNamespace("a_b", "c", "", ""));
    EXPECT_FALSE(service_->createNamespace("a", "b_c", "", ""));
    EXPECT_EQ(service_->addText("a", "b_c", "secret", "s", {}).error,
              "Failed to get vector backend");
    restart();
    EXPECT_FALSE(service_->getOrCreateBackend("a", "b_c"));
    EXPECT_TRUE(service_->getOrCreateBackend("a_b", "c"));
}

TEST_P(SQLiteVectorService, FilterKeysAndFieldsThatAreNotPlainNamesAreRefused) {
    VectorSearchRequest request;
    request.tenant_id = "acme";
    request.query = "x";
    request.filter = {{"a' OR 1=1 --", "v"}};
    const VectorSearchResponse refused = service_->search(request);
    EXPECT_FALSE(refused.success);
    EXPECT_TRUE(refused.refused);
    EXPECT_EQ(refused.error, "Invalid filter key: a' OR 1=1 --");
    EXPECT_TRUE(service_->textSearch("acme", "default", "x", 10, "k)").refused);
    EXPECT_TRUE(service_->textSearch("acme", "default", "x", 10, "k.sub_2").success);
}

INSTANTIATE_TEST_SUITE_P(SQLite, SQLiteVectorService, ::testing::Values(0));

TEST(VectorServiceEmbedding, ChangedEmbeddingSettingsReplaceTheProvider) {
    const std::string dir = test::makeTempDir("vostra-vecsvc");
    test::FakeOllamaServer ollama(3);
    VectorStorageService service;
    VectorStorageConfig config;
    config.storage_path = dir;
    config.embedding.type = EmbeddingProviderType::Local;
    ASSERT_TRUE(service.initialize(config));
    EXPECT_EQ(service.getMetrics()["embedding_provider"], "local");

    EmbeddingConfig remote;
    remote.url = ollama.url();
    remote.dimension = 3;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(service.updateEmbeddingConfig(remote));
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "[VectorStorage] Embedding provider reconfigured: ollama model=nomic-embed-text"),
              std::string::npos);
    EXPECT_EQ(service.generateEmbedding("abcd"), (std::vector<float>{4, 1, 2}));
    EXPECT_EQ(VectorStorageService::loadConfigFile(dir)->embedding.url, ollama.url());
    service.shutdown();
    test::removeTree(dir);
}

TEST(VectorServiceConfig, PlansWhatAPutOfTheSettingsAsksFor) {
    VectorStorageConfig off;
    VectorStorageConfig on = off;
    on.enabled = true;
    const auto plan = [](const VectorStorageConfig& current, bool running,
                         const std::string& body) {
        return VectorStorageService::planConfigChange(current, running, body);
    };

    auto start = plan(off, false, R"({"enabled":true,"embedding":{"type":1}})");
    EXPECT_EQ(start.action, Action::Start);
    EXPECT_TRUE(start.changed);
    EXPECT_EQ(start.config.embedding.type, EmbeddingProviderType::Local);
    EXPECT_EQ(start.config.embedding.model, "nomic-embed-text") << "other keys are kept";

    EXPECT_EQ(plan(on, true, R"({"enabled":false})").action, Action::Stop);
    EXPECT_EQ(plan(on, true, R"({"chunk_size":100})").action, Action::Reconfigure);
    EXPECT_EQ(plan(on, true, R"({"backend":3})").action, Action::Restart);
    EXPECT_EQ(plan(on, true, R"({"storage_path":"/elsewhere"})").action, Action::Restart);
    EXPECT_EQ(plan(off, false, R"({"chunk_size":100})").action, Action::None);

    const auto same = plan(on, true, R"({"enabled":true})");
    EXPECT_EQ(same.action, Action::None);
    EXPECT_FALSE(same.changed);

    for (const char* bad :
         {"not json", "[1]", R"({"chunk_size":"big"})", R"({"embedding":{"dimension":"x"}})",
          R"({"chunk_overlap":500})", R"({"chunk_size":0})"})
        EXPECT_FALSE(plan(off, false, bad).error.empty()) << bad;
}

TEST(VectorServiceConfig, StartsFromThePersistedFileWhenThereIsOne) {
    const std::string dir = test::makeTempDir("vostra-vecsvc");
    EmbeddingConfig embedding;
    embedding.url = "http://gpu:11434";
    bool from_file = true;
    VectorStorageConfig fresh =
        VectorStorageService::startupConfig(dir, embedding, false, from_file);
    EXPECT_FALSE(from_file);
    EXPECT_FALSE(fresh.enabled);
    EXPECT_EQ(fresh.embedding.url, "http://gpu:11434");
    EXPECT_EQ(fresh.storage_path, dir);

    VectorStorageConfig saved;
    saved.enabled = true;
    saved.storage_path = "/was/somewhere/else";
    saved.embedding.model = "bge";
    std::ofstream(dir + "/vector_config.json") << saved.toJson().dump();
    const VectorStorageConfig persisted =
        VectorStorageService::startupConfig(dir, embedding, false, from_file);
    EXPECT_TRUE(from_file);
    EXPECT_TRUE(persisted.enabled);
    EXPECT_EQ(persisted.embedding.model, "bge");
    EXPECT_EQ(persisted.storage_path, dir);

    std::ofstream(dir + "/vector_config.json") << "{broken";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(VectorStorageService::startupConfig(dir, embedding, true, from_file)
                     .embedding.model.empty());
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(from_file);
    test::removeTree(dir);
}

}  // namespace
}  // namespace vostra::data
