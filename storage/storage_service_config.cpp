#include "storage/storage_service_config.h"

namespace vostra::data {

StorageBackendType storageBackendTypeFromName(std::string_view name) {
    if (name == "s3" || name == "minio") return StorageBackendType::S3;
    if (name == "memory") return StorageBackendType::Memory;
    return StorageBackendType::Filesystem;
}

const char* storageBackendName(StorageBackendType type) {
    switch (type) {
        case StorageBackendType::S3:
            return "s3";
        case StorageBackendType::Memory:
            return "memory";
        case StorageBackendType::Filesystem:
            break;
    }
    return "filesystem";
}

}  // namespace vostra::data
