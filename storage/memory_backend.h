// MemoryBackend: a storage backend that keeps every file in process memory
// and loses everything at exit; for trials and test set-ups. It follows the
// filesystem backend's path rules, listing order and result shapes, so that
// callers see no difference but persistence. Owned by StorageService.
//
// Directories are marker entries. Writing, copying or moving into a folder
// creates markers for its missing parents, as a file system would, so that
// listings show the folder.
//
// Thread-safety: one mutex held by every operation for its whole duration.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "storage/storage_backend.h"

namespace vostra::data {

class MemoryBackend final : public StorageBackend {
public:
    struct MemoryFile {
        std::string data;
        std::string content_type;
        Metadata metadata;
        std::string checksum;
        bool is_directory = false;
        std::chrono::system_clock::time_point created_at{};
        std::chrono::system_clock::time_point modified_at{};
    };

    MemoryBackend() = default;
    MemoryBackend(const MemoryBackend&) = delete;
    MemoryBackend& operator=(const MemoryBackend&) = delete;

    // Always true; says on standard output that nothing will persist.
    bool initialize(const StorageServiceConfig& config) override;
    // Forgets every file.
    void shutdown() override;

    StorageResult write(const std::string& tenant, const std::string& path, const std::string& data,
                        const std::string& content_type, const Metadata& metadata) override;
    // A missing key or a directory marker is "File not found: " + path.
    StorageResult read(const std::string& tenant, const std::string& path, int64_t offset,
                       int64_t length) override;
    StorageResult remove(const std::string& tenant, const std::string& path,
                         bool recursive) override;
    StorageResult list(const std::string& tenant, const std::string& path, bool recursive,
                       const std::string& pattern, int32_t limit, int32_t offset) override;
    StorageResult stat(const std::string& tenant, const std::string& path) override;
    StorageResult mkdir(const std::string& tenant, const std::string& path) override;
    // A directory moves or copies with everything below it.
    StorageResult move(const std::string& tenant, const std::string& from,
                       const std::string& to) override;
    StorageResult copy(const std::string& tenant, const std::string& from,
                       const std::string& to) override;

    // Stores the tenant's root marker.
    bool createTenantDirectory(const std::string& tenant) override;
    // Erases every key of the tenant.
    bool deleteTenantDirectory(const std::string& tenant) override;
    // Sums the data sizes; counts files and directory markers (not the root).
    TenantUsage getTenantUsage(const std::string& tenant) override;
    // "memory://" + the key.
    std::string getAbsolutePath(const std::string& tenant, const std::string& path) const override;

private:
    using Files = std::map<std::string, MemoryFile>;

    // tenant + "/" + the sanitised path; the tenant's root is tenant + "/".
    static std::string buildKey(const std::string& tenant, const std::string& path);
    // The key of `key` itself and every key below it, in key order.
    std::vector<Files::const_iterator> subtree(const std::string& key) const;
    // Markers for every missing parent of `rel`; false when a parent is a file.
    bool ensureParentMarkers(const std::string& tenant, const std::string& rel);
    // Shared by move and copy: copies the subtree at `from_key` to `to_key`.
    StorageResult transfer(const std::string& tenant, const std::string& from,
                           const std::string& to, bool erase_source);
    FileEntry describe(const std::string& tenant, const std::string& key,
                       const MemoryFile& file) const;

    Files files_;
    mutable std::mutex mutex_;
};

}  // namespace vostra::data
