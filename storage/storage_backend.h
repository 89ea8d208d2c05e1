// The interface every storage backend (filesystem, memory, S3) offers to
// StorageService, which owns exactly one. Paths are relative to the tenant's
// root and are confined to it by the backend: "." and ".." components are
// dropped, never resolved.
//
// Thread-safety: every operation may be called from any thread at any time
// after initialize(); each backend serialises or otherwise guards itself.
// Failures are returned as a failed StorageResult (or false), never thrown.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "storage/opened_file.h"
#include "storage/storage_result.h"
#include "storage/tenant_usage.h"

namespace vostra::data {

struct StorageServiceConfig;


class StorageBackend {
public:
    using Metadata = std::map<std::string, std::string>;

    virtual ~StorageBackend() = default;

    // Prepares the backend; false when it cannot be used.
    virtual bool initialize(const StorageServiceConfig& config) = 0;
    virtual void shutdown() = 0;

    // Creates or replaces a file. An empty content type is detected from the
    // path's extension. Success carries `entry` and `bytes_written`.
    virtual StorageResult write(const std::string& tenant, const std::string& path,
                                const std::string& data, const std::string& content_type,
                                const Metadata& metadata) = 0;
    // Up to `length` bytes (all when negative) from `offset`. Success carries
    // `data`, `bytes_read` and `entry`.
    virtual StorageResult read(const std::string& tenant, const std::string& path, int64_t offset,
                               int64_t length) = 0;
    // The whole file for streaming: success carries `entry` and
    // `bytes_read` (the size), and opens `file` where the backend keeps
    // files on a local disk; elsewhere the bytes come in `data` as read()
    // gives them.
    virtual StorageResult openFile(const std::string& tenant, const std::string& path,
                                   OpenedFile& file) {
        (void)file;
        return read(tenant, path, 0, -1);
    }
    // A file, or a directory (with its contents only when `recursive`).
    virtual StorageResult remove(const std::string& tenant, const std::string& path,
                                 bool recursive) = 0;
    // `entries` of a directory: directories first, then files, each group by
    // name; then the slice [offset, offset + limit).
    virtual StorageResult list(const std::string& tenant, const std::string& path, bool recursive,
                               const std::string& pattern, int32_t limit, int32_t offset) = 0;
    virtual StorageResult stat(const std::string& tenant, const std::string& path) = 0;
    // Creates a directory and its missing parents; an existing one is success.
    virtual StorageResult mkdir(const std::string& tenant, const std::string& path) = 0;
    virtual StorageResult move(const std::string& tenant, const std::string& from,
                               const std::string& to) = 0;
    // Copies a file, or a directory with everything below it.
    virtual StorageResult copy(const std::string& tenant, const std::string& from,
                               const std::string& to) = 0;

    virtual bool createTenantDirectory(const std::string& tenant) = 0;
    // Removes the tenant's whole tree.
    virtual bool deleteTenantDirectory(const std::string& tenant) = 0;
    // Figures of the tenant's tree; `storage_quota_bytes` is left at 0.
    virtual TenantUsage getTenantUsage(const std::string& tenant) = 0;
    // Where (tenant, path) lives: a file-system path or a backend URL.
    virtual std::string getAbsolutePath(const std::string& tenant,
                                        const std::string& path) const = 0;
};

}  // namespace vostra::data
