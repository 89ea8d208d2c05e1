// VectorStorageService without a socket: failures that must store nothing,
// ids that must not become file names, namespaces on disk, and the
// settings route's decisions.
#include "vector/vector_storage_service.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/daemon_process.h"
#include "tests/support/fake_http_server.h"
#include "vector/embedding_provider.h"
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
        ASSERT_TRUE(service_->initialize(*VectorStorageService::loadConfigFile(dir_ + "/vectors")));
    }
    VectorSearchRequest searchFor(const std::string& query, const std::string& ns = "docs") {
        VectorSearchRequest request;
        request.tenant_id = "acme";
        request.namespace_id = ns;
        request.query = query;
        return request;
    }
    bool sqlite() const { return GetParam() != VectorStorageConfig::kMemoryBackend; }

    std::string dir_;
    VectorStorageConfig config_;
    std::unique_ptr<VectorStorageService> service_ = std::make_unique<VectorStorageService>();
};

TEST_P(VectorService, SearchShowsContentAndVectorsOnlyAsAsked) {
    ASSERT_TRUE(service_->addText("acme", "docs", "alpha beta", "s", {}).success);
    EXPECT_TRUE(service_->search(searchFor("alpha")).results.at(0).document.embedding.empty());
    VectorSearchRequest request = searchFor("alpha");
    request.include_content = false;
    request.include_embedding = true;
    const VectorSearchResponse response = service_->search(request);
    ASSERT_EQ(response.results.size(), 1u);
    EXPECT_TRUE(response.results[0].document.content.empty());
    EXPECT_EQ(response.toJson()["results"][0]["embedding"].size(), 256u);
}

TEST_P(VectorService, EmptyTextOrTooFewVectorsStoreNothing) {
    const VectorAddResponse empty = service_->addText("acme", "docs", "", "s", {});
    EXPECT_TRUE(empty.success);
    EXPECT_EQ(empty.documents_added, 0);

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
    EXPECT_EQ(service_->search(searchFor("text")).error, "No query embedding provided");

    VectorAddRequest add;
    add.tenant_id = "acme";
    add.namespace_id = "docs";
    add.documents.resize(1);
    add.documents[0].id = "mine";
    add.documents[0].embedding = {0.6f, 0.8f};
    const VectorAddResponse added = service_->addDocuments(add);
    ASSERT_TRUE(added.success) << added.error;
    EXPECT_EQ(added.embeddings_generated, 0);

    VectorSearchRequest request = searchFor("");
    request.query_embedding = {0.6f, 0.8f};
    const VectorSearchResponse found = service_->search(request);
    ASSERT_EQ(found.results.size(), 1u);
    EXPECT_EQ(found.results[0].document.id, "mine");
    EXPECT_EQ(service_->getMetrics()["embedding_provider"], "none");
}

TEST_P(VectorService, IdsThatWouldLeaveTheStorePathGetNoBackend) {
    for (const std::string bad : {"..", "a/../..", "", "."}) {
        EXPECT_EQ(service_->search(searchFor("x", bad)).error, "Namespace not found") << bad;
        EXPECT_EQ(service_->addText(bad, "docs", "x", "s", {}).error,
                  "Failed to get vector backend");
        EXPECT_FALSE(service_->createNamespace("acme", bad, "", ""));
    }
    EXPECT_FALSE(fs::exists(dir_ + "/acme_...db"));
    EXPECT_FALSE(fs::exists(dir_ + "/...db"));
}

TEST_P(VectorService, NamespacesAreRecordedOnceAndDeletedWithTheirData) {
    ASSERT_TRUE(service_->createNamespace("acme", "docs", "Docs", "manuals"));
    // Creating it again succeeds and changes nothing.
    EXPECT_TRUE(service_->createNamespace("acme", "docs", "Other", ""));
    ASSERT_TRUE(service_->createNamespace("zeta", "docs", "", ""));
    ASSERT_TRUE(service_->addText("acme", "docs", "One. Two.", "a.txt", {}).success);

    const auto record = service_->getNamespace("acme", "docs");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->id, "acme/docs");
    EXPECT_EQ(record->description, "manuals");
    EXPECT_EQ(record->document_count, 1);
    EXPECT_EQ(service_->listNamespaces("acme").size(), 1u);

    const std::string file = config_.storage_path + "/acme_docs.db";
    EXPECT_EQ(fs::exists(file), sqlite());
    ASSERT_TRUE(service_->deleteNamespace("acme", "docs"));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(service_->deleteNamespace("acme", "docs"));
    EXPECT_TRUE(service_->listSources("acme", "docs").empty());
}

TEST_P(VectorService, MetricsCountAndAStoppedServiceServesNothing) {
    ASSERT_TRUE(service_->addText("acme", "docs", "A. B.", "s", {}).success);
    (void)service_->search(searchFor("A"));
    EXPECT_EQ(service_->getMetrics()["total_documents_added"], 1);
    EXPECT_EQ(service_->getMetrics()["total_searches"], 1);
    service_->shutdown();
    EXPECT_EQ(service_->getHealth()["status"], "stopped");
    EXPECT_EQ(service_->search(searchFor("A")).error, "Namespace not found");
}

INSTANTIATE_TEST_SUITE_P(Backends, VectorService,
                         ::testing::Values(0, VectorStorageConfig::kMemoryBackend),
                         [](const auto& info) { return info.param == 0 ? "SQLite" : "Memory"; });

class SQLiteVectorService : public VectorService {};

TEST_P(SQLiteVectorService, TenantsWhoseFileNamesCollideAreKeptApart) {
    // "a_b" + "_" + "c" and "a" + "_" + "b_c" name the same file.
    ASSERT_TRUE(service_->createNamespace("a_b", "c", "", ""));
    const Status clash = service_->tryCreateNamespace("a", "b_c", "", "");
    EXPECT_EQ(clash.kind, ErrorKind::Conflict);
    EXPECT_EQ(clash.message, "Namespace a/b_c clashes with a_b/c: both would use the file a_b_c.db");
    EXPECT_EQ(service_->addText("a", "b_c", "secret", "s", {}).error, clash.message);
    restart();
    EXPECT_FALSE(service_->getOrCreateBackend("a", "b_c"));
    EXPECT_TRUE(service_->getOrCreateBackend("a_b", "c"));
}

TEST_P(SQLiteVectorService, AnImplicitNamespaceKeepsItsFileAcrossRestartsEvenUnrecorded) {
    // Made by an add alone, then the table of namespaces lost: the file
    // itself still says whose it is.
    ASSERT_TRUE(service_->addText("a_b", "c", "mine", "s", {}).success);
    EXPECT_TRUE(service_->getNamespace("a_b", "c"));
    service_->shutdown();
    fs::remove(config_.storage_path + VectorStorageService::kNamespacesFile);
    service_ = std::make_unique<VectorStorageService>();
    ASSERT_TRUE(service_->initialize(config_));
    EXPECT_EQ(service_->textSearch("a", "b_c", "mine", 10, "").kind, ErrorKind::Invalid);
    EXPECT_EQ(service_->textSearch("a_b", "c", "mine", 10, "").results.size(), 1u);
}

TEST_P(SQLiteVectorService, TextSearchWithoutAQueryOrLimitReturnsEverything) {
    ASSERT_TRUE(service_->addText("acme", "docs", "One. Two. Three.", "s", {}).success);
    const std::size_t all = service_->textSearch("acme", "docs", "", -1, "").results.size();
    EXPECT_GE(all, 1u);
    EXPECT_EQ(all, static_cast<std::size_t>(service_->getNamespace("acme", "docs")->total_chunks));
    EXPECT_TRUE(service_->textSearch("acme", "docs", "", 0, "").results.empty());
}

TEST_P(SQLiteVectorService, TextSearchRefusesAFieldThatIsNotAPlainName) {
    EXPECT_EQ(service_->textSearch("acme", "default", "x", 10, "k)").kind, ErrorKind::Invalid);
    EXPECT_TRUE(service_->textSearch("acme", "default", "x", 10, "k.sub_2").success);
}

INSTANTIATE_TEST_SUITE_P(SQLite, SQLiteVectorService, ::testing::Values(0));

TEST(VectorServiceEmbedding, ChangedEmbeddingSettingsReplaceTheProvider) {
    const std::string dir = test::makeTempDir("vostra-vecsvc");
    test::FakeHttpServer ollama;
    ollama.setHandler([](const test::RecordedRequest&) {
        return test::FakeResponse{200, R"({"embedding":[4,1,2]})"};
    });
    VectorStorageService service;
    VectorStorageConfig config;
    config.storage_path = dir;
    config.embedding.type = EmbeddingProviderType::Local;
    ASSERT_TRUE(service.initialize(config));
    EXPECT_EQ(service.getMetrics()["embedding_provider"], "local");

    EmbeddingConfig remote;
    remote.url = ollama.url();
    remote.dimension = 3;
    ASSERT_TRUE(service.updateEmbeddingConfig(remote));
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
    EXPECT_EQ(start.config.embedding.type, EmbeddingProviderType::Local);
    EXPECT_EQ(start.config.embedding.model, "nomic-embed-text") << "other keys are kept";

    EXPECT_EQ(plan(on, true, R"({"chunk_size":100})").action, Action::Reconfigure);
    EXPECT_EQ(plan(on, true, R"({"backend":3})").action, Action::Restart);
    EXPECT_EQ(plan(on, true, R"({"storage_path":"/elsewhere"})").action, Action::Restart);
    EXPECT_EQ(plan(off, false, R"({"chunk_size":100})").action, Action::None);
    EXPECT_FALSE(plan(on, true, R"({"enabled":true})").changed);

    for (const char* bad :
         {"not json", "[1]", R"({"chunk_size":"big"})", R"({"embedding":{"dimension":"x"}})",
          R"({"chunk_overlap":500})", R"({"chunk_size":0})"})
        EXPECT_FALSE(plan(off, false, bad).error.empty()) << bad;
}

// That a saved configuration switches the store on at start-up is checked
// against the real binary; these are the cases a restart there does not reach.
TEST(VectorServiceConfig, AMovedOrDamagedPersistedFileStillGivesAUsableStart) {
    const std::string dir = test::makeTempDir("vostra-vecsvc");
    VectorStorageConfig saved;
    saved.enabled = true;
    saved.storage_path = "/was/somewhere/else";
    std::ofstream(dir + "/vector_config.json") << saved.toJson().dump();
    bool from_file = false;
    EXPECT_EQ(VectorStorageService::startupConfig(dir, {}, false, from_file).storage_path, dir);
    EXPECT_TRUE(from_file);

    std::ofstream(dir + "/vector_config.json") << "{broken";
    EmbeddingConfig embedding;
    embedding.url = "http://gpu:11434";
    testing::internal::CaptureStderr();
    const VectorStorageConfig fresh =
        VectorStorageService::startupConfig(dir, embedding, true, from_file);
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(from_file);
    EXPECT_TRUE(fresh.enabled);
    EXPECT_EQ(fresh.embedding.url, "http://gpu:11434");
    test::removeTree(dir);
}

}  // namespace
}  // namespace vostra::data
