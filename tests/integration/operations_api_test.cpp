// What monitoring and tooling read from the real binary: the Prometheus
// text, checked with the reference parser (names, types, counters that
// rise), and the OpenAPI description, checked with a validator.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class OperationsApi : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = makeTempDir("vostra-operations");
        daemon_ = std::make_unique<DaemonProcess>(ConfigFile{{{"data_dir", dir_ + "/state"}}});
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    void TearDown() override {
        daemon_.reset();
        removeTree(dir_);
    }
    HttpResponse call(const std::string& method, const std::string& path, const std::string& body = "") {
        return request(daemon_->port(), method, path, body);
    }
    // The families of a scrape, as the reference parser reads them.
    json scrape() {
        const HttpResponse answer = call("GET", "/api/v1/metrics/prometheus");
        EXPECT_EQ(answer.status, 200);
        EXPECT_NE(answer.raw.find("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"), std::string::npos);
        std::ofstream(dir_ + "/scrape.txt") << answer.body;
        int status = -1;
        const std::string parsed = runCommand("/usr/bin/python3 " + std::string(VOSTRA_SOURCE_DIR) +
                                                  "/tests/tools/prometheus_families.py < " + dir_ + "/scrape.txt 2>&1",
                                              &status);
        EXPECT_EQ(status, 0) << parsed << "\n" << answer.body;
        return json::parse(parsed, nullptr, false);
    }
    // The value of the first sample named `sample` with these labels; -1
    // when there is none.
    static double value(const json& families, const std::string& family, const std::string& sample,
                        const json& labels = json::object()) {
        for (const json& s : families.value(family, json::object()).value("samples", json::array())) {
            if (s[0] != sample) continue;
            bool match = true;
            for (const auto& [key, wanted] : labels.items()) match = match && s[1].value(key, "") == wanted;
            if (match) return s[2].get<double>();
        }
        return -1;
    }

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(OperationsApi, PrometheusFiguresParseAndCountersRise) {
    ASSERT_EQ(call("PUT", "/api/v1/vector/config", R"({"enabled":true,"embedding":{"type":1}})").status, 200);
    ASSERT_EQ(call("POST", "/api/v1/data/sources", R"({"id":"a","type":"sqlite"})").status, 201);
    ASSERT_EQ(call("POST", "/api/v1/data/query", R"({"source_id":"a","sql":"SELECT 1"})").status, 200);
    ASSERT_EQ(call("PUT", "/api/v1/storage/default/m.txt", "twelve bytes").status, 201);
    ASSERT_EQ(call("POST", "/api/v1/vector/search", R"({"query":"x"})").status, 200);
    call("GET", "/nowhere");

    const json first = scrape();
    const std::map<std::string, std::string> types = {
        {"vostra_http_requests", "counter"},       {"vostra_http_request_duration_seconds", "histogram"},
        {"vostra_http_active_connections", "gauge"}, {"vostra_data_queries", "counter"},
        {"vostra_datasource_pool_connections", "gauge"}, {"vostra_datasource_statements", "counter"},
        {"vostra_storage_operations", "counter"},  {"vostra_storage_bytes", "counter"},
        {"vostra_vector_documents_added", "counter"}, {"vostra_vector_search_seconds", "summary"},
        {"vostra_nfs_connections", "counter"},     {"vostra_heartbeat_consecutive_failures", "gauge"},
    };
    for (const auto& [name, type] : types) {
        ASSERT_TRUE(first.contains(name)) << name;
        EXPECT_EQ(first[name]["type"], type) << name;
    }
    EXPECT_EQ(value(first, "vostra_datasource_pool_connections", "vostra_datasource_pool_connections", {{"source", "a"}}), 1);
    EXPECT_GE(value(first, "vostra_storage_bytes", "vostra_storage_bytes_total", {{"direction", "written"}}), 12);
    EXPECT_EQ(value(first, "vostra_http_requests", "vostra_http_requests_total", {{"family", "other"}, {"code", "4xx"}}), 1);
    EXPECT_EQ(value(first, "vostra_vector_search_seconds", "vostra_vector_search_seconds_count"), 1);

    const double health_before = value(first, "vostra_http_requests", "vostra_http_requests_total", {{"family", "health"}, {"code", "2xx"}});
    for (int i = 0; i < 3; ++i) ASSERT_EQ(call("GET", "/health").status, 200);
    ASSERT_EQ(call("POST", "/api/v1/data/query", R"({"source_id":"a","sql":"SELECT 2"})").status, 200);
    const json second = scrape();
    EXPECT_EQ(value(second, "vostra_http_requests", "vostra_http_requests_total", {{"family", "health"}, {"code", "2xx"}}),
              std::max(0.0, health_before) + 3);
    EXPECT_GT(value(second, "vostra_data_queries", "vostra_data_queries_total"),
              value(first, "vostra_data_queries", "vostra_data_queries_total"));
    EXPECT_GT(value(second, "vostra_datasource_statements", "vostra_datasource_statements_total", {{"source", "a"}}),
              value(first, "vostra_datasource_statements", "vostra_datasource_statements_total", {{"source", "a"}}));
    EXPECT_GE(value(second, "vostra_http_request_duration_seconds", "vostra_http_request_duration_seconds_count",
                    {{"family", "data"}, {"code", "2xx"}}),
              3);
}

TEST_F(OperationsApi, OpenApiDescriptionIsValidAndCoversEveryArea) {
    const HttpResponse answer = call("GET", "/api/v1/openapi.json");
    ASSERT_EQ(answer.status, 200);
    std::ofstream(dir_ + "/openapi.json") << answer.body;
    int status = -1;
    const std::string verdict = runCommand(
        "node " + std::string(VOSTRA_SOURCE_DIR) + "/tests/tools/openapi_check.mjs " + dir_ + "/openapi.json 2>&1", &status);
    EXPECT_EQ(status, 0) << verdict;
    EXPECT_NE(verdict.find("\"valid\":true"), std::string::npos) << verdict;

    const json document = json::parse(answer.body);
    EXPECT_EQ(document["openapi"], "3.1.0");
    const json& paths = document["paths"];
    std::set<std::string> areas;
    std::size_t operations = 0;
    for (const auto& [path, item] : paths.items())
        for (const auto& [method, op] : item.items()) {
            areas.insert(op["tags"][0].get<std::string>());
            ++operations;
            EXPECT_TRUE(op["responses"].contains("4XX") || path == "/") << method << " " << path;
        }
    for (const char* area : {"core", "data", "tenants", "storage", "vector", "nfs", "git", "models", "science", "agents",
                             "swarms", "workspaces", "outputs", "skills", "automations", "sandboxes", "auth", "dashboard"})
        EXPECT_TRUE(areas.contains(area)) << area;
    EXPECT_GT(operations, 150u);
    for (const char* method : {"get", "put", "post", "delete"})
        EXPECT_TRUE(paths["/api/v1/storage/{tenant}/{path}"].contains(method)) << method;
    EXPECT_EQ(paths["/api/v1/storage/{tenant}/{path}"]["get"]["parameters"].size(), 2u);
    EXPECT_TRUE(paths["/health"]["get"]["security"].empty());
    EXPECT_EQ(document["components"]["schemas"]["Error"]["required"][0], "error");
}

}  // namespace
}  // namespace vostra::test
