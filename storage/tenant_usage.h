// How much of the storage a tenant uses: figures filled by the backend, the
// quota by StorageService from the tenant table. A plain value record.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra::data {

struct TenantUsage {
    std::string tenant_id;
    int64_t storage_used_bytes = 0;
    int64_t storage_quota_bytes = 0;
    int64_t file_count = 0;
    int64_t directory_count = 0;
    int64_t swarm_storage_bytes = 0;
    int64_t artifact_storage_bytes = 0;
    int64_t upload_storage_bytes = 0;

    // The byte figures and counts, plus "storage_used_gb" and
    // "storage_quota_gb" in GiB rounded to two decimals.
    nlohmann::json toJson() const;
};

}  // namespace vostra::data
