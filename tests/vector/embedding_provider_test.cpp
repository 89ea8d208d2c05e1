// The two embedding providers: the hashing embedder's exact vectors, and
// the Ollama client against a fake server that answers, fails, talks
// nonsense or is not there at all.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "tests/connectors/closed_port.h"
#include "tests/vector/fake_ollama_server.h"
#include "vector/local_embedding_provider.h"
#include "vector/ollama_embedding_provider.h"

namespace vostra::data {
namespace {

using vostra::test::FakeOllamaServer;

float norm(const std::vector<float>& v) {
    float squares = 0;
    for (float x : v)
        squares += x * x;
    return std::sqrt(squares);
}

TEST(LocalEmbeddingProvider, HashIsFnv1aWithSignExtendedBytes) {
    EXPECT_EQ(LocalEmbeddingProvider::hashString(""), 2166136261u);
    EXPECT_EQ(LocalEmbeddingProvider::hashString("a"), 0xe40c292cu);
    EXPECT_EQ(LocalEmbeddingProvider::hashString("hello"), 0x4f9f2cabu);
    // Plain FNV-1a would give 0x1e9de8c1 for these two bytes (C3 A9).
    EXPECT_EQ(LocalEmbeddingProvider::hashString("\xC3\xA9"), 0x3cfa68c1u);
}

TEST(LocalEmbeddingProvider, IgnoresCaseAndRunsOfWhiteSpace) {
    LocalEmbeddingProvider provider(64);
    EXPECT_EQ(provider.embed("Hello world"), provider.embed("hello   WORLD"));
    EXPECT_EQ(provider.embed("a b"), provider.embed("\tb\n\ra  "));
    EXPECT_NE(provider.embed("hello world"), provider.embed("hello word"));
}

TEST(LocalEmbeddingProvider, PlacesEachWordByItsHash) {
    LocalEmbeddingProvider provider(16);
    const std::vector<float> v = provider.embed("Dog dog cat");
    EXPECT_FLOAT_EQ(norm(v), 1.0f);
    const std::size_t dog = LocalEmbeddingProvider::hashString("dog") % 16;
    const std::size_t cat = LocalEmbeddingProvider::hashString("cat") % 16;
    ASSERT_NE(dog, cat);
    EXPECT_FLOAT_EQ(v[dog], 2.0f / std::sqrt(5.0f));
    EXPECT_FLOAT_EQ(v[cat], 1.0f / std::sqrt(5.0f));
}

TEST(LocalEmbeddingProvider, EmptyTextStaysZeroAndBatchesKeepOrder) {
    LocalEmbeddingProvider provider(8);
    EXPECT_EQ(provider.embed(" \n"), std::vector<float>(8, 0.0f));
    const auto batch = provider.embedBatch({"one", "", "two"});
    ASSERT_EQ(batch.size(), 3u);
    EXPECT_EQ(batch[0], provider.embed("one"));
    EXPECT_EQ(batch[2], provider.embed("two"));
    EXPECT_TRUE(provider.isAvailable());
    EXPECT_EQ(provider.getName(), "local");
    EXPECT_TRUE(LocalEmbeddingProvider(0).embed("x").empty());
}

TEST(OllamaEmbeddingProvider, SendsOneRequestPerTextAndTakesTheVectorsAsSent) {
    FakeOllamaServer server(/*dimension=*/5);
    OllamaEmbeddingProvider provider(server.url(), "mini-embed", 768);
    const auto vectors = provider.embedBatch({"a", "bbb", "cc"});
    ASSERT_EQ(vectors.size(), 3u);
    EXPECT_EQ(vectors[1], (std::vector<float>{3, 1, 2, 3, 4}));
    EXPECT_EQ(vectors[2][0], 2.0f);
    EXPECT_EQ(provider.embed("four").at(0), 4.0f);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 4u);
    for (const auto& request : requests) {
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.path, "/api/embeddings");
    }
    const auto body = nlohmann::json::parse(requests[1].body);
    EXPECT_EQ(body, (nlohmann::json{{"model", "mini-embed"}, {"prompt", "bbb"}}));
    EXPECT_TRUE(provider.isAvailable());
    EXPECT_EQ(server.requests().back().path, "/api/tags");
}

TEST(OllamaEmbeddingProvider, EveryKindOfBadAnswerGivesZerosAndSaysWhy) {
    FakeOllamaServer server;
    OllamaEmbeddingProvider provider(server.url(), "m", 6);
    const std::pair<FakeOllamaServer::Mode, std::string> cases[] = {
        {FakeOllamaServer::Mode::Fail, "[Embedding] Unexpected response from " + server.url() +
                                           ": {\"error\":\"model not loaded\"}"},
        {FakeOllamaServer::Mode::Garbage, "[Embedding] Parse error from " + server.url()},
        {FakeOllamaServer::Mode::MissingEmbedding,
         "[Embedding] Unexpected response from " + server.url()},
    };
    for (const auto& [mode, message] : cases) {
        server.setMode(mode);
        testing::internal::CaptureStderr();
        const auto vectors = provider.embedBatch({"x", "y"});
        const std::string printed = testing::internal::GetCapturedStderr();
        ASSERT_EQ(vectors.size(), 2u);
        EXPECT_EQ(vectors[0], std::vector<float>(6, 0.0f));
        EXPECT_EQ(vectors[1], std::vector<float>(6, 0.0f));
        EXPECT_NE(printed.find(message), std::string::npos) << printed;
    }
}

TEST(OllamaEmbeddingProvider, ServerDownGivesZerosAndIsNotAvailable) {
    test::ClosedPort closed;
    ASSERT_NE(closed.port(), 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(closed.port());
    OllamaEmbeddingProvider provider(url, "m", 4);

    testing::internal::CaptureStderr();
    const auto vectors = provider.embedBatch({"a", "b", "c"});
    const bool available = provider.isAvailable();
    const std::string printed = testing::internal::GetCapturedStderr();

    EXPECT_EQ(vectors, std::vector<std::vector<float>>(3, std::vector<float>(4, 0.0f)));
    EXPECT_FALSE(available);
    EXPECT_NE(printed.find("[Embedding] CURL error connecting to " + url + ": "),
              std::string::npos);
}

}  // namespace
}  // namespace vostra::data
