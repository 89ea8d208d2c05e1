// The tenant table of StorageService: its operations, the ids it refuses
// and its persisted copy.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "storage/storage_service.h"
#include "tests/support/daemon_process.h"

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

StorageWriteRequest writeOf(const std::string& tenant, const std::string& path) {
    StorageWriteRequest request;
    request.tenant_id = tenant;
    request.path = path;
    request.data = "x";
    return request;
}

class TenantTable : public ::testing::Test {
protected:
    void SetUp() override { dir_ = test::makeTempDir("vostra-tenants"); }
    void TearDown() override { test::removeTree(dir_); }

    std::unique_ptr<StorageService> start(StorageBackendType type = StorageBackendType::Filesystem,
                                          TenantConfig default_tenant = {}) {
        StorageServiceConfig config;
        config.backend_type = type;
        config.base_path = dir_ + "/storage";
        config.default_tenant = std::move(default_tenant);
        auto service = std::make_unique<StorageService>();
        EXPECT_TRUE(service->initialize(config));
        return service;
    }
    std::string tenantsFile() const { return dir_ + "/storage/system/tenants.json"; }

    std::string dir_;
};

TEST_F(TenantTable, StartsWithTheBuiltInDefaultTenant) {
    auto service = start();
    const auto found = service->getTenant("default");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->name, "Default Tenant");
    EXPECT_EQ(found->storage_quota_bytes, 53687091200);
    EXPECT_EQ(found->retention_days, 30);
    EXPECT_TRUE(found->nfs_access && found->api_access && found->enabled);
    EXPECT_TRUE(fs::is_directory(dir_ + "/storage/tenants/default/uploads"));
}

TEST_F(TenantTable, CreatesOnceReplacesWholeRecordsAndListsInIdOrder) {
    auto service = start();
    TenantConfig first = tenant("b");
    first.description = "first";
    ASSERT_TRUE(service->createTenant(first));
    EXPECT_FALSE(service->createTenant(tenant("b", 5)));
    EXPECT_EQ(service->getTenant("b")->description, "first");
    ASSERT_TRUE(service->createTenant(tenant("a")));

    EXPECT_TRUE(service->updateTenant(tenant("b", 7)));
    EXPECT_EQ(service->getTenant("b")->description, "");  // replaced, not merged
    EXPECT_FALSE(service->updateTenant(tenant("ghost")));

    std::vector<std::string> ids;
    for (const auto& t : service->listTenants())
        ids.push_back(t.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"a", "b", "default"}));
    EXPECT_EQ(service->getTenantUsage("b").storage_quota_bytes, 7);
}

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

TEST_F(TenantTable, DeleteKeepsFilesUnlessForced) {
    auto service = start();
    for (const char* id : {"keep", "wipe"}) {
        ASSERT_TRUE(service->createTenant(tenant(id)));
        ASSERT_TRUE(service->write(writeOf(id, "f.txt")).success);
    }
    EXPECT_TRUE(service->deleteTenant("keep", false));
    EXPECT_TRUE(service->deleteTenant("wipe", true));
    EXPECT_FALSE(service->deleteTenant("wipe", true));
    EXPECT_TRUE(fs::exists(dir_ + "/storage/tenants/keep/f.txt"));
    EXPECT_FALSE(fs::exists(dir_ + "/storage/tenants/wipe"));
    EXPECT_FALSE(service->validateTenantAccess("keep"));
}

TEST_F(TenantTable, SurvivesARestartWithoutItsApiKeys) {
    {
        auto service = start();
        TenantConfig keyed = tenant("acme");
        keyed.api_keys = {"acme.secret"};
        ASSERT_TRUE(service->createTenant(keyed));
    }
    std::ifstream in(tenantsFile());
    const std::string stored{std::istreambuf_iterator<char>(in), {}};
    EXPECT_NE(stored.find("\"acme\""), std::string::npos);
    EXPECT_EQ(stored.find("secret"), std::string::npos);
    auto service = start();
    const auto back = service->getTenant("acme");
    ASSERT_TRUE(back);
    EXPECT_EQ(back->storage_quota_bytes, 1000);
    EXPECT_TRUE(back->api_keys.empty());
}

TEST_F(TenantTable, ConfiguredDefaultWinsOverTheStoredOne) {
    {
        auto service = start();
        ASSERT_TRUE(service->updateTenant(tenant("default", 1)));
    }
    auto service = start(StorageBackendType::Filesystem, tenant("default", 99));
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

TEST_F(TenantTable, UnstartedOrS3ServiceOffersNothing) {
    StorageService idle;
    EXPECT_TRUE(idle.checkQuota("default", 0));
    EXPECT_FALSE(idle.checkQuota("default", 1));
    EXPECT_EQ(idle.getAbsolutePath("default", "a"), "");
    EXPECT_FALSE(idle.write(writeOf("default", "a")).success);

    StorageServiceConfig s3;
    s3.backend_type = StorageBackendType::S3;
    s3.s3_bucket = "bucket";
    EXPECT_FALSE(idle.initialize(s3));
    EXPECT_TRUE(idle.listTenants().empty());
}

}  // namespace
}  // namespace vostra::data
