// Requests racing each other through one VectorStorageService: adds,
// searches, namespace changes and provider swaps on several threads. Meant
// for the ThreadSanitizer build; elsewhere it checks that nothing is lost.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/daemon_process.h"
#include "vector/vector_storage_service.h"

namespace vostra::data {
namespace {

class VectorConcurrency : public ::testing::TestWithParam<int32_t> {};

TEST_P(VectorConcurrency, RacingRequestsKeepEveryDocument) {
    const std::string dir = test::makeTempDir("vostra-vecrace");
    VectorStorageConfig config;
    config.backend = GetParam();
    config.storage_path = dir;
    config.embedding.type = EmbeddingProviderType::Local;
    config.embedding.dimension = 64;
    config.search_threads = 2;
    VectorStorageService service;
    ASSERT_TRUE(service.initialize(config));

    constexpr int kWriters = 3, kRounds = 40;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w)
        threads.emplace_back([&, w] {
            VectorSearchRequest search;
            search.tenant_id = "t";
            search.namespace_id = "shared";
            for (int i = 0; i < kRounds; ++i) {
                const std::string source = "w" + std::to_string(w) + "-" + std::to_string(i);
                search.query = "number " + source;
                failures +=
                    !service.addText("t", "shared", "Text " + source + ".", source, {}).success;
                failures += !service.search(search).success;
            }
        });
    threads.emplace_back([&] {
        for (int i = 0; i < kRounds; ++i) {
            service.createNamespace("t", "churn", "", "");
            (void)service.addText("t", "churn", "short lived", "s", {});
            service.listNamespaces("t");
            service.deleteNamespace("t", "churn");
        }
    });
    threads.emplace_back([&] {
        // Same vectors either way; only the provider object changes.
        EmbeddingConfig embedding = config.embedding;
        for (int i = 0; i < kRounds; ++i) {
            embedding.batch_size = 1 + i % 2;
            service.updateEmbeddingConfig(embedding);
            service.getMetrics();
        }
    });
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(service.listSources("t", "shared").size(), size_t{kWriters * kRounds});
    service.shutdown();
    test::removeTree(dir);
}

INSTANTIATE_TEST_SUITE_P(Backends, VectorConcurrency,
                         ::testing::Values(0, VectorStorageConfig::kMemoryBackend),
                         [](const auto& info) { return info.param == 0 ? "SQLite" : "Memory"; });

}  // namespace
}  // namespace vostra::data
