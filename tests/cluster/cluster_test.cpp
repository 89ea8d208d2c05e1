// The controller client and cluster discovery against a fake controller.
#include <gtest/gtest.h>

#include "cluster/cluster_discovery.h"
#include "cluster/controller_client.h"
#include "tests/support/fake_http_server.h"

namespace vostra::data {
namespace {

using nlohmann::json;
using test::FakeHttpServer;
using test::FakeResponse;
using test::RecordedRequest;

FakeResponse failing(const RecordedRequest&) {
    return {500, R"({"error":"down"})"};
}

class ControllerClientTest : public ::testing::Test {
protected:
    FakeHttpServer controller;  // first: the client is built with its URL
    std::vector<int> slept;
    bool keep_running = true;
    ControllerClient client{controller.url(), [this](int seconds) {
                                slept.push_back(seconds);
                                return keep_running;
                            }};
    bool beat() {
        return client.heartbeat("data-1", {{"status", "online"}}, [] {
            return json{{"daemon_id", "data-1"}};
        });
    }
};

TEST_F(ControllerClientTest, RegistersOnlyWhenTheControllerAnswersJsonBelow400) {
    EXPECT_TRUE(client.registerWorker({{"daemon_id", "data-1"}}));
    ASSERT_EQ(controller.requestsTo("/api/v1/data-workers/register").size(), 1u);
    EXPECT_EQ(json::parse(controller.requestsTo("")[0].body)["daemon_id"], "data-1");

    controller.setHandler(failing);
    EXPECT_FALSE(client.registerWorker({}));
    controller.setHandler([](const RecordedRequest&) { return FakeResponse{200, "not json"}; });
    EXPECT_FALSE(client.registerWorker({}));

    ControllerClient standalone("", [](int) { return true; });
    EXPECT_FALSE(standalone.registerWorker({}));
}

TEST_F(ControllerClientTest, BacksOffFiveTenTwentyThenThirtyAndCountsAttempts) {
    controller.setHandler(failing);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 5; ++i)
        EXPECT_FALSE(beat());
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(slept, (std::vector<int>{5, 10, 20, 30, 30}));
    EXPECT_NE(err.find("[DataDaemon] Heartbeat failed (attempt 1), backoff 5s before "
                       "re-registration..."),
              std::string::npos);
    EXPECT_NE(err.find("(attempt 4), backoff 30s"), std::string::npos);
    EXPECT_NE(err.find("(attempt 5), backoff 30s"), std::string::npos);
    EXPECT_EQ(controller.requestsTo("/api/v1/data-workers/data-1/heartbeat").size(), 5u);
    EXPECT_EQ(controller.requestsTo("/api/v1/data-workers/register").size(), 5u);
    EXPECT_EQ(client.consecutiveFailures(), 5);
}

TEST_F(ControllerClientTest, AnErrorObjectIsAFailureThatLeadsToReRegistration) {
    controller.setHandler([](const RecordedRequest& request) {
        if (request.path.find("/heartbeat") != std::string::npos)
            return FakeResponse{200, R"({"error":"unknown worker"})"};
        return FakeResponse{200, R"({"ok":true})"};
    });
    testing::internal::CaptureStdout();
    EXPECT_TRUE(beat());
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "[DataDaemon] Re-registered with controller after heartbeat failure"),
              std::string::npos);
    EXPECT_EQ(slept, std::vector<int>{5});
    EXPECT_EQ(client.consecutiveFailures(), 0);

    // An empty "error" is no failure.
    controller.setHandler([](const RecordedRequest&) {
        return FakeResponse{200, R"({"error":""})"};
    });
    EXPECT_TRUE(beat());
    EXPECT_EQ(slept.size(), 1u);
}

TEST_F(ControllerClientTest, StoppingDuringTheBackoffSkipsReRegistration) {
    controller.setHandler(failing);
    keep_running = false;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(beat());
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(controller.requestsTo("/api/v1/data-workers/register").empty());
}

class ClusterDiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        controller.setHandler([this](const RecordedRequest&) {
            return FakeResponse{200, answer.dump()};
        });
        discovery.configure(controller.url(), 1000);
    }
    FakeHttpServer controller;
    discovery::ClusterDiscovery discovery;
    json answer = json::object();
};

TEST_F(ClusterDiscoveryTest, PassesTheListsOnAsSentAndKeepsThemWhenASyncFails) {
    answer = {{"data_workers", {{{"id", "w2"}, {"extra", {1, 2}}}}}, {"unrelated", 1}};
    ASSERT_TRUE(discovery.sync());
    EXPECT_EQ(discovery.getResources()["data_workers"], answer["data_workers"]);
    EXPECT_FALSE(discovery.getResources().contains("unrelated"));
    for (const char* garbage : {"[1,2]", "garbage"}) {
        controller.setHandler([=](const RecordedRequest&) { return FakeResponse{200, garbage}; });
        EXPECT_FALSE(discovery.sync()) << garbage;
    }
    EXPECT_EQ(discovery.getResources()["data_workers"], answer["data_workers"]);
}

TEST_F(ClusterDiscoveryTest, PrefersALiveEmbeddingProviderAndListsItsModels) {
    answer = {{"embedding_providers",
               {{{"url", "http://a:11434"}, {"status", "offline"}, {"models", {"x"}}},
                "not an object",
                {{"url", "http://b:11434"},
                 {"status", "online"},
                 {"models", {"mxbai-embed-large", {{"name", "bge-m3"}}, 7}}}}}};
    ASSERT_TRUE(discovery.sync());
    EXPECT_EQ(discovery.getBestEmbeddingUrl(), "http://b:11434");
    EXPECT_EQ(discovery.getEmbeddingModels("http://b:11434"),
              (std::vector<std::string>{"mxbai-embed-large", "bge-m3"}));
    EXPECT_TRUE(discovery.getEmbeddingModels("http://nowhere").empty());

    answer = {{"embedding_providers", {{{"url", "http://only:1"}}}}};
    ASSERT_TRUE(discovery.sync());
    EXPECT_EQ(discovery.getBestEmbeddingUrl(), "http://only:1");
}

}  // namespace
}  // namespace vostra::data
