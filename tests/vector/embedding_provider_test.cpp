// The two embedding providers: the hashing embedder's exact vectors, and
// the Ollama client against a fake server that answers, fails, talks
// nonsense or is not there at all.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "tests/support/daemon_process.h"
#include "tests/support/fake_http_server.h"
#include "vector/local_embedding_provider.h"
#include "vector/ollama_embedding_provider.h"

namespace vostra::data {
namespace {

using nlohmann::json;
using test::FakeResponse;
using test::RecordedRequest;

TEST(LocalEmbeddingProvider, HashIsFnv1aWithSignExtendedBytes) {
    EXPECT_EQ(LocalEmbeddingProvider::hashString(""), 2166136261u);
    EXPECT_EQ(LocalEmbeddingProvider::hashString("hello"), 0x4f9f2cabu);
    // Plain FNV-1a would give 0x1e9de8c1 for these two bytes (C3 A9).
    EXPECT_EQ(LocalEmbeddingProvider::hashString("\xC3\xA9"), 0x3cfa68c1u);
}

TEST(LocalEmbeddingProvider, CountsWordsByHashIgnoringCaseAndWhiteSpace) {
    LocalEmbeddingProvider provider(16);
    EXPECT_EQ(provider.embed("Hello world"), provider.embed("\thello \n  WORLD "));
    EXPECT_NE(provider.embed("hello world"), provider.embed("hello word"));
    const std::vector<float> v = provider.embed("Dog dog cat");
    const std::size_t dog = LocalEmbeddingProvider::hashString("dog") % 16;
    const std::size_t cat = LocalEmbeddingProvider::hashString("cat") % 16;
    ASSERT_NE(dog, cat);
    EXPECT_FLOAT_EQ(v[dog], 2.0f / std::sqrt(5.0f));
    EXPECT_FLOAT_EQ(v[cat], 1.0f / std::sqrt(5.0f));

    EXPECT_EQ(provider.embedBatch({"one", " \n"}).at(1), std::vector<float>(16, 0.0f));
}

TEST(OllamaEmbeddingProvider, SendsOneRequestPerTextAndTakesTheVectorsAsSent) {
    test::FakeHttpServer server;
    server.setHandler([](const RecordedRequest& request) {
        const json body = json::parse(request.body, nullptr, false);  // none for /api/tags
        const std::size_t length = body.is_object() ? body.value("prompt", "").size() : 0;
        return FakeResponse{200, json{{"embedding", {length, 1, 2}}}.dump()};
    });
    OllamaEmbeddingProvider provider(server.url(), "mini-embed", 768);
    const auto vectors = provider.embedBatch({"a", "bbb", "cc"});
    EXPECT_EQ(vectors, (std::vector<std::vector<float>>{{1, 1, 2}, {3, 1, 2}, {2, 1, 2}}));

    const auto requests = server.requestsTo("/api/embeddings");
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[1].method, "POST");
    EXPECT_EQ(json::parse(requests[1].body), (json{{"model", "mini-embed"}, {"prompt", "bbb"}}));
    EXPECT_TRUE(provider.isAvailable());
    EXPECT_EQ(server.requestsTo("").back().path, "/api/tags");
}

TEST(OllamaEmbeddingProvider, EveryKindOfBadAnswerGivesZerosAndSaysWhy) {
    test::FakeHttpServer server;
    const std::string from = "[Embedding] Unexpected response from " + server.url();
    const std::pair<FakeResponse, std::string> cases[] = {
        {{500, R"({"error":"model not loaded"})"}, from + R"(: {"error":"model not loaded"})"},
        {{200, "<html>busy</html>", "text/html"}, "[Embedding] Parse error from " + server.url()},
        {{200, R"({"embeddings":[]})"}, from},
    };
    OllamaEmbeddingProvider provider(server.url(), "m", 6);
    for (const auto& [answer, message] : cases) {
        server.setHandler([answer](const RecordedRequest&) { return answer; });
        testing::internal::CaptureStderr();
        const auto vectors = provider.embedBatch({"x", "y"});
        const std::string printed = testing::internal::GetCapturedStderr();
        EXPECT_EQ(vectors, std::vector<std::vector<float>>(2, std::vector<float>(6, 0.0f)));
        EXPECT_NE(printed.find(message), std::string::npos) << printed;
    }
}

TEST(OllamaEmbeddingProvider, ServerDownGivesZerosAndIsNotAvailable) {
    const std::string url = "http://127.0.0.1:" + std::to_string(test::freePort());
    OllamaEmbeddingProvider provider(url, "m", 4);
    testing::internal::CaptureStderr();
    const auto vectors = provider.embedBatch({"a", "b", "c"});
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(provider.isAvailable());
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(6));
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(vectors, std::vector<std::vector<float>>(3, std::vector<float>(4, 0.0f)));
    EXPECT_NE(printed.find("[Embedding] CURL error connecting to " + url + ": "),
              std::string::npos);
}

}  // namespace
}  // namespace vostra::data
