// The tenant and storage routes answered in process, over both backends:
// statuses of each route and method, and the 503 without a service.
#include <gtest/gtest.h>

#include "storage/storage_service.h"
#include "tests/support/in_process_daemon.h"

namespace vostra::test {
namespace {

using nlohmann::json;

const std::string kFiles = "/api/v1/storage/";

class TenantRoutes : public ::testing::TestWithParam<const char*> {
protected:
    TenantRoutes()
        : daemon_([](data::DataDaemonConfig& config) { config.storage_backend = GetParam(); }) {}
    void SetUp() override {
        ASSERT_TRUE(daemon_.initialized());
        ASSERT_EQ(addTenant("acme").status, 201);
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "") {
        return daemon_.call(method, path, body);
    }
    HttpResponse addTenant(const std::string& id, json extra = json::object()) {
        json body = {
            {"id", id}, {"enabled", true}, {"api_access", true}, {"storage_quota_bytes", 1 << 20}};
        body.update(extra);
        return call("POST", "/api/v1/tenants", body.dump());
    }

    InProcessDaemon daemon_;
};

TEST_P(TenantRoutes, TenantRoutesCreateReadReplaceAndDelete) {
    EXPECT_EQ(addTenant("acme", {{"name", "second"}}).outcome(),
              "400 Failed to create tenant (may already exist)");
    EXPECT_EQ(call("GET", "/api/v1/tenants/acme").json()["name"], "");

    ASSERT_EQ(addTenant("beta").status, 201);
    EXPECT_EQ(call("GET", "/api/v1/tenants").json().size(), 3u);
    EXPECT_EQ(call("GET", "/api/v1/tenants/ghost").outcome(), "404 Tenant not found");
    EXPECT_EQ(call("GET", "/api/v1/tenants/acme/other").status, 404);
    EXPECT_EQ(call("POST", "/api/v1/tenants", "{oops").status, 400);

    EXPECT_EQ(
        call("PUT", "/api/v1/tenants/acme", R"({"name":"n","enabled":true})").json()["status"],
        "updated");
    const json replaced = call("GET", "/api/v1/tenants/acme").json();
    EXPECT_EQ(replaced["name"], "n");
    // Replaced whole, not merged: the 1 MiB quota is gone, and what the body
    // left out takes the values of a usable tenant.
    EXPECT_EQ(replaced["storage_quota_gb"], 50);
    EXPECT_EQ(replaced["api_access"], true);
    EXPECT_EQ(call("PUT", "/api/v1/tenants/acme", "[1]").outcome(),
              "400 Request body must be a JSON object");
    EXPECT_EQ(call("PUT", "/api/v1/tenants/ghost", "{}").status, 404);

    ASSERT_EQ(call("PUT", kFiles + "beta/f.txt", "12345").status, 201);
    const json usage = call("GET", "/api/v1/tenants/beta/usage").json();
    EXPECT_EQ(usage["file_count"], 1);
    EXPECT_GE(usage["storage_used_bytes"].get<int64_t>(), 5);
    EXPECT_EQ(call("DELETE", "/api/v1/tenants/beta").json()["status"], "deleted");
    EXPECT_EQ(call("DELETE", "/api/v1/tenants/beta").status, 404);
}

TEST_P(TenantRoutes, ATenantMadeWithAnIdAloneIsUsableAtOnce) {
    ASSERT_EQ(call("POST", "/api/v1/tenants", R"({"id":"bare","name":"Bare"})").status, 201);
    const json bare = call("GET", "/api/v1/tenants/bare").json();
    EXPECT_EQ(bare["enabled"], true);
    EXPECT_EQ(bare["api_access"], true);
    EXPECT_EQ(bare["nfs_access"], true);
    EXPECT_EQ(bare["storage_quota_gb"], 50);
    EXPECT_EQ(bare["retention_days"], 30);
    EXPECT_EQ(call("PUT", kFiles + "bare/a.txt", "x").status, 201);
    EXPECT_EQ(call("POST", "/api/v1/tenants", R"("bare")").outcome(),
              "400 Request body must be a JSON object");
}

TEST_P(TenantRoutes, SidecarAndTemporaryNamesAreReservedForTheBackend) {
    ASSERT_EQ(call("PUT", kFiles + "acme/a.json", R"({"data":"{}","content_type":"application/json"})")
                  .status,
              201);
    for (const std::string path : {"a.json.meta", "dir/x.meta", "a.json.meta/", ".a.json.123456.vostra-part"}) {
        EXPECT_EQ(call("PUT", kFiles + "acme/" + path, R"({"content_type":"text/html"})").outcome(),
                  "400 Reserved file name: " + path)
            << path;
        EXPECT_EQ(call("GET", kFiles + "acme/" + path).status, 400) << path;
        EXPECT_EQ(call("DELETE", kFiles + "acme/" + path).status, 400) << path;
    }
    EXPECT_EQ(call("GET", kFiles + "acme/a.json").head.find("Content-Type: application/json"), 17u);
    EXPECT_EQ(call("PUT", kFiles + "acme/metadata.txt", "fine").status, 201);
}

TEST_P(TenantRoutes, BinaryFilesTravelAsBase64) {
    std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff\x00\x7f", 19);
    const std::string encoded = "iVBORw0KGgoAAAANSUhEUv8Afw==";
    ASSERT_EQ(call("PUT", kFiles + "acme/i.png",
                   json{{"data", encoded}, {"encoding", "base64"}, {"content_type", "image/png"}}.dump())
                  .status,
              201);
    const HttpResponse back = call("GET", kFiles + "acme/i.png");
    EXPECT_EQ(back.body, png);
    EXPECT_NE(back.head.find("Content-Type: image/png"), std::string::npos);
    EXPECT_EQ(call("PUT", kFiles + "acme/j.png", json{{"data", "!!"}, {"encoding", "base64"}}.dump())
                  .outcome(),
              "400 Invalid base64 in \"data\"");
    EXPECT_EQ(call("PUT", kFiles + "acme/j.png", json{{"data", "AA=="}, {"encoding", "rot13"}}.dump())
                  .status,
              400);
}

TEST_P(TenantRoutes, AFolderDeletedAndRefilledIsListedAgain) {
    ASSERT_EQ(call("PUT", kFiles + "acme/rd/old.txt", "1").status, 201);
    ASSERT_EQ(call("DELETE", kFiles + "acme/").status, 200);
    ASSERT_EQ(call("PUT", kFiles + "acme/rd/new.txt", "2").status, 201);
    EXPECT_EQ(call("GET", kFiles + "acme/").status, 200);
    EXPECT_EQ(call("GET", kFiles + "acme/rd/").json()["entries"][0]["name"], "new.txt");
}

TEST_P(TenantRoutes, MethodsAndSubPathsOutsideTheTableGet404Or405) {
    EXPECT_EQ(call("GET", "/api/v1/tenants/acme/usage/more").outcome(), "404 Not found");
    EXPECT_EQ(call("PATCH", "/api/v1/tenants/acme").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("DELETE", "/api/v1/tenants").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("POST", "/api/v1/tenants/acme/usage").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("PATCH", kFiles + "acme/obj.txt").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("DELETE", "/api/v1/tenants/acme", "{oops").status, 400);
    EXPECT_EQ(call("DELETE", "/api/v1/tenants/acme", "5").json()["status"], "deleted");
    EXPECT_EQ(call("GET", "/api/v1/tenants/a..b/usage").outcome().rfind("400 Invalid tenant id", 0),
              0u);
    EXPECT_EQ(call("PUT", kFiles + "acme/x.txt", R"({"data":"x","content_type":"a\nb"})").status,
              400);
}

INSTANTIATE_TEST_SUITE_P(Backends, TenantRoutes, ::testing::Values("filesystem", "memory"),
                         [](const auto& info) { return std::string(info.param); });

TEST(StorageRoutes, WithoutAServiceEveryStorageAndTenantRouteAnswers503) {
    InProcessDaemon daemon([](data::DataDaemonConfig& config) { config.storage_enabled = false; });
    for (const char* path : {"/api/v1/storage/default/a", "/api/v1/tenants", "/api/v1/tenants/x"})
        EXPECT_EQ(daemon.call("GET", path).outcome(), "503 Storage service not available") << path;
    EXPECT_EQ(daemon.daemon().storageRead({}).error, "Storage service not available");
    EXPECT_FALSE(daemon.daemon().createTenant({}));
}

}  // namespace
}  // namespace vostra::test
