// JSON forms of the storage records and the reading of write bodies.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "storage/storage_requests.h"
#include "storage/storage_result.h"
#include "storage/tenant_config.h"

namespace vostra::data {
namespace {

using nlohmann::json;

TEST(StorageResultJson, WritesOptionalKeysOnlyWhenTheyCarrySomething) {
    StorageResult empty;
    EXPECT_EQ(empty.toJson(), (json{{"success", false}, {"error", ""}}));

    StorageResult full;
    full.success = true;
    FileEntry entry;
    entry.modified_at = std::chrono::system_clock::time_point(std::chrono::nanoseconds(2'999'999));
    entry.metadata = {{"k", "v"}};
    full.entry = entry;
    full.entries = {entry};
    full.data = "x";
    full.bytes_written = 1;
    full.bytes_read = 2;
    full.refused = true;
    const json out = full.toJson();
    EXPECT_EQ(out["entry"]["modified_at"], 2);  // milliseconds, truncated
    EXPECT_EQ(out["entry"]["metadata"], (json{{"k", "v"}}));
    EXPECT_EQ(out["entries"].size(), 1u);
    EXPECT_EQ(out["data"], "x");
    EXPECT_EQ(out["bytes_read"], 2);
    EXPECT_FALSE(out.contains("refused"));
}

TEST(TenantConfigJson, QuotaInGibWinsAndRoundsDownOnTheWayOut) {
    const TenantConfig both =
        TenantConfig::fromJson({{"id", "t"}, {"storage_quota_gb", 2}, {"storage_quota_bytes", 5}});
    EXPECT_EQ(both.storage_quota_bytes, 2147483648);
    EXPECT_EQ(
        TenantConfig::fromJson({{"storage_quota_bytes", 1073741823}}).toJson()["storage_quota_gb"],
        0);
    EXPECT_EQ(TenantConfig::fromJson({{"storage_quota_gb", int64_t{1} << 40}}).storage_quota_bytes,
              INT64_MAX);
    EXPECT_EQ(TenantConfig::fromJson(json::array()).id, "");
    EXPECT_THROW(TenantConfig::fromJson({{"enabled", "yes"}}), json::type_error);
}

TEST(TenantConfigJson, NeverWritesApiKeys) {
    const TenantConfig tenant =
        TenantConfig::fromJson({{"id", "t"}, {"api_keys", {"secret"}}, {"enabled", true}});
    EXPECT_EQ(tenant.api_keys, std::vector<std::string>{"secret"});
    const json out = tenant.toJson();
    EXPECT_FALSE(out.contains("api_keys"));
    EXPECT_EQ(out.size(), 12u);
    EXPECT_EQ(TenantConfig::fromJson(out).enabled, true);
}

TEST(WriteBody, StoresDataAloneOrTheRawBody) {
    StorageWriteRequest object;
    EXPECT_EQ(object.readBody(R"({"data":"x","content_type":"text/x","metadata":{"k":"v"}})"), "");
    EXPECT_EQ(object.data, "x");
    EXPECT_EQ(object.content_type, "text/x");
    EXPECT_EQ(object.metadata.at("k"), "v");

    for (const char* raw : {"not json {", R"(["data","x"])", R"({"other":1})", ""}) {
        StorageWriteRequest request;
        EXPECT_EQ(request.readBody(raw), "");
        EXPECT_EQ(request.data, raw);
    }
    StorageWriteRequest typed;
    EXPECT_NE(typed.readBody(R"({"data":"x","metadata":{"k":1}})"), "");
}

}  // namespace
}  // namespace vostra::data
