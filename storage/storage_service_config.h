// The settings StorageService is started with, handed on to its backend:
// which backend, where it keeps its data, the NFS settings it carries for
// the NFS service, and the default tenant. A plain value record built by the
// daemon at initialisation.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "storage/tenant_config.h"

namespace vostra::data {

enum class StorageBackendType : int32_t { Filesystem = 0, S3 = 1, Memory = 2 };

// "s3" and "minio" give S3, "memory" gives Memory, anything else (the empty
// text included) Filesystem.
StorageBackendType storageBackendTypeFromName(std::string_view name);

// "filesystem", "s3" or "memory".
const char* storageBackendName(StorageBackendType type);

struct StorageNfsExport {
    std::string path;
    std::vector<std::string> clients;
    std::string options;
};

struct StorageServiceConfig {
    StorageBackendType backend_type = StorageBackendType::Filesystem;
    std::string base_path = "/var/lib/vostra/storage";  // filesystem backend root
    // Each stored file and its sidecar are flushed to disk before they
    // replace the old ones. Off trades power-loss durability for speed; a
    // crash of the daemon alone still leaves the old or the new file.
    bool fsync = true;

    std::string s3_endpoint;
    std::string s3_bucket;
    std::string s3_region = "us-east-1";
    std::string s3_access_key;
    std::string s3_secret_key;

    // Carried for the NFS service; storage itself does not use them.
    bool nfs_enabled = false;
    std::string nfs_version = "4.1";
    int32_t nfs_port = 2049;
    std::vector<StorageNfsExport> nfs_exports;

    // Empty id: the service creates its built-in "default" tenant instead.
    TenantConfig default_tenant;
};

}  // namespace vostra::data
