// One tenant: an organisation whose files live in their own directory tree,
// with the flags and the quota that govern its use of the daemon. A plain
// value record; StorageService keeps the table of them.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct TenantConfig {
    std::string id;  // key of the table and name of the tenant's directory
    std::string name;
    std::string description;
    int64_t storage_quota_bytes = 0;
    int32_t retention_days = 0;
    bool nfs_access = false;
    bool api_access = false;
    std::vector<std::string> allowed_networks;
    std::vector<std::string> api_keys;  // kept in memory only, never written out
    std::vector<std::string> db_access;
    std::vector<std::string> vector_collections;
    bool enabled = false;

    // Assigns only the keys present; a non-object gives the defaults.
    // "storage_quota_gb" (whole GiB) wins over "storage_quota_bytes". A present
    // key of the wrong JSON type throws nlohmann::json::type_error.
    static TenantConfig fromJson(const nlohmann::json& json);
    // As fromJson, but onto this record: absent keys keep its values.
    void merge(const nlohmann::json& json);

    // The record a tenant made over the API starts from: usable at once, as
    // the built-in "default" tenant is (enabled, API and NFS access, 50 GiB,
    // 30 days' retention), with no id or name.
    static TenantConfig usableDefaults();

    // Every key fromJson reads except "api_keys", which is deliberately left
    // out so that keys never reach an API answer or the persisted table.
    // "storage_quota_gb" is the quota in whole GiB, rounded down.
    nlohmann::json toJson() const;
};

}  // namespace vostra::data
