#include "storage/memory_backend.h"

#include "common/log.h"
#include "storage/checksum.h"
#include "storage/content_type.h"
#include "storage/path_rules.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[StorageService] ");
using Clock = std::chrono::system_clock;

// What lies below `key`: everything after key + "/" (or after the root's own
// trailing "/").
std::string childPrefix(const std::string& key) {
    return key.ends_with('/') ? key : key + "/";
}

StorageResult succeeded() {
    StorageResult result;
    result.success = true;
    return result;
}

}  // namespace

bool MemoryBackend::initialize(const StorageServiceConfig&) {
    kLog.info("Memory backend initialized (for testing)");
    return true;
}

void MemoryBackend::shutdown() {
    std::lock_guard lock(mutex_);
    files_.clear();
}

std::string MemoryBackend::buildKey(const std::string& tenant, const std::string& path) {
    return tenant + "/" + sanitizePath(path);
}

std::string MemoryBackend::getAbsolutePath(const std::string& tenant,
                                           const std::string& path) const {
    return "memory://" + buildKey(tenant, path);
}

std::vector<MemoryBackend::Files::const_iterator> MemoryBackend::subtree(
    const std::string& key) const {
    std::vector<Files::const_iterator> found;
    if (auto self = files_.find(key); self != files_.end()) found.push_back(self);
    const std::string prefix = childPrefix(key);
    for (auto it = files_.lower_bound(prefix); it != files_.end() && it->first.starts_with(prefix);
         ++it)
        if (it->first != key) found.push_back(it);
    return found;
}

bool MemoryBackend::ensureParentMarkers(const std::string& tenant, const std::string& rel) {
    std::string key = tenant + "/";
    // The tenant's own folder too: deleting "" removes it with everything
    // in it, and the next write must bring it back, as a file system would.
    if (files_.find(key) == files_.end()) {
        MemoryFile root;
        root.is_directory = true;
        root.created_at = root.modified_at = Clock::now();
        files_.emplace(key, std::move(root));
    }
    for (std::size_t slash = rel.find('/'); slash != std::string::npos;
         slash = rel.find('/', slash + 1)) {
        const std::string parent = key + rel.substr(0, slash);
        auto it = files_.find(parent);
        if (it == files_.end()) {
            MemoryFile marker;
            marker.is_directory = true;
            marker.created_at = marker.modified_at = Clock::now();
            files_.emplace(parent, std::move(marker));
        } else if (!it->second.is_directory) {
            return false;
        }
    }
    return true;
}

FileEntry MemoryBackend::describe(const std::string& tenant, const std::string& key,
                                  const MemoryFile& file) const {
    FileEntry entry;
    entry.path = key.substr(tenant.size() + 1);
    entry.name = lastComponent(entry.path);
    entry.is_directory = file.is_directory;
    entry.size_bytes = static_cast<int64_t>(file.data.size());
    entry.content_type = file.content_type;
    entry.checksum = file.checksum;
    entry.metadata = file.metadata;
    entry.created_at = file.created_at;
    entry.modified_at = file.modified_at;
    return entry;
}

StorageResult MemoryBackend::write(const std::string& tenant, const std::string& path,
                                   const std::string& data, const std::string& content_type,
                                   const Metadata& metadata) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    const std::string key = tenant + "/" + rel;
    auto existing = files_.find(key);
    if (rel.empty() || (existing != files_.end() && existing->second.is_directory))
        return StorageResult::failure(ErrorKind::Internal, "Failed to open file for writing: " + path);
    if (!ensureParentMarkers(tenant, rel))
        return StorageResult::failure(ErrorKind::Internal, "Failed to create parent directories");

    MemoryFile& file = files_[key];
    const auto now = Clock::now();
    if (file.created_at == Clock::time_point{}) file.created_at = now;
    file.modified_at = now;
    file.data = data;
    file.content_type = content_type.empty() ? detectBasicContentType(path) : content_type;
    file.metadata = metadata;
    file.checksum = calculateChecksum(data);

    StorageResult result = succeeded();
    result.entry = describe(tenant, key, file);
    result.bytes_written = static_cast<int64_t>(data.size());
    return result;
}

StorageResult MemoryBackend::read(const std::string& tenant, const std::string& path,
                                  int64_t offset, int64_t length) {
    std::lock_guard lock(mutex_);
    const std::string key = buildKey(tenant, path);
    auto it = files_.find(key);
    if (it == files_.end() || it->second.is_directory)
        return StorageResult::failure(ErrorKind::NotFound, "File not found: " + path);

    const std::string& data = it->second.data;
    const std::size_t start = std::min<std::size_t>(std::max<int64_t>(offset, 0), data.size());
    std::size_t count = data.size() - start;
    if (length >= 0 && static_cast<uint64_t>(length) < count)
        count = static_cast<std::size_t>(length);

    StorageResult result = succeeded();
    result.data = data.substr(start, count);
    result.bytes_read = static_cast<int64_t>(count);
    result.entry = describe(tenant, key, it->second);
    return result;
}

StorageResult MemoryBackend::stat(const std::string& tenant, const std::string& path) {
    std::lock_guard lock(mutex_);
    const std::string key = buildKey(tenant, path);
    auto it = files_.find(key);
    if (it == files_.end()) return StorageResult::failure(ErrorKind::NotFound, "File not found: " + path);
    StorageResult result = succeeded();
    result.entry = describe(tenant, key, it->second);
    return result;
}

StorageResult MemoryBackend::list(const std::string& tenant, const std::string& path,
                                  bool recursive, const std::string& pattern, int32_t limit,
                                  int32_t offset) {
    std::lock_guard lock(mutex_);
    const std::string key = buildKey(tenant, path);
    auto dir = files_.find(key);
    if (dir == files_.end() || !dir->second.is_directory)
        return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);

    const std::string prefix = childPrefix(key);
    std::vector<FileEntry> found;
    for (auto it = files_.lower_bound(prefix); it != files_.end() && it->first.starts_with(prefix);
         ++it) {
        const std::string_view rest = std::string_view(it->first).substr(prefix.size());
        if (rest.empty() || (!recursive && rest.find('/') != std::string_view::npos)) continue;
        FileEntry entry = describe(tenant, it->first, it->second);
        if (!pattern.empty() && !matchesPattern(entry.name, pattern)) continue;
        found.push_back(std::move(entry));
    }
    StorageResult result = succeeded();
    result.entries = orderAndSlice(std::move(found), limit, offset);
    return result;
}

StorageResult MemoryBackend::mkdir(const std::string& tenant, const std::string& path) {
    std::lock_guard lock(mutex_);
    const std::string rel = sanitizePath(path);
    const std::string key = tenant + "/" + rel;
    auto it = files_.find(key);
    if (it != files_.end() && !it->second.is_directory)
        return StorageResult::failure(ErrorKind::Conflict, "Path exists and is not a directory: " + path);
    if (!ensureParentMarkers(tenant, rel))
        return StorageResult::failure(ErrorKind::Internal, "Failed to create directory: " + path);
    if (it == files_.end()) {
        MemoryFile marker;
        marker.is_directory = true;
        marker.created_at = marker.modified_at = Clock::now();
        it = files_.emplace(key, std::move(marker)).first;
    }
    StorageResult result = succeeded();
    result.entry = describe(tenant, key, it->second);
    return result;
}

StorageResult MemoryBackend::remove(const std::string& tenant, const std::string& path,
                                    bool recursive) {
    std::lock_guard lock(mutex_);
    const std::string key = buildKey(tenant, path);
    const auto doomed = subtree(key);
    if (doomed.empty() || doomed.front()->first != key)
        return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);
    if (!recursive && doomed.size() > 1)
        return StorageResult::failure(ErrorKind::Conflict, "Directory not empty: " + path);
    for (auto it : doomed)
        files_.erase(it);
    return succeeded();
}

StorageResult MemoryBackend::transfer(const std::string& tenant, const std::string& from,
                                      const std::string& to, bool erase_source) {
    const std::string from_rel = sanitizePath(from);
    const std::string to_rel = sanitizePath(to);
    const std::string from_key = tenant + "/" + from_rel;
    const std::string to_key = tenant + "/" + to_rel;
    const auto moving = subtree(from_key);
    if (moving.empty() || moving.front()->first != from_key)
        return StorageResult::failure(ErrorKind::NotFound, "Source not found: " + from);
    const bool is_directory = moving.front()->second.is_directory;
    const std::string failed = (erase_source ? "Failed to move: " : "Failed to copy: ") + from;
    if (is_directory && isSameOrBelow(to_rel, from_rel))
        return erase_source ? StorageResult::failure(ErrorKind::Conflict, failed)
                            : StorageResult::failure(ErrorKind::Invalid,
                                                     "Cannot copy a directory into itself: " + from);
    // As rename(2) and copy_file do: a file onto itself moves nowhere and
    // cannot be copied; nothing replaces an entry of the other kind.
    if (from_rel == to_rel)
        return erase_source ? succeeded() : StorageResult::failure(ErrorKind::Conflict, failed);
    auto target = files_.find(to_key);
    if (to_rel.empty() || (target != files_.end() && target->second.is_directory != is_directory))
        return StorageResult::failure(ErrorKind::Conflict, failed);
    if (!ensureParentMarkers(tenant, to_rel))
        return StorageResult::failure(ErrorKind::Internal, "Failed to create parent directories");

    std::vector<std::pair<std::string, MemoryFile>> copies;
    for (auto it : moving)
        copies.emplace_back(to_key + it->first.substr(from_key.size()), it->second);
    if (erase_source)
        for (auto it : moving)
            files_.erase(it);
    for (auto& [key, file] : copies)
        files_[key] = std::move(file);

    StorageResult result = succeeded();
    result.entry = describe(tenant, to_key, files_.at(to_key));
    return result;
}

StorageResult MemoryBackend::move(const std::string& tenant, const std::string& from,
                                  const std::string& to) {
    std::lock_guard lock(mutex_);
    return transfer(tenant, from, to, true);
}

StorageResult MemoryBackend::copy(const std::string& tenant, const std::string& from,
                                  const std::string& to) {
    std::lock_guard lock(mutex_);
    return transfer(tenant, from, to, false);
}

bool MemoryBackend::createTenantDirectory(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    MemoryFile marker;
    marker.is_directory = true;
    marker.created_at = marker.modified_at = Clock::now();
    files_.emplace(tenant + "/", std::move(marker));
    return true;
}

bool MemoryBackend::deleteTenantDirectory(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    for (auto it : subtree(tenant + "/"))
        files_.erase(it);
    return true;
}

TenantUsage MemoryBackend::getTenantUsage(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    TenantUsage usage;
    usage.tenant_id = tenant;
    const std::string root = tenant + "/";
    for (auto it : subtree(root)) {
        if (it->second.is_directory) {
            if (it->first != root) ++usage.directory_count;
            continue;
        }
        const auto bytes = static_cast<int64_t>(it->second.data.size());
        usage.storage_used_bytes += bytes;
        ++usage.file_count;
        const std::string_view rel = std::string_view(it->first).substr(root.size());
        if (rel.starts_with("swarms/")) usage.swarm_storage_bytes += bytes;
        if (rel.starts_with("artifacts/")) usage.artifact_storage_bytes += bytes;
        if (rel.starts_with("uploads/")) usage.upload_storage_bytes += bytes;
    }
    return usage;
}

}  // namespace vostra::data
