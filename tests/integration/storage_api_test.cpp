// The storage and tenant API of the real binary over HTTP: one behavioural
// suite over both backends, then what is particular to each, then attempts
// to reach outside a tenant's folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"
#include "tests/support/s3_test_server.h"

namespace vostra::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string kFiles = "/api/v1/storage/";

class StorageApi {
protected:
    StorageApi() : dir_(makeTempDir("vostra-storage-api")) {}
    ~StorageApi() {
        daemon_.reset();
        removeTree(dir_);
    }
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

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

class StorageApiBehaviour : public StorageApi, public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (s3()) {
            const S3TestServer server = s3Server();
            if (!server.available) GTEST_SKIP() << "no S3 test server";
            const std::string bucket = server.newBucket(
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
            ASSERT_NE(bucket, "");
            startDaemon(server.daemonArgs(bucket));
        } else {
            startDaemon({"--storage-backend", GetParam()});
        }
        ASSERT_EQ(addTenant("acme").status, 201);
    }
    bool s3() const { return std::string(GetParam()) == "s3"; }
};

TEST_P(StorageApiBehaviour, QuotaBoundaryIsExact) {
    ASSERT_EQ(addTenant("fits", {{"storage_quota_bytes", 100}}).status, 201);
    ASSERT_EQ(addTenant("over", {{"storage_quota_bytes", 100}}).status, 201);
    EXPECT_EQ(call("PUT", kFiles + "fits/a.txt", std::string(100, 'x')).status, 201);
    EXPECT_EQ(call("PUT", kFiles + "over/a.txt", std::string(101, 'x')).outcome(),
              "400 Storage quota exceeded for tenant: over");
}

TEST_P(StorageApiBehaviour, DisabledAndApiLessTenantsAreRefusedAsUnknown) {
    ASSERT_EQ(addTenant("off", {{"enabled", false}}).status, 201);
    ASSERT_EQ(addTenant("noapi", {{"api_access", false}}).status, 201);
    for (const std::string tenant : {"off", "noapi", "nobody"}) {
        EXPECT_EQ(call("PUT", kFiles + tenant + "/a.txt", "x").outcome(),
                  "400 Tenant not found or access denied: " + tenant);
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
    EXPECT_NE(obj.head.find("\r\nContent-Type: text/x\r\n"), std::string::npos) << obj.head;
    EXPECT_EQ(call("GET", kFiles + "acme/raw.txt").body, "not json {");
    EXPECT_EQ(call("GET", kFiles + "acme/arr.json").body, R"(["data","x"])");
    EXPECT_NE(call("GET", kFiles + "acme/arr.json").head.find("Content-Type: application/json"),
              std::string::npos);

    EXPECT_EQ(call("GET", kFiles + "acme/none.txt").outcome(),
              s3() ? "404 S3 GET failed: 404 NoSuchKey The specified key does not exist."
                   : "404 File not found: none.txt");
    EXPECT_EQ(call("PATCH", kFiles + "acme/obj.txt").status, 405);
    EXPECT_EQ(call("PUT", kFiles + "acme/h.txt", R"({"data":"x","content_type":"a\r\nX-Evil: 1"})")
                  .status,
              400);
}

TEST_P(StorageApiBehaviour, ListsTheRootWithOrWithoutSlashAndSubfolders) {
    ASSERT_EQ(call("PUT", kFiles + "acme/docs/a.txt", "a").status, 201);
    ASSERT_EQ(call("PUT", kFiles + "acme/top.txt", "t").status, 201);
    const auto root = listed("acme");
    EXPECT_EQ(root, listed("acme/"));
    EXPECT_NE(std::find(root.begin(), root.end(), "docs"), root.end());
    EXPECT_NE(std::find(root.begin(), root.end(), "top.txt"), root.end());
    EXPECT_EQ(listed("acme/docs/"), std::vector<std::string>{"docs/a.txt"});
    EXPECT_EQ(call("GET", kFiles + "acme/nowhere/").outcome(), "404 Path not found: nowhere/");
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

INSTANTIATE_TEST_SUITE_P(Backends, StorageApiBehaviour,
                         ::testing::Values("filesystem", "memory", "s3"),
                         [](const auto& info) { return std::string(info.param); });

class StorageApiTest : public StorageApi, public ::testing::Test {};

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
    for (const std::vector<std::string>& off :
         {std::vector<std::string>{"--no-storage"}, {"--storage-backend", "s3"}}) {
        startDaemon(off);
        for (const char* path :
             {"/api/v1/storage/default/a", "/api/v1/tenants", "/api/v1/tenants/x"}) {
            EXPECT_EQ(call("GET", path).outcome(), "503 Storage service not available") << path;
        }
        EXPECT_EQ(call("GET", "/health").status, 200);
        EXPECT_EQ(daemon_->stderrText().find("[DataDaemon] Failed to initialize storage service") !=
                      std::string::npos,
                  off.size() == 2);
    }
}

TEST_F(StorageApiTest, NothingReachesOutsideTheTenantFolder) {
    startDaemon({"--storage-path", dir_ + "/storage"});
    const std::string tenants = dir_ + "/storage/tenants/";
    fs::create_directories(dir_ + "/outside");
    std::ofstream(dir_ + "/outside/secret.txt") << "secret";

    // Climbing and absolute paths stay inside; "%2e%2e" decodes to ".." and
    // is dropped like a typed one.
    const int port = daemon_->port();
    EXPECT_EQ(call("PUT", kFiles + "default/../../../outside/x.txt", "a").status, 201);
    EXPECT_TRUE(fs::exists(tenants + "default/outside/x.txt"));
    EXPECT_EQ(call("GET", kFiles + "default//etc/passwd").status, 404);
    EXPECT_EQ(sendRaw(port, "PUT " + kFiles +
                                "default/%2e%2e/y.txt HTTP/1.1\r\nContent-Length: 1\r\n\r\nb")
                  .status,
              201);
    EXPECT_TRUE(fs::exists(tenants + "default/y.txt"));
    EXPECT_EQ(call("GET", kFiles + "default/%2e%2e/%2e%2e/y.txt").body, "b");
    EXPECT_EQ(call("GET", kFiles + "default%2F..%2Fsystem/tenants.json").outcome(),
              "400 Invalid encoded character in path");
    EXPECT_EQ(sendRaw(port, "GET " + kFiles + "%2e%2e/system/tenants.json HTTP/1.1\r\n\r\n").status,
              404);
    EXPECT_EQ(call("GET", kFiles + "../system/tenants.json").status, 404);

    // Tenant ids become directory names: ones that could climb are refused.
    for (const char* id : {"..", "../outside", "a/b", "."})
        EXPECT_EQ(addTenant(id).outcome().rfind("400 Invalid tenant id", 0), 0u) << id;

    EXPECT_EQ(call("GET", "/api/v1/tenants/../usage").status, 400);

    // A link planted in the folder is refused, never followed.
    fs::create_directory_symlink(dir_ + "/outside", tenants + "default/door");
    for (const char* method : {"GET", "PUT", "DELETE"}) {
        const std::string outcome = call(method, kFiles + "default/door/secret.txt", "z").outcome();
        EXPECT_EQ(outcome.rfind("400 Symbolic link", 0), 0u) << method << ": " << outcome;
    }
    EXPECT_EQ(listed("default/").size(), 6u);  // four standard folders, outside, %2e%2e
    std::ifstream secret(dir_ + "/outside/secret.txt");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(secret), {}), "secret");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_ + "/outside"), fs::directory_iterator()),
              1);
}

}  // namespace
}  // namespace vostra::test
