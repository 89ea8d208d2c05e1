// The real binary as a cluster member, talking to a fake controller.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/fake_http_server.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

constexpr const char* kRegister = "/api/v1/data-workers/register";
constexpr const char* kResources = "/api/v1/data/cluster-resources";

class ClusterTest : public ::testing::Test {
protected:
    std::unique_ptr<DaemonProcess> startWorker(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-c",  controller.url(), "-n", "worker-1", "-l",
                                         "ssd", "--heartbeat",    "200"};
        args.insert(args.end(), extra.begin(), extra.end());
        auto daemon = std::make_unique<DaemonProcess>(args);
        EXPECT_TRUE(daemon->ready()) << daemon->stderrText();
        return daemon;
    }
    std::string heartbeatPath(const DaemonProcess& daemon) {
        return "/api/v1/data-workers/" +
               request(daemon.port(), "GET", "/health").json()["daemon_id"].get<std::string>() +
               "/heartbeat";
    }

    FakeHttpServer controller;
};

TEST_F(ClusterTest, RegistersWithItsFiguresAndHeartbeatsEveryPeriod) {
    auto daemon = startWorker();
    ASSERT_TRUE(controller.waitFor(kRegister, 1));
    json body = json::parse(controller.requestsTo(kRegister)[0].body);
    EXPECT_EQ(body["daemon_name"], "worker-1");
    EXPECT_EQ(body["node_type"], "DataWorker");
    EXPECT_EQ(body["worker_type"], "data");
    EXPECT_EQ(body["port"], daemon->port());
    EXPECT_EQ(body["labels"], json({"ssd"}));
    EXPECT_EQ(body["capabilities"], json({"databases", "storage"}));
    EXPECT_EQ(body["storage_path"], daemon->dir() + "/storage");
    for (const char* key : {"daemon_id", "hostname", "ip_address", "machine_id", "nfs_enabled",
                            "nfs_port", "storage_capacity_bytes"})
        EXPECT_TRUE(body.contains(key)) << key;

    const std::string path = heartbeatPath(*daemon);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(controller.waitFor(path, 3));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3))
        << "period 0.2 s";
    json beat = json::parse(controller.requestsTo(path)[0].body);
    EXPECT_EQ(beat["status"], "online");
    EXPECT_EQ(beat["version"], "4.1.0");
    EXPECT_EQ(beat["url"], "http://" + body["ip_address"].get<std::string>() + ":" +
                               std::to_string(daemon->port()));
    for (const char* key : {"sources", "total_queries", "total_errors", "storage_used_bytes",
                            "tenant_count", "storage_capacity_bytes"})
        EXPECT_TRUE(beat.contains(key)) << key;

    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(controller
                  .requestsTo("/api/v1/data-workers/" + body["daemon_id"].get<std::string>() +
                              "/deregister")
                  .size(),
              1u);
}

TEST_F(ClusterTest, WithoutStorageReportsDatabasesOnlyAndNoStorageUsed) {
    auto daemon = startWorker({"--no-storage"});
    const std::string path = heartbeatPath(*daemon);
    ASSERT_TRUE(controller.waitFor(path, 1));
    EXPECT_EQ(json::parse(controller.requestsTo(kRegister)[0].body)["capabilities"],
              json({"databases"}));
    json beat = json::parse(controller.requestsTo(path)[0].body);
    EXPECT_EQ(beat["capabilities"], json({"databases"}));
    EXPECT_EQ(beat["storage_used_bytes"], 0);
}

TEST_F(ClusterTest, ReRegistersAfterAFailedHeartbeat) {
    auto daemon = startWorker();
    const std::string path = heartbeatPath(*daemon);
    ASSERT_TRUE(controller.waitFor(path, 1));
    controller.setHandler([](const RecordedRequest& request) {
        if (request.path.find("/heartbeat") != std::string::npos)
            return FakeResponse{503, "unavailable", "text/plain"};
        return FakeResponse{};
    });
    // The first back-off is five seconds.
    ASSERT_TRUE(controller.waitFor(kRegister, 2, 15000));
    EXPECT_NE(daemon->stderrText().find("Heartbeat failed (attempt 1), backoff 5s"),
              std::string::npos);
    // The controller sees the request before the worker has read the answer.
    EXPECT_TRUE(eventually([&] {
        return daemon->stdoutText().find("Re-registered with controller after heartbeat failure") != std::string::npos;
    }, 5000)) << daemon->stdoutText();
}

TEST_F(ClusterTest, ServesStandaloneWhenTheControllerIsDownAndStillStops) {
    int closed_port = freePort();
    DaemonProcess daemon(
        {"-c", "http://127.0.0.1:" + std::to_string(closed_port), "--heartbeat", "200"});
    ASSERT_TRUE(daemon.ready());
    EXPECT_NE(daemon.stderrText().find("[DataDaemon] Failed to register with controller"),
              std::string::npos);
    // Heartbeats now fail and back off; the API answers all the same.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(request(daemon.port(), "GET", "/health").status, 200);
    EXPECT_EQ(daemon.stop(3000), 0);  // the back-off ends with the daemon
}

TEST_F(ClusterTest, ASlowOrGarbledControllerNeverHoldsUpTheApi) {
    controller.setHandler([](const RecordedRequest& request) {
        if (request.path == kRegister) return FakeResponse{};
        return FakeResponse{200, "<html>oops</html>", "text/html", 15000};
    });
    auto daemon = startWorker();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(request(daemon->port(), "GET", "/health").status, 200);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    // A heartbeat and the deregistration may each wait out the 10 s client time-out.
    EXPECT_EQ(daemon->stop(30000), 0);
}

TEST_F(ClusterTest, ReportsClusterResourcesBeforeAndAfterASync) {
    DaemonProcess standalone;
    const json alone = request(standalone.port(), "GET", kResources).json();
    EXPECT_EQ(alone["configured"], false);
    EXPECT_EQ(alone["synced"], false);
    EXPECT_EQ(alone["embedding_providers"], json::array());

    controller.setHandler([](const RecordedRequest& request) {
        if (request.path != "/api/v1/cluster/resources") return FakeResponse{};
        return FakeResponse{200, R"({"inference_workers":[{"id":"gpu-1"}],"models":["m"]})"};
    });
    auto daemon = startWorker();
    json resources;
    EXPECT_TRUE(eventually([&] {
        resources = request(daemon->port(), "GET", kResources).json();
        return resources["synced"] == true;
    }));
    EXPECT_EQ(resources["configured"], true);
    EXPECT_EQ(resources["inference_workers"], json::parse(R"([{"id":"gpu-1"}])"));
    EXPECT_EQ(resources["models"], json({"m"}));
    EXPECT_EQ(resources["data_workers"], json::array());
}

TEST_F(ClusterTest, AdoptsADiscoveredEmbeddingProviderForAStoreOnTheDefault) {
    controller.setHandler([](const RecordedRequest& request) {
        if (request.path != "/api/v1/cluster/resources") return FakeResponse{};
        return FakeResponse{200, R"({"embedding_providers":[{"url":"http://10.1.2.3:11434",
            "status":"online","models":["mxbai-embed-large"]}]})"};
    });
    DaemonProcess daemon(ConfigFile{{{"controller_url", controller.url()},
                                     {"heartbeat_interval_ms", 200},
                                     {"vector_enabled", true}}});
    ASSERT_TRUE(daemon.ready()) << daemon.stderrText();
    EXPECT_TRUE(eventually([&] {
        return daemon.stdoutText().find(
                   "[DataDaemon] Auto-discovered embedding provider: "
                   "http://10.1.2.3:11434 (model: mxbai-embed-large)") != std::string::npos;
    }));
    const std::string config = request(daemon.port(), "GET", "/api/v1/vector/config").body;
    EXPECT_NE(config.find("\"url\":\"http://10.1.2.3:11434\""), std::string::npos) << config;
    EXPECT_NE(config.find("\"model\":\"mxbai-embed-large\""), std::string::npos) << config;
    EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
}  // namespace vostra::test
