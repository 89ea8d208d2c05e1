// FilesystemBackend: the default storage backend. Every tenant's files are
// ordinary files under <base>/tenants/<tenant>, each with a ".meta" JSON
// sidecar holding what the file system cannot (content type, checksum,
// caller metadata). The NFS exports serve these same directories, so the
// layout is a contract. Owned by StorageService.
//
// Confinement: caller paths are sanitised ("." and ".." dropped, never
// resolved), and a symbolic link met on the way to the target, or a target
// that is not a regular file or directory, refuses the request (kind
// Refused) instead of being followed: someone with access to the
// directories (an NFS client, a local user) could otherwise point a tenant
// outside its tree.
//
// Durability: a write puts the new file and sidecar beside the old ones
// under temporary names (never listed or counted), flushes them when
// `fsync` is set, and renames them over the old ones, so a crash or a full
// disk leaves the old content or the new one, never a mixture or nothing.
//
// Thread-safety: one mutex serialises every operation for its whole
// duration, the directory walks of getTenantUsage included.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "storage/storage_backend.h"

namespace vostra::data {

class FilesystemBackend final : public StorageBackend {
public:
    // "<file>" + this is the file's sidecar.
    static constexpr std::string_view kSidecarSuffix = ".meta";

    FilesystemBackend() = default;
    FilesystemBackend(const FilesystemBackend&) = delete;
    FilesystemBackend& operator=(const FilesystemBackend&) = delete;

    // Creates <base>, <base>/tenants, <base>/cluster and <base>/system. False
    // when they cannot be created.
    bool initialize(const StorageServiceConfig& config) override;
    void shutdown() override {}

    StorageResult write(const std::string& tenant, const std::string& path, const std::string& data,
                        const std::string& content_type, const Metadata& metadata) override;
    StorageResult openFile(const std::string& tenant, const std::string& path,
                           OpenedFile& file) override;
    StorageResult read(const std::string& tenant, const std::string& path, int64_t offset,
                       int64_t length) override;
    StorageResult remove(const std::string& tenant, const std::string& path,
                         bool recursive) override;
    // Sidecars and symbolic links are never listed; content types come from
    // the extension (sidecars are not read while listing).
    StorageResult list(const std::string& tenant, const std::string& path, bool recursive,
                       const std::string& pattern, int32_t limit, int32_t offset) override;
    StorageResult stat(const std::string& tenant, const std::string& path) override;
    StorageResult mkdir(const std::string& tenant, const std::string& path) override;
    StorageResult move(const std::string& tenant, const std::string& from,
                       const std::string& to) override;
    StorageResult copy(const std::string& tenant, const std::string& from,
                       const std::string& to) override;

    // Creates the tenant's root with swarms, artifacts, sessions and uploads.
    bool createTenantDirectory(const std::string& tenant) override;
    bool deleteTenantDirectory(const std::string& tenant) override;
    // Sizes count every regular file, sidecars included; file_count leaves
    // sidecars out. Walk errors are swallowed and the sums so far stand.
    TenantUsage getTenantUsage(const std::string& tenant) override;
    // <base>/tenants/<tenant>/<sanitised path>.
    std::string getAbsolutePath(const std::string& tenant, const std::string& path) const override;

    const std::string& basePath() const { return base_path_; }

private:
    std::filesystem::path tenantRoot(const std::string& tenant) const;
    std::filesystem::path buildPath(const std::string& tenant, const std::string& sanitized) const;
    static bool ensureParentDirs(const std::filesystem::path& full_path);
    // A failed, refused result when the tenant root or an existing component
    // of `sanitized` is a symbolic link; `shown` is the caller's path.
    std::optional<StorageResult> refuseLinks(const std::string& tenant,
                                             const std::string& sanitized,
                                             const std::string& shown) const;
    // The sanitised and full path of an existing non-folder at `path`, or the
    // failure to answer (refused link, not found, a folder). Caller holds mutex_.
    std::optional<StorageResult> findFile(const std::string& tenant, const std::string& path,
                                          std::string& rel, std::filesystem::path& full) const;
    // Source and target of a move or copy, both checked for links.
    struct Transfer {
        std::string from_rel;
        std::string to_rel;
        std::filesystem::path source;
        std::filesystem::path target;
        std::filesystem::file_status status;  // of the source, not following links
    };
    // The failure to answer when the source is missing or either path is
    // refused; otherwise fills `out`. Caller holds mutex_.
    std::optional<StorageResult> resolveTransfer(const std::string& tenant,
                                                 const std::string& from,
                                                 const std::string& to, Transfer& out) const;
    // The entry of an existing file or directory; content type, checksum and
    // metadata from the sidecar when `with_sidecar` and one exists.
    FileEntry describe(const std::filesystem::path& full, const std::string& sanitized,
                       bool with_sidecar) const;

    std::string base_path_ = "/var/lib/vostra/storage";
    bool durable_ = true;  // flush each file before it replaces the old one
    mutable std::mutex mutex_;
};

}  // namespace vostra::data
