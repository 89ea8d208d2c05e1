// The storage and tenant API of the real binary over HTTP: one behavioural
// suite over both backends, then what is particular to each, then attempts
// to reach outside a tenant's folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string kFiles = "/api/v1/storage/";

class StorageApi {
protected:
    void startDaemon(std::vector<std::string> args) {
        daemon_ = std::make_unique<DaemonProcess>(std::move(args));
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "") {
        return request(daemon_->port(), method, path, body);
    }
    HttpResponse addTenant(const std::string& id, json extra = json::object()) {
        json body = {
            {"id", id}, {"enabled", true}, {"api_access", true}, {"storage_quota_bytes", 1 << 20}};
        body.update(extra);
        return call("POST", "/api/v1/tenants", body.dump());
    }
    std::vector<std::string> listed(const std::string& path) {
        std::vector<std::string> names;
        for (const json& entry : call("GET", kFiles + path).json().value("entries", json::array()))
            names.push_back(entry["path"]);
        return names;
    }

    std::unique_ptr<DaemonProcess> daemon_;
};

class StorageApiBehaviour : public StorageApi, public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        startDaemon({"--storage-backend", GetParam()});
        ASSERT_EQ(addTenant("acme").status, 201);
    }
};

TEST_P(StorageApiBehaviour, QuotaBoundaryIsExact) {
    ASSERT_EQ(addTenant("fits", {{"storage_quota_bytes", 100}}).status, 201);
    ASSERT_EQ(addTenant("over", {{"storage_quota_bytes", 100}}).status, 201);
    EXPECT_EQ(call("PUT", kFiles + "fits/a.txt", std::string(100, 'x')).status, 201);
    const HttpResponse refused = call("PUT", kFiles + "over/a.txt", std::string(101, 'x'));
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.json()["error"], "Storage quota exceeded for tenant: over");
    EXPECT_EQ(refused.json()["success"], false);
}

TEST_P(StorageApiBehaviour, DisabledAndApiLessTenantsAreRefusedAsUnknown) {
    ASSERT_EQ(addTenant("off", {{"enabled", false}}).status, 201);
    ASSERT_EQ(addTenant("noapi", {{"api_access", false}}).status, 201);
    for (const std::string tenant : {"off", "noapi", "nobody"}) {
        const HttpResponse put = call("PUT", kFiles + tenant + "/a.txt", "x");
        EXPECT_EQ(put.status, 400);
        EXPECT_EQ(put.json()["error"], "Tenant not found or access denied: " + tenant);
        EXPECT_EQ(call("GET", kFiles + tenant + "/a.txt").status, 404);
    }
}

TEST_P(StorageApiBehaviour, ServesBodiesAsTheyWereMeant) {
    EXPECT_EQ(
        call("PUT", kFiles + "acme/obj.txt", R"({"data":"x","content_type":"text/x"})").status,
        201);
    EXPECT_EQ(call("POST", kFiles + "acme/raw.txt", "not json {").status, 201);
    EXPECT_EQ(call("PUT", kFiles + "acme/arr.json", R"(["data","x"])").status, 201);
    const HttpResponse obj = call("GET", kFiles + "acme/obj.txt");
    EXPECT_EQ(obj.body, "x");
    EXPECT_EQ(obj.header("Content-Type"), "text/x");
    EXPECT_EQ(call("GET", kFiles + "acme/raw.txt").body, "not json {");
    EXPECT_EQ(call("GET", kFiles + "acme/arr.json").body, R"(["data","x"])");
    EXPECT_EQ(call("GET", kFiles + "acme/arr.json").header("Content-Type"), "application/json");

    const HttpResponse missing = call("GET", kFiles + "acme/none.txt");
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.json()["error"], "File not found: none.txt");
    EXPECT_EQ(call("PATCH", kFiles + "acme/obj.txt").status, 405);
    const HttpResponse header_break =
        call("PUT", kFiles + "acme/h.txt", R"({"data":"x","content_type":"a\r\nX-Evil: 1"})");
    EXPECT_EQ(header_break.status, 400);
}

TEST_P(StorageApiBehaviour, ListsTheRootWithOrWithoutSlashAndSubfolders) {
    ASSERT_EQ(call("PUT", kFiles + "acme/docs/a.txt", "a").status, 201);
    ASSERT_EQ(call("PUT", kFiles + "acme/top.txt", "t").status, 201);
    const auto root = listed("acme");
    EXPECT_EQ(root, listed("acme/"));
    EXPECT_NE(std::find(root.begin(), root.end(), "docs"), root.end());
    EXPECT_NE(std::find(root.begin(), root.end(), "top.txt"), root.end());
    EXPECT_EQ(listed("acme/docs/"), std::vector<std::string>{"docs/a.txt"});
    const HttpResponse absent = call("GET", kFiles + "acme/nowhere/");
    EXPECT_EQ(absent.status, 404);
    EXPECT_EQ(absent.json()["error"], "Path not found: nowhere/");
}

TEST_P(StorageApiBehaviour, DotSpellingsAddressOneFileAndDeleteIsRecursive) {
    ASSERT_EQ(call("PUT", kFiles + "acme//a/b.txt", "one").status, 201);
    for (const char* same : {"a/b.txt", "a/./b.txt", "a/../b.txt"})
        EXPECT_EQ(call("GET", kFiles + "acme/" + same).body, "one") << same;
    EXPECT_EQ(call("GET", kFiles + "acme/a/../a/b.txt").status, 404);
    ASSERT_EQ(call("PUT", kFiles + "acme/a/../a/b.txt", "two").status, 201);
    EXPECT_EQ(call("GET", kFiles + "acme/a/a/b.txt").body, "two");

    EXPECT_EQ(call("DELETE", kFiles + "acme/a").status, 200);
    EXPECT_EQ(call("GET", kFiles + "acme/a/b.txt").status, 404);
    EXPECT_EQ(call("DELETE", kFiles + "acme/a").status, 404);
}

TEST_P(StorageApiBehaviour, TenantRoutesCreateReadReplaceAndDelete) {
    const HttpResponse twice = addTenant("acme", {{"name", "second"}});
    EXPECT_EQ(twice.status, 400);
    EXPECT_EQ(twice.json()["error"], "Failed to create tenant (may already exist)");
    EXPECT_EQ(call("GET", "/api/v1/tenants/acme").json()["name"], "");

    ASSERT_EQ(addTenant("gb", {{"storage_quota_gb", 2}, {"storage_quota_bytes", 5}}).status, 201);
    EXPECT_EQ(call("GET", "/api/v1/tenants/gb").json()["storage_quota_bytes"], 2147483648);
    ASSERT_EQ(addTenant("odd", {{"storage_quota_bytes", 1073741823}}).status, 201);
    EXPECT_EQ(call("GET", "/api/v1/tenants/odd").json()["storage_quota_gb"], 0);
    EXPECT_EQ(call("GET", "/api/v1/tenants").json().size(), 4u);
    EXPECT_EQ(call("GET", "/api/v1/tenants/ghost").json()["error"], "Tenant not found");
    EXPECT_EQ(call("GET", "/api/v1/tenants/acme/other").status, 404);
    EXPECT_EQ(call("POST", "/api/v1/tenants", "{oops").status, 400);

    const HttpResponse updated =
        call("PUT", "/api/v1/tenants/acme", R"({"name":"n","enabled":true})");
    EXPECT_EQ(updated.json()["status"], "updated");
    const json replaced = call("GET", "/api/v1/tenants/acme").json();
    EXPECT_EQ(replaced["name"], "n");
    EXPECT_EQ(replaced["api_access"], false);  // replaced whole, not merged
    EXPECT_EQ(call("PUT", "/api/v1/tenants/ghost", "{}").status, 404);

    ASSERT_EQ(call("PUT", kFiles + "gb/f.txt", "12345").status, 201);
    const json usage = call("GET", "/api/v1/tenants/gb/usage").json();
    EXPECT_EQ(usage["file_count"], 1);
    EXPECT_GE(usage["storage_used_bytes"].get<int64_t>(), 5);
    EXPECT_EQ(call("DELETE", "/api/v1/tenants/gb").json()["status"], "deleted");
    EXPECT_EQ(call("DELETE", "/api/v1/tenants/gb").status, 404);
}

TEST_P(StorageApiBehaviour, DeletingATenantKeepsItsFilesUnlessForced) {
    for (const char* id : {"keep", "wipe"}) {
        ASSERT_EQ(addTenant(id).status, 201);
        ASSERT_EQ(call("PUT", kFiles + id + "/f.txt", "kept").status, 201);
    }
    ASSERT_EQ(call("DELETE", "/api/v1/tenants/keep").status, 200);
    ASSERT_EQ(call("DELETE", "/api/v1/tenants/wipe", R"({"force":true})").status, 200);
    ASSERT_EQ(addTenant("keep").status, 201);
    ASSERT_EQ(addTenant("wipe").status, 201);
    EXPECT_EQ(call("GET", kFiles + "keep/f.txt").body, "kept");
    EXPECT_EQ(call("GET", kFiles + "wipe/f.txt").status, 404);
}

INSTANTIATE_TEST_SUITE_P(Backends, StorageApiBehaviour, ::testing::Values("filesystem", "memory"),
                         [](const auto& info) { return std::string(info.param); });

class StorageApiTest : public StorageApi, public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-storage-api"); }
    void TearDown() override {
        daemon_.reset();
        removeTree(dir_);
    }
    std::string dir_;
};

TEST_F(StorageApiTest, RestartKeepsTenantsButNotTheirApiKeys) {
    const std::vector<std::string> args = {"--storage-path", dir_ + "/storage"};
    startDaemon(args);
    ASSERT_EQ(addTenant("acme", {{"api_keys", {"acme.k1"}}, {"storage_quota_bytes", 1000}}).status,
              201);
    ASSERT_EQ(call("PUT", kFiles + "acme/f.txt", "x").status, 201);
    daemon_.reset();

    startDaemon(args);
    const json back = call("GET", "/api/v1/tenants/acme").json();
    EXPECT_EQ(back["storage_quota_bytes"], 1000);
    EXPECT_FALSE(back.contains("api_keys"));
    std::ifstream stored(dir_ + "/storage/system/tenants.json");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stored), {}).find("acme.k1"),
              std::string::npos);
    EXPECT_EQ(call("GET", kFiles + "acme/f.txt").body, "x");
}

TEST_F(StorageApiTest, MemoryBackendForgetsEverythingAtRestart) {
    const std::vector<std::string> args = {"--storage-path", dir_ + "/storage", "--storage-backend",
                                           "memory"};
    startDaemon(args);
    ASSERT_EQ(addTenant("acme").status, 201);
    ASSERT_EQ(call("PUT", kFiles + "default/f.txt", "x").status, 201);
    daemon_.reset();

    startDaemon(args);
    EXPECT_EQ(call("GET", kFiles + "default/f.txt").status, 404);
    EXPECT_EQ(call("GET", "/api/v1/tenants/acme").status, 404);
    EXPECT_FALSE(fs::exists(dir_ + "/storage"));
}

TEST_F(StorageApiTest, WithoutStorageEveryStorageRouteAnswers503) {
    for (const char* off : {"--no-storage", "s3"}) {
        std::vector<std::string> args = {off};
        if (std::string(off) == "s3") args = {"--storage-backend", "s3"};
        startDaemon(args);
        for (const char* path :
             {"/api/v1/storage/default/a", "/api/v1/tenants", "/api/v1/tenants/x"}) {
            const HttpResponse answer = call("GET", path);
            EXPECT_EQ(answer.status, 503) << off << " " << path;
            EXPECT_EQ(answer.json()["error"], "Storage service not available");
        }
        EXPECT_EQ(call("GET", "/health").status, 200);
        const bool failed =
            daemon_->stderrText().find("[DataDaemon] Failed to initialize storage service") !=
            std::string::npos;
        EXPECT_EQ(failed, std::string(off) == "s3");
        daemon_.reset();
    }
}

TEST_F(StorageApiTest, NothingReachesOutsideTheTenantFolder) {
    startDaemon({"--storage-path", dir_ + "/storage"});
    const std::string tenants = dir_ + "/storage/tenants/";
    fs::create_directories(dir_ + "/outside");
    std::ofstream(dir_ + "/outside/secret.txt") << "secret";

    // Climbing and absolute paths stay inside; "%2e%2e" is a name, not a dot pair.
    const int port = daemon_->port();
    EXPECT_EQ(call("PUT", kFiles + "default/../../../outside/x.txt", "a").status, 201);
    EXPECT_TRUE(fs::exists(tenants + "default/outside/x.txt"));
    EXPECT_EQ(call("GET", kFiles + "default//etc/passwd").status, 404);
    EXPECT_EQ(sendRaw(port, "PUT " + kFiles +
                                "default/%2e%2e/y.txt HTTP/1.1\r\nContent-Length: 1\r\n\r\nb")
                  .status,
              201);
    EXPECT_TRUE(fs::exists(tenants + "default/%2e%2e/y.txt"));
    EXPECT_EQ(sendRaw(port, "GET " + kFiles + "%2e%2e/system/tenants.json HTTP/1.1\r\n\r\n").status,
              404);
    EXPECT_EQ(call("GET", kFiles + "../system/tenants.json").status, 404);

    // Tenant ids become directory names: ones that could climb are refused.
    for (const char* id : {"..", "../outside", "a/b", "."}) {
        const HttpResponse refused = addTenant(id);
        EXPECT_EQ(refused.status, 400) << id;
        EXPECT_NE(refused.json()["error"].get<std::string>().find("Invalid tenant id"),
                  std::string::npos);
    }

    EXPECT_EQ(call("GET", "/api/v1/tenants/../usage").status, 400);

    // A link planted in the folder is refused, never followed.
    fs::create_directory_symlink(dir_ + "/outside", tenants + "default/door");
    for (const char* method : {"GET", "PUT", "DELETE"}) {
        const HttpResponse answer = call(method, kFiles + "default/door/secret.txt", "z");
        EXPECT_EQ(answer.status, 400) << method;
        EXPECT_NE(answer.body.find("Symbolic link"), std::string::npos) << method;
    }
    EXPECT_EQ(listed("default/").size(), 6u);  // four standard folders, outside, %2e%2e
    std::ifstream secret(dir_ + "/outside/secret.txt");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(secret), {}), "secret");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_ + "/outside"), fs::directory_iterator()),
              1);
}

}  // namespace
}  // namespace vostra::test
