// What callers of StorageService can rely on, whichever backend holds the
// files: one suite, run over the filesystem, memory and S3 backends (the
// last on the test run's S3 server, in a bucket of its own); then the
// tenant table.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "storage/storage_service.h"
#include "tests/support/daemon_process.h"
#include "tests/support/s3_test_server.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;

TenantConfig tenant(const std::string& id, int64_t quota = 1000) {
    TenantConfig t;
    t.id = id;
    t.storage_quota_bytes = quota;
    t.enabled = t.api_access = true;
    return t;
}

class StorageBehaviour : public ::testing::TestWithParam<StorageBackendType> {
protected:
    void SetUp() override {
        dir_ = test::makeTempDir("vostra-storage");
        StorageServiceConfig config;
        config.backend_type = GetParam();
        config.base_path = dir_ + "/storage";
        if (s3()) {
            const test::S3TestServer server = test::s3Server();
            if (!server.available) GTEST_SKIP() << "no S3 test server";
            config.s3_endpoint = server.endpoint();
            config.s3_bucket = server.newBucket(
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
            config.s3_access_key = server.access_key;
            config.s3_secret_key = server.secret_key;
            ASSERT_NE(config.s3_bucket, "");
        }
        ASSERT_TRUE(service_.initialize(config));
        ASSERT_TRUE(addTenant("acme", 1 << 20));
    }
    void TearDown() override {
        service_.shutdown();
        test::removeTree(dir_);
    }
    bool addTenant(const std::string& id, int64_t quota) {
        return service_.createTenant(tenant(id, quota));
    }
    StorageResult put(const std::string& path, const std::string& data,
                      const std::string& tenant = "acme") {
        return service_.write({tenant, path, data, "", true, true, {}});
    }
    StorageResult get(const std::string& path, int64_t offset = 0, int64_t length = -1,
                      const std::string& tenant = "acme") {
        return service_.read({tenant, path, false, offset, length});
    }
    std::vector<std::string> names(const std::string& path, bool recursive = false,
                                   const std::string& pattern = "") {
        std::vector<std::string> out;
        for (const FileEntry& e : service_.list({"acme", path, recursive, pattern}).entries)
            out.push_back(e.path);
        return out;
    }
    bool memory() const { return GetParam() == StorageBackendType::Memory; }
    bool s3() const { return GetParam() == StorageBackendType::S3; }

    std::string dir_;
    StorageService service_;
};

TEST_P(StorageBehaviour, WrittenFilesReadBackWithTheirEntryAndInSlices) {
    StorageWriteRequest request{"acme", "docs/a.json", "0123456789ab", "",
                                true,   true,          {{"k", "v"}}};
    const StorageResult written = service_.write(request);
    ASSERT_TRUE(written.success) << written.error;
    EXPECT_EQ(written.bytes_written, 12);
    const StorageResult read = get("/docs/a.json");
    ASSERT_TRUE(read.entry);
    EXPECT_EQ(read.entry->path, "docs/a.json");
    EXPECT_EQ(read.entry->name, "a.json");
    EXPECT_EQ(read.entry->content_type, "application/json");
    EXPECT_EQ(read.entry->checksum, written.entry->checksum);
    EXPECT_EQ(read.entry->metadata.at("k"), "v");

    EXPECT_EQ(get("docs/a.json", 10, 5).data, "ab");
    EXPECT_EQ(get("docs/a.json", 10, 5).bytes_read, 2);
    EXPECT_EQ(get("docs/a.json", 2, 3).data, "234");
    const StorageResult past = get("docs/a.json", 50, -1);
    EXPECT_TRUE(past.success);
    EXPECT_EQ(past.data, "");
}

TEST_P(StorageBehaviour, CopiesCountAgainstTheQuotaDirectoriesIncluded) {
    ASSERT_TRUE(addTenant("small", 1100));
    ASSERT_TRUE(put("d/one.txt", std::string(400, 'x'), "small").success);
    ASSERT_TRUE(service_.copy("small", "d/one.txt", "two.txt").success);
    const StorageResult refused = service_.copy("small", "d", "e");
    EXPECT_EQ(refused.error, "Storage quota exceeded for tenant: small");
}

TEST_P(StorageBehaviour, ListingsOrderFilterAndSlice) {
    for (const char* path : {"l/b.json", "l/a.json", "l/a.json.bak", "l/Z/deep.json", "l/m/x"})
        ASSERT_TRUE(put(path, "x").success);
    EXPECT_EQ(names("l"),
              (std::vector<std::string>{"l/Z", "l/m", "l/a.json", "l/a.json.bak", "l/b.json"}));
    EXPECT_EQ(names("/l/"), names("l"));
    EXPECT_EQ(names("l", false, "*.json"), (std::vector<std::string>{"l/a.json", "l/b.json"}));
    EXPECT_EQ(names("l", true, "*.json"),
              (std::vector<std::string>{"l/a.json", "l/b.json", "l/Z/deep.json"}));

    const StorageResult page = service_.list({"acme", "l", false, "", 2, 1});
    ASSERT_EQ(page.entries.size(), 2u);
    EXPECT_EQ(page.entries[1].path, "l/a.json");
    const StorageResult beyond = service_.list({"acme", "l", false, "", 10, 50});
    EXPECT_TRUE(beyond.success && beyond.entries.empty());
}

TEST_P(StorageBehaviour, RemovingADirectoryNeedsTheRecursiveFlag) {
    ASSERT_TRUE(put("tree/a/b.txt", "x").success);
    EXPECT_EQ(service_.remove("acme", "tree", false).error, "Directory not empty: tree");
    EXPECT_TRUE(get("tree/a/b.txt").success);
    EXPECT_TRUE(service_.remove("acme", "tree", true).success);
    EXPECT_FALSE(service_.stat("acme", "tree/a/b.txt").success);
    EXPECT_EQ(service_.remove("acme", "tree", true).error, "Path not found: tree");
    ASSERT_TRUE(service_.mkdir("acme", "empty/dir").success);
    EXPECT_TRUE(service_.remove("acme", "empty/dir", false).success);
}

TEST_P(StorageBehaviour, MovesAndCopiesCarryContentAndMetadata) {
    StorageWriteRequest request{"acme", "src/f.txt", "body", "text/x", true, true, {{"k", "v"}}};
    ASSERT_TRUE(service_.write(request).success);
    ASSERT_TRUE(service_.copy("acme", "src", "dup").success);
    ASSERT_TRUE(service_.move("acme", "src/f.txt", "moved/g.txt").success);
    EXPECT_FALSE(get("src/f.txt").success);
    for (const char* path : {"dup/f.txt", "moved/g.txt"}) {
        const StorageResult read = get(path);
        EXPECT_EQ(read.data, "body") << path;
        EXPECT_EQ(read.entry->content_type, "text/x") << path;
        EXPECT_EQ(read.entry->metadata.at("k"), "v") << path;
    }
    const std::string missing =
        memory() || s3() ? "Source not found: " : "Source path not found: ";
    EXPECT_EQ(service_.move("acme", "ghost", "x").error, missing + "ghost");
    EXPECT_EQ(service_.copy("acme", "dup", "dup/inner").error,
              "Cannot copy a directory into itself: dup");
}

TEST_P(StorageBehaviour, MkdirAndReadRefuseTheWrongKindOfEntry) {
    ASSERT_TRUE(put("file", "x").success);
    EXPECT_EQ(service_.mkdir("acme", "file").error, "Path exists and is not a directory: file");
    // An object store keeps "file" and "file/child" side by side; checking
    // every parent on each write would cost a request per level.
    if (s3()) return;
    EXPECT_FALSE(put("file/child", "x").success);
    ASSERT_TRUE(service_.mkdir("acme", "dir").success);
    EXPECT_TRUE(service_.mkdir("acme", "dir").success);
    EXPECT_TRUE(service_.stat("acme", "dir").entry->is_directory);
    EXPECT_EQ(get("dir").error, memory() ? "File not found: dir" : "Path is a directory: dir");
    EXPECT_EQ(get("none").error, "File not found: none");
    EXPECT_FALSE(put("dir", "x").success);
}

TEST_P(StorageBehaviour, SubscribersSeePlainPrefixesOfTheirTenant) {
    ASSERT_TRUE(addTenant("other", 1 << 20));
    std::vector<std::string> docs, all;
    const std::string id = service_.subscribe(
        "acme", "docs",
        [&](auto&, const std::string& path, auto& op) { docs.push_back(op + " " + path); });
    service_.subscribe("acme", "/",
                       [&](auto&, const std::string& path, auto&) { all.push_back(path); });
    service_.subscribe("acme", "",
                       [](auto&, auto&, auto&) { throw std::runtime_error("ignored"); });
    EXPECT_EQ(id.size(), 20u);
    EXPECT_EQ(id.rfind("sub-", 0), 0u);

    (void)put("docs/a", "x");
    (void)put("docs2/b", "x");
    (void)put("/docs/c", "x", "other");
    (void)put("images/c", "x");
    (void)service_.remove("acme", "docs/a", false);
    (void)service_.mkdir("acme", "docs/d");
    service_.unsubscribe(id);
    (void)put("docs/e", "x");
    EXPECT_EQ(docs, (std::vector<std::string>{"write docs/a", "write docs2/b", "delete docs/a",
                                              "mkdir docs/d"}));
    EXPECT_EQ(all.size(), 6u);
    EXPECT_EQ(service_.getMetrics()["subscription_count"], 2);
}

TEST_P(StorageBehaviour, MetricsCountSuccessfulCallsOnly) {
    (void)put("m.txt", "12345");
    (void)get("m.txt");
    (void)get("missing");
    (void)service_.remove("acme", "m.txt", false);
    (void)put("x", "y", "nobody");
    const nlohmann::json metrics = service_.getMetrics();
    EXPECT_EQ(metrics["total_writes"], 1);
    EXPECT_EQ(metrics["bytes_written"], 5);
    EXPECT_EQ(metrics["total_reads"], 1);
    EXPECT_EQ(metrics["bytes_read"], 5);
    EXPECT_EQ(metrics["total_deletes"], 1);
    EXPECT_EQ(metrics["tenant_count"], 2);
    EXPECT_EQ(metrics["backend"], storageBackendName(GetParam()));
}

TEST_P(StorageBehaviour, ConcurrentWritersAndReadersSeeWholeFiles) {
    // S3 replaces objects whole, but the test run's server rewrites them in
    // place, so a read beside a write can see a mixture there.
    if (s3()) GTEST_SKIP() << "the S3 test server does not replace objects atomically";
    std::vector<std::thread> threads;
    std::atomic<int> torn{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            const std::string body(512, static_cast<char>('a' + t));
            for (int i = 0; i < 40; ++i) {
                (void)put("shared.txt", body);
                const std::string seen = get("shared.txt").data;
                if (seen.size() != 512 || seen.find_first_not_of(seen[0]) != std::string::npos)
                    ++torn;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(service_.getMetrics()["total_writes"], 160);
}

INSTANTIATE_TEST_SUITE_P(Backends, StorageBehaviour,
                         ::testing::Values(StorageBackendType::Filesystem,
                                           StorageBackendType::Memory, StorageBackendType::S3),
                         [](const auto& info) {
                             return std::string(storageBackendName(info.param));
                         });

// The tenant table: the ids it refuses, the default tenant and a damaged
// persisted copy. Its HTTP routes and restarts are checked against the real
// binary.
class TenantTable : public ::testing::Test {
protected:
    void SetUp() override { dir_ = test::makeTempDir("vostra-tenants"); }
    void TearDown() override { test::removeTree(dir_); }

    std::unique_ptr<StorageService> start(TenantConfig default_tenant = {}) {
        StorageServiceConfig config;
        config.base_path = dir_ + "/storage";
        config.default_tenant = std::move(default_tenant);
        auto service = std::make_unique<StorageService>();
        EXPECT_TRUE(service->initialize(config));
        return service;
    }
    std::string tenantsFile() const { return dir_ + "/storage/system/tenants.json"; }

    std::string dir_;
};

TEST_F(TenantTable, RefusesIdsThatCouldLeaveTheTenantsFolder) {
    auto service = start();
    const std::vector<std::string> unusable = {"",    ".",    "..",   "../x",
                                               "a/b", "/abs", "a..b", std::string("a\0b", 3)};
    for (const std::string& id : unusable) {
        EXPECT_NE(StorageService::tenantIdProblem(id), "") << id;
        EXPECT_FALSE(service->createTenant(tenant(id))) << id;
    }
    EXPECT_EQ(StorageService::tenantIdProblem("acme-1.prod"), "");
    EXPECT_EQ(service->listTenants().size(), 1u);
    EXPECT_FALSE(fs::exists(dir_ + "/storage/x"));
    EXPECT_FALSE(fs::exists(dir_ + "/storage/tenants/a"));
}

TEST_F(TenantTable, ConfiguredDefaultWinsOverTheStoredOne) {
    {
        auto service = start();
        ASSERT_TRUE(service->updateTenant(tenant("default", 1)));
    }
    auto service = start(tenant("default", 99));
    EXPECT_EQ(service->getTenant("default")->storage_quota_bytes, 99);
    auto builtin = start();  // stored table: quota 1, and nothing configured
    EXPECT_EQ(builtin->getTenant("default")->storage_quota_bytes, 53687091200);
}

TEST_F(TenantTable, GoesOnWithWhatItHasWhenTheFileIsDamaged) {
    fs::create_directories(dir_ + "/storage/system");
    std::ofstream(tenantsFile()) << R"([{"id":"good"},{"id":"../bad"},{"id":5},"junk"])";
    auto service = start();
    EXPECT_TRUE(service->getTenant("good"));
    EXPECT_EQ(service->listTenants().size(), 2u);

    std::ofstream(tenantsFile()) << "{ not json";
    EXPECT_EQ(start()->listTenants().size(), 1u);
}

}  // namespace
}  // namespace vostra::data
