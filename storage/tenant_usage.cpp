#include "storage/tenant_usage.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace vostra::data {
namespace {

// Usage is read by people; two decimals of a GiB (about 10 MiB) is enough.
double toGiB(int64_t bytes) {
    return std::round(static_cast<double>(bytes) / double(int64_t{1} << 30) * 100.0) / 100.0;
}

}  // namespace

nlohmann::json TenantUsage::toJson() const {
    return {{"storage_used_bytes", storage_used_bytes},
            {"storage_used_gb", toGiB(storage_used_bytes)},
            {"storage_quota_bytes", storage_quota_bytes},
            {"storage_quota_gb", toGiB(storage_quota_bytes)},
            {"file_count", file_count},
            {"directory_count", directory_count},
            {"swarm_storage_bytes", swarm_storage_bytes},
            {"artifact_storage_bytes", artifact_storage_bytes},
            {"upload_storage_bytes", upload_storage_bytes}};
}

}  // namespace vostra::data
