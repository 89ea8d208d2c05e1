#include "storage/filesystem_backend.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "common/atomic_file.h"
#include "common/log.h"
#include "storage/checksum.h"
#include "storage/content_type.h"
#include "storage/path_rules.h"
#include "storage/storage_service_config.h"

namespace vostra::data {
namespace fs = std::filesystem;
namespace {

constexpr vostra::Log kLog("[StorageService] ");
constexpr mode_t kFileMode = 0644;
constexpr const char* kTenantSubdirs[] = {"swarms", "artifacts", "sessions", "uploads"};

using Clock = std::chrono::system_clock;

StorageResult refusal(std::string message) {
    return StorageResult::failure(ErrorKind::Refused, std::move(message));
}

bool isSidecarName(std::string_view name) {
    return name.ends_with(FilesystemBackend::kSidecarSuffix);
}

// Files no client put there: sidecars, and new versions not yet in place.
bool isInternalName(std::string_view name) {
    return isSidecarName(name) || PendingFile::isPendingName(name);
}

fs::path sidecarOf(const fs::path& file) {
    fs::path sidecar = file;
    sidecar += FilesystemBackend::kSidecarSuffix;
    return sidecar;
}

bool isLink(const fs::path& path) {
    std::error_code ignored;
    return fs::is_symlink(fs::symlink_status(path, ignored));
}

Clock::time_point fromTimestamp(const struct statx_timestamp& t) {
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(
        std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec)));
}

// Creation time where the file system keeps one, else the modification time.
void fileTimes(const fs::path& path, FileEntry& entry) {
    struct statx info {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_MTIME | STATX_BTIME, &info) != 0)
        return;
    entry.modified_at = fromTimestamp(info.stx_mtime);
    entry.created_at =
        (info.stx_mask & STATX_BTIME) ? fromTimestamp(info.stx_btime) : entry.modified_at;
}

enum class FileIo { Ok, OpenFailed, NotRegular };

// Opening with O_NOFOLLOW and checking the type on the open descriptor means
// a link or a FIFO planted as the last component is never followed or
// blocked on, even if it appeared after the path was checked.
int openChecked(const fs::path& path, int flags, FileIo& status) {
    int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    if (fd < 0) {
        status = errno == ELOOP ? FileIo::NotRegular : FileIo::OpenFailed;
        return -1;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        status = FileIo::NotRegular;
        return -1;
    }
    status = FileIo::Ok;
    return fd;
}

// Reads `length` bytes (all when negative) from `offset` into `out`.
FileIo readRange(const fs::path& path, int64_t offset, int64_t length, std::string& out) {
    FileIo status;
    int fd = openChecked(path, O_RDONLY, status);
    if (fd < 0) return status;
    struct stat info {};
    fstat(fd, &info);
    const int64_t size = info.st_size;
    const int64_t start = std::min(std::max<int64_t>(offset, 0), size);
    int64_t count = size - start;
    if (length >= 0 && length < count) count = length;
    out.resize(static_cast<std::size_t>(count));
    int64_t done = 0;
    while (done < count) {
        ssize_t n =
            pread(fd, out.data() + done, static_cast<std::size_t>(count - done), start + done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // the file shrank under us: return what is there
        done += n;
    }
    ::close(fd);
    out.resize(static_cast<std::size_t>(done));
    return FileIo::Ok;
}

struct Sidecar {
    std::string content_type;
    std::string checksum;
    std::map<std::string, std::string> metadata;
};

// A sidecar that is missing, a link, or not what we wrote is simply absent:
// it was edited or planted behind our back and is not trusted.
std::optional<Sidecar> readSidecar(const fs::path& file) {
    std::string text;
    if (readRange(sidecarOf(file), 0, -1, text) != FileIo::Ok) return std::nullopt;
    const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object()) return std::nullopt;
    Sidecar sidecar;
    if (auto it = json.find("content_type"); it != json.end() && it->is_string())
        sidecar.content_type = it->get<std::string>();
    if (!isValidContentType(sidecar.content_type)) return std::nullopt;
    if (auto it = json.find("checksum"); it != json.end() && it->is_string())
        sidecar.checksum = it->get<std::string>();
    if (auto it = json.find("metadata"); it != json.end() && it->is_object())
        for (const auto& [key, value] : it->items())
            if (value.is_string()) sidecar.metadata[key] = value.get<std::string>();
    return sidecar;
}

int64_t epochMillis(Clock::time_point when) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
}

// Fails with a refusal when anything below `dir` is a symbolic link: copying
// follows links, which would pull files from outside the tenant into it.
std::optional<StorageResult> refuseLinksInTree(const fs::path& dir, const std::string& shown) {
    std::error_code error;
    for (fs::recursive_directory_iterator
             it(dir, fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end; it.increment(error)) {
        if (it->is_symlink(error))
            return refusal("Symbolic link inside the directory refused: " + shown);
    }
    return std::nullopt;
}

}  // namespace

bool FilesystemBackend::initialize(const StorageServiceConfig& config) {
    std::lock_guard lock(mutex_);
    base_path_ = config.base_path;
    durable_ = config.fsync;
    const fs::path base(base_path_);
    for (const char* sub : {"tenants", "cluster", "system"}) {
        std::error_code error;
        fs::create_directories(base / sub, error);
        if (error) {
            kLog.error("Cannot create ", (base / sub).string(), ": ", error.message());
            return false;
        }
    }
    kLog.info("Filesystem backend initialized at: ", base_path_);
    return true;
}

fs::path FilesystemBackend::tenantRoot(const std::string& tenant) const {
    return fs::path(base_path_) / "tenants" / tenant;
}

fs::path FilesystemBackend::buildPath(const std::string& tenant,
                                      const std::string& sanitized) const {
    return sanitized.empty() ? tenantRoot(tenant) : tenantRoot(tenant) / sanitized;
}

std::string FilesystemBackend::getAbsolutePath(const std::string& tenant,
                                               const std::string& path) const {
    return base_path_ + "/tenants/" + tenant + "/" + sanitizePath(path);
}

bool FilesystemBackend::ensureParentDirs(const fs::path& full_path) {
    std::error_code error;
    fs::create_directories(full_path.parent_path(), error);
    return !error;
}

std::optional<StorageResult> FilesystemBackend::refuseLinks(const std::string& tenant,
                                                            const std::string& sanitized,
                                                            const std::string& shown) const {
    fs::path at = tenantRoot(tenant);
    if (isLink(at)) return refusal("Symbolic link in path refused: " + shown);
    std::size_t begin = 0;
    while (begin < sanitized.size()) {
        std::size_t slash = sanitized.find('/', begin);
        if (slash == std::string::npos) slash = sanitized.size();
        at /= sanitized.substr(begin, slash - begin);
        std::error_code error;
        const fs::file_status status = fs::symlink_status(at, error);
        // Nothing can hang below a component that does not exist yet.
        if (!fs::exists(status)) break;
        if (fs::is_symlink(status)) return refusal("Symbolic link in path refused: " + shown);
        begin = slash + 1;
    }
    return std::nullopt;
}

FileEntry FilesystemBackend::describe(const fs::path& full, const std::string& sanitized,
                                      bool with_sidecar) const {
    FileEntry entry;
    entry.path = sanitized;
    entry.name = lastComponent(sanitized);
    std::error_code error;
    const fs::file_status status = fs::symlink_status(full, error);
    entry.is_directory = fs::is_directory(status);
    fileTimes(full, entry);
    if (fs::is_regular_file(status)) {
        entry.size_bytes = static_cast<int64_t>(fs::file_size(full, error));
        if (error) entry.size_bytes = 0;
        entry.content_type = detectContentType(sanitized);
        if (with_sidecar) {
            if (auto sidecar = readSidecar(full)) {
                entry.content_type = sidecar->content_type;
                entry.checksum = sidecar->checksum;
                entry.metadata = sidecar->metadata;
            }
        }
    }
    return entry;
}

StorageResult FilesystemBackend::write(const std::string& tenant, const std::string& path,
                                       const std::string& data, const std::string& content_type,
                                       const Metadata& metadata) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    if (auto refused = refuseLinks(tenant, rel, path)) return *refused;
    const fs::path full = buildPath(tenant, rel);
    std::error_code error;
    const fs::file_status existing = fs::symlink_status(full, error);
    if (fs::exists(existing) && !fs::is_regular_file(existing))
        return refusal("Not a regular file: " + path);
    if (!ensureParentDirs(full))
        return StorageResult::failure(ErrorKind::Internal, "Failed to create parent directories");

    FileEntry entry;
    entry.path = rel;
    entry.name = lastComponent(rel);
    entry.size_bytes = static_cast<int64_t>(data.size());
    entry.content_type = content_type.empty() ? detectContentType(path) : content_type;
    entry.checksum = calculateChecksum(data);
    entry.metadata = metadata;
    entry.created_at = entry.modified_at = Clock::now();
    const nlohmann::json sidecar = {{"content_type", entry.content_type},
                                    {"metadata", metadata},
                                    {"checksum", entry.checksum},
                                    {"size", entry.size_bytes},
                                    {"modified_at", epochMillis(entry.modified_at)}};

    // Both new versions are complete on disk before either replaces the old
    // one: a crash or a full disk leaves the old file and sidecar as they were.
    PendingFile new_data;
    PendingFile new_sidecar;
    if (Status written = PendingFile::write(full.string(), data, kFileMode, durable_, new_data);
        !written) {
        kLog.error(written.message);
        return StorageResult::failure(ErrorKind::Internal, "Failed to write file: " + path);
    }
    if (Status written = PendingFile::write(
            sidecarOf(full).string(),
            sidecar.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), kFileMode,
            durable_, new_sidecar);
        !written) {
        kLog.error(written.message);
        return StorageResult::failure(ErrorKind::Internal, "Failed to write file: " + path);
    }
    // Between these two renames a crash leaves the new data beside the old
    // sidecar, whose checksum then tells the mismatch.
    if (Status committed = new_data.commit(); !committed) {
        kLog.error(committed.message);
        return StorageResult::failure(ErrorKind::Internal, "Failed to write file: " + path);
    }
    if (Status committed = new_sidecar.commit(); !committed)
        kLog.error("Cannot replace the sidecar: ", committed.message);
    if (durable_) {
        if (Status synced = syncFolderOf(full.string()); !synced) kLog.error(synced.message);
    }

    StorageResult result;
    result.success = true;
    result.bytes_written = entry.size_bytes;
    result.entry = std::move(entry);
    return result;
}

std::optional<StorageResult> FilesystemBackend::findFile(const std::string& tenant,
                                                        const std::string& path, std::string& rel,
                                                        fs::path& full) const {
    rel = sanitizePath(path);
    if (auto refused = refuseLinks(tenant, rel, path)) return refused;
    full = buildPath(tenant, rel);
    std::error_code error;
    const fs::file_status status = fs::symlink_status(full, error);
    if (!fs::exists(status))
        return StorageResult::failure(ErrorKind::NotFound, "File not found: " + path);
    if (fs::is_directory(status))
        return StorageResult::failure(ErrorKind::Conflict, "Path is a directory: " + path);
    return std::nullopt;
}

StorageResult FilesystemBackend::openFile(const std::string& tenant, const std::string& path,
                                          OpenedFile& file) {
    std::lock_guard lock(mutex_);
    std::string rel;
    fs::path full;
    if (auto failed = findFile(tenant, path, rel, full)) return *failed;

    FileIo opened;
    const int fd = openChecked(full, O_RDONLY, opened);
    if (opened == FileIo::NotRegular) return refusal("Not a regular file: " + path);
    if (fd < 0) return StorageResult::failure(ErrorKind::Internal, "Failed to open file: " + path);
    struct stat info {};
    fstat(fd, &info);
    file = OpenedFile(fd, static_cast<uint64_t>(info.st_size));
    StorageResult result;
    result.success = true;
    result.bytes_read = static_cast<int64_t>(info.st_size);
    result.entry = describe(full, rel, true);
    return result;
}

StorageResult FilesystemBackend::read(const std::string& tenant, const std::string& path,
                                      int64_t offset, int64_t length) {
    std::lock_guard lock(mutex_);
    std::string rel;
    fs::path full;
    if (auto failed = findFile(tenant, path, rel, full)) return *failed;

    StorageResult result;
    switch (readRange(full, offset, length, result.data)) {
        case FileIo::Ok:
            break;
        case FileIo::NotRegular:
            return refusal("Not a regular file: " + path);
        default:
            return StorageResult::failure(ErrorKind::Internal, "Failed to open file: " + path);
    }
    result.success = true;
    result.bytes_read = static_cast<int64_t>(result.data.size());
    result.entry = describe(full, rel, true);
    return result;
}

StorageResult FilesystemBackend::list(const std::string& tenant, const std::string& path,
                                      bool recursive, const std::string& pattern, int32_t limit,
                                      int32_t offset) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    if (auto refused = refuseLinks(tenant, rel, path)) return *refused;
    const fs::path dir = buildPath(tenant, rel);
    const fs::path root = tenantRoot(tenant);
    std::error_code error;
    if (!fs::is_directory(fs::symlink_status(dir, error)))
        return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);

    std::vector<FileEntry> found;
    auto consider = [&](const fs::directory_entry& item) {
        std::error_code ignored;
        const fs::file_status status = item.symlink_status(ignored);
        // A link's target may lie outside the tenant: neither shown nor walked.
        if (fs::is_symlink(status)) return;
        const std::string name = item.path().filename().string();
        const bool is_dir = fs::is_directory(status);
        if (!is_dir && isInternalName(name)) return;
        if (!pattern.empty() && !matchesPattern(name, pattern)) return;
        FileEntry entry;
        entry.path = item.path().lexically_relative(root).generic_string();
        entry.name = name;
        entry.is_directory = is_dir;
        if (fs::is_regular_file(status)) {
            entry.size_bytes = static_cast<int64_t>(item.file_size(ignored));
            entry.content_type = detectContentType(name);
        }
        fileTimes(item.path(), entry);
        found.push_back(std::move(entry));
    };
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    if (recursive) {
        for (fs::recursive_directory_iterator it(dir, kOptions, error), end; !error && it != end;
             it.increment(error))
            consider(*it);
    } else {
        for (fs::directory_iterator it(dir, kOptions, error), end; !error && it != end;
             it.increment(error))
            consider(*it);
    }

    StorageResult result;
    result.success = true;
    result.entries = orderAndSlice(std::move(found), limit, offset);
    return result;
}

StorageResult FilesystemBackend::stat(const std::string& tenant, const std::string& path) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    if (auto refused = refuseLinks(tenant, rel, path)) return *refused;
    const fs::path full = buildPath(tenant, rel);
    std::error_code error;
    if (!fs::exists(fs::symlink_status(full, error)))
        return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);
    StorageResult result;
    result.success = true;
    result.entry = describe(full, rel, true);
    return result;
}

StorageResult FilesystemBackend::mkdir(const std::string& tenant, const std::string& path) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    if (auto refused = refuseLinks(tenant, rel, path)) return *refused;
    const fs::path full = buildPath(tenant, rel);
    std::error_code error;
    const fs::file_status status = fs::symlink_status(full, error);
    if (fs::exists(status) && !fs::is_directory(status))
        return StorageResult::failure(ErrorKind::Conflict, "Path exists and is not a directory: " + path);
    fs::create_directories(full, error);
    if (error) return StorageResult::failure(ErrorKind::Internal, "Failed to create directory: " + path);
    StorageResult result;
    result.success = true;
    result.entry = describe(full, rel, false);
    return result;
}

StorageResult FilesystemBackend::remove(const std::string& tenant, const std::string& path,
                                        bool recursive) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    if (auto refused = refuseLinks(tenant, rel, path)) return *refused;
    const fs::path full = buildPath(tenant, rel);
    std::error_code error;
    const fs::file_status status = fs::symlink_status(full, error);
    if (!fs::exists(status)) return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);

    if (fs::is_directory(status)) {
        if (recursive) {
            // remove_all deletes links themselves and never what they point to.
            fs::remove_all(full, error);
        } else {
            if (!fs::is_empty(full, error))
                return StorageResult::failure(ErrorKind::Conflict, "Directory not empty: " + path);
            fs::remove(full, error);
        }
    } else {
        fs::remove(full, error);
        if (!error) {
            std::error_code ignored;
            fs::remove(sidecarOf(full), ignored);
        }
    }
    if (error) return StorageResult::failure(ErrorKind::Internal, "Failed to remove: " + path);
    StorageResult result;
    result.success = true;
    return result;
}

std::optional<StorageResult> FilesystemBackend::resolveTransfer(const std::string& tenant,
                                                               const std::string& from,
                                                               const std::string& to,
                                                               Transfer& out) const {
    out.from_rel = sanitizePath(from);
    out.to_rel = sanitizePath(to);
    if (auto refused = refuseLinks(tenant, out.from_rel, from)) return refused;
    if (auto refused = refuseLinks(tenant, out.to_rel, to)) return refused;
    out.source = buildPath(tenant, out.from_rel);
    out.target = buildPath(tenant, out.to_rel);
    std::error_code error;
    out.status = fs::symlink_status(out.source, error);
    if (!fs::exists(out.status)) return StorageResult::failure(ErrorKind::NotFound, "Source path not found: " + from);
    return std::nullopt;
}

StorageResult FilesystemBackend::move(const std::string& tenant, const std::string& from,
                                      const std::string& to) {
    std::lock_guard lock(mutex_);
    Transfer transfer;
    if (auto failed = resolveTransfer(tenant, from, to, transfer)) return *failed;
    const auto& [from_rel, to_rel, source, target, status] = transfer;
    std::error_code error;
    if (!ensureParentDirs(target))
        return StorageResult::failure(ErrorKind::Internal, "Failed to create parent directories");

    fs::rename(source, target, error);
    if (error) return StorageResult::failure(ErrorKind::Internal, "Failed to move: " + from);
    if (!fs::is_directory(status)) {
        // The target must not keep the sidecar of a file it replaced.
        std::error_code ignored;
        if (fs::exists(fs::symlink_status(sidecarOf(source), ignored)))
            fs::rename(sidecarOf(source), sidecarOf(target), ignored);
        else
            fs::remove(sidecarOf(target), ignored);
    }
    StorageResult result;
    result.success = true;
    result.entry = describe(target, to_rel, true);
    return result;
}

StorageResult FilesystemBackend::copy(const std::string& tenant, const std::string& from,
                                      const std::string& to) {
    std::lock_guard lock(mutex_);
    Transfer transfer;
    if (auto failed = resolveTransfer(tenant, from, to, transfer)) return *failed;
    const auto& [from_rel, to_rel, source, target, status] = transfer;
    std::error_code error;

    if (fs::is_directory(status)) {
        // A copy into its own subtree would keep finding what it just made.
        if (isSameOrBelow(to_rel, from_rel))
            return StorageResult::failure(ErrorKind::Invalid, "Cannot copy a directory into itself: " + from);
        if (auto refused = refuseLinksInTree(source, from)) return *refused;
        if (!ensureParentDirs(target))
            return StorageResult::failure(ErrorKind::Internal, "Failed to create parent directories");
        fs::copy(source, target, fs::copy_options::recursive | fs::copy_options::overwrite_existing,
                 error);
    } else {
        if (!fs::is_regular_file(status)) return refusal("Not a regular file: " + from);
        if (!ensureParentDirs(target))
            return StorageResult::failure(ErrorKind::Internal, "Failed to create parent directories");
        fs::copy_file(source, target, fs::copy_options::overwrite_existing, error);
        if (!error) {
            std::error_code ignored;
            const fs::path sidecar = sidecarOf(source);
            if (fs::is_regular_file(fs::symlink_status(sidecar, ignored)))
                fs::copy_file(sidecar, sidecarOf(target), fs::copy_options::overwrite_existing,
                              ignored);
            else
                fs::remove(sidecarOf(target), ignored);
        }
    }
    if (error) return StorageResult::failure(ErrorKind::Internal, "Failed to copy: " + from);
    StorageResult result;
    result.success = true;
    result.entry = describe(target, to_rel, true);
    return result;
}

bool FilesystemBackend::createTenantDirectory(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    const fs::path root = tenantRoot(tenant);
    // The sub-directories would be created wherever a planted link points.
    if (isLink(root)) return false;
    std::error_code error;
    fs::create_directories(root, error);
    for (const char* sub : kTenantSubdirs) {
        if (error) break;
        if (!isLink(root / sub)) fs::create_directories(root / sub, error);
    }
    return !error;
}

bool FilesystemBackend::deleteTenantDirectory(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    std::error_code error;
    fs::remove_all(tenantRoot(tenant), error);
    return !error;
}

TenantUsage FilesystemBackend::getTenantUsage(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    TenantUsage usage;
    usage.tenant_id = tenant;
    const fs::path root = tenantRoot(tenant);
    if (isLink(root)) return usage;
    // One walk for every figure: the quota test runs this before each write.
    std::error_code error;
    for (fs::recursive_directory_iterator
             it(root, fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end; it.increment(error)) {
        std::error_code ignored;
        const fs::file_status status = it->symlink_status(ignored);
        if (fs::is_directory(status)) {
            ++usage.directory_count;
            continue;
        }
        if (!fs::is_regular_file(status)) continue;
        if (PendingFile::isPendingName(it->path().filename().string())) continue;
        const auto size = it->file_size(ignored);
        if (ignored) continue;
        const auto bytes = static_cast<int64_t>(size);
        usage.storage_used_bytes += bytes;
        if (!isSidecarName(it->path().filename().string())) ++usage.file_count;
        const fs::path rel = it->path().lexically_relative(root);
        const std::string top = rel.begin() == rel.end() ? std::string() : rel.begin()->string();
        if (top == "swarms") usage.swarm_storage_bytes += bytes;
        if (top == "artifacts") usage.artifact_storage_bytes += bytes;
        if (top == "uploads") usage.upload_storage_bytes += bytes;
    }
    return usage;
}

}  // namespace vostra::data
