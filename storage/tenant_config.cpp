#include "storage/tenant_config.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {
namespace {

constexpr int64_t kGiB = int64_t{1} << 30;

// A quota given in GiB, saturated rather than overflowing for absurd inputs.
int64_t gibToBytes(int64_t gib) {
    int64_t bytes = 0;
    if (__builtin_mul_overflow(gib, kGiB, &bytes))
        return gib < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    return bytes;
}

}  // namespace

TenantConfig TenantConfig::fromJson(const nlohmann::json& json) {
    TenantConfig t;
    t.merge(json);
    return t;
}

TenantConfig TenantConfig::usableDefaults() {
    TenantConfig t;
    t.storage_quota_bytes = 50 * kGiB;
    t.retention_days = 30;
    t.nfs_access = true;
    t.api_access = true;
    t.enabled = true;
    return t;
}

void TenantConfig::merge(const nlohmann::json& json) {
    TenantConfig& t = *this;
    if (!json.is_object()) return;
    readField(json, "id", t.id);
    readField(json, "name", t.name);
    readField(json, "description", t.description);
    readField(json, "storage_quota_bytes", t.storage_quota_bytes);
    int64_t quota_gb = 0;
    if (json.contains("storage_quota_gb")) {
        readField(json, "storage_quota_gb", quota_gb);
        t.storage_quota_bytes = gibToBytes(quota_gb);
    }
    readField(json, "retention_days", t.retention_days);
    readField(json, "nfs_access", t.nfs_access);
    readField(json, "api_access", t.api_access);
    readField(json, "allowed_networks", t.allowed_networks);
    readField(json, "api_keys", t.api_keys);
    readField(json, "db_access", t.db_access);
    readField(json, "vector_collections", t.vector_collections);
    readField(json, "enabled", t.enabled);
}

nlohmann::json TenantConfig::toJson() const {
    return {{"id", id},
            {"name", name},
            {"description", description},
            {"storage_quota_bytes", storage_quota_bytes},
            {"storage_quota_gb", storage_quota_bytes / kGiB},
            {"retention_days", retention_days},
            {"nfs_access", nfs_access},
            {"api_access", api_access},
            {"allowed_networks", allowed_networks},
            {"db_access", db_access},
            {"vector_collections", vector_collections},
            {"enabled", enabled}};
}

}  // namespace vostra::data
