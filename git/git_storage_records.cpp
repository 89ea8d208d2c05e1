#include "git/git_storage_records.h"

#include <array>
#include <utility>

#include "common/json_fields.h"

namespace vostra::data {
namespace {

constexpr std::array<std::pair<SyncStatus, const char*>, 7> kSyncStatusNames = {{
    {SyncStatus::Unknown, "unknown"},
    {SyncStatus::Syncing, "syncing"},
    {SyncStatus::Synced, "synced"},
    {SyncStatus::Behind, "behind"},
    {SyncStatus::Ahead, "ahead"},
    {SyncStatus::Diverged, "diverged"},
    {SyncStatus::Error, "error"},
}};

}  // namespace

GitStorageConfig GitStorageConfig::fromJson(const nlohmann::json& json) {
    GitStorageConfig config;
    readField(json, "storage_path", config.storage_path);
    readField(json, "max_repos_per_tenant", config.max_repos_per_tenant);
    readField(json, "max_storage_per_tenant", config.max_storage_per_tenant);
    readField(json, "auto_sync_interval_minutes", config.auto_sync_interval_minutes);
    readField(json, "max_concurrent_clones", config.max_concurrent_clones);
    readField(json, "clone_timeout_seconds", config.clone_timeout_seconds);
    readField(json, "enable_lfs", config.enable_lfs);
    readField(json, "enable_sparse_checkout", config.enable_sparse_checkout);
    readField(json, "blocked_domains", config.blocked_domains);
    return config;
}

nlohmann::json GitStorageConfig::toJson() const {
    return {{"storage_path", storage_path},
            {"max_repos_per_tenant", max_repos_per_tenant},
            {"max_storage_per_tenant", max_storage_per_tenant},
            {"auto_sync_interval_minutes", auto_sync_interval_minutes},
            {"max_concurrent_clones", max_concurrent_clones},
            {"clone_timeout_seconds", clone_timeout_seconds},
            {"enable_lfs", enable_lfs},
            {"enable_sparse_checkout", enable_sparse_checkout},
            {"blocked_domains", blocked_domains}};
}

const char* syncStatusName(SyncStatus status) {
    for (const auto& [value, name] : kSyncStatusNames)
        if (value == status) return name;
    return "unknown";
}

SyncStatus syncStatusFromName(const std::string& name) {
    for (const auto& [value, text] : kSyncStatusNames)
        if (name == text) return value;
    return SyncStatus::Unknown;
}

nlohmann::ordered_json StoredRepo::toJson() const {
    nlohmann::ordered_json json;
    json["id"] = id;
    json["tenant_id"] = tenant_id;
    json["forge_id"] = forge_id;
    json["full_name"] = full_name;
    json["clone_url"] = clone_url;
    json["local_path"] = local_path;
    json["default_branch"] = default_branch;
    json["sync_status"] = syncStatusName(sync_status);
    json["sync_error"] = sync_error;
    json["size_bytes"] = size_bytes;
    json["file_count"] = file_count;
    json["cloned_at"] = cloned_at;
    json["last_synced"] = last_synced;
    json["last_accessed"] = last_accessed;
    json["metadata"] = metadata;
    json["auto_sync"] = auto_sync;
    return json;
}

StoredRepo StoredRepo::fromJson(const nlohmann::json& json) {
    StoredRepo repo;
    readField(json, "id", repo.id);
    readField(json, "tenant_id", repo.tenant_id);
    readField(json, "forge_id", repo.forge_id);
    readField(json, "full_name", repo.full_name);
    readField(json, "clone_url", repo.clone_url);
    readField(json, "local_path", repo.local_path);
    readField(json, "default_branch", repo.default_branch);
    std::string status;
    readField(json, "sync_status", status);
    repo.sync_status = syncStatusFromName(status);
    readField(json, "sync_error", repo.sync_error);
    readField(json, "size_bytes", repo.size_bytes);
    readField(json, "file_count", repo.file_count);
    readField(json, "cloned_at", repo.cloned_at);
    readField(json, "last_synced", repo.last_synced);
    readField(json, "last_accessed", repo.last_accessed);
    readField(json, "metadata", repo.metadata);
    readField(json, "auto_sync", repo.auto_sync);
    return repo;
}

nlohmann::json RepoEntry::toJson() const {
    return {{"name", name}, {"path", path}, {"type", type}, {"size", size}, {"sha", sha}};
}

nlohmann::json CommitInfo::toJson() const {
    return {{"sha", sha},
            {"author", author},
            {"email", email},
            {"timestamp", timestamp},
            {"message", message}};
}

nlohmann::json BlameLine::toJson() const {
    return {{"sha", sha}, {"author", author}, {"timestamp", timestamp}, {"line", line}};
}

nlohmann::json BranchInfo::toJson() const {
    return {{"name", name}, {"current", current}, {"remote_only", remote_only}};
}

nlohmann::json SyncState::toJson() const {
    nlohmann::json json = {{"status", syncStatusName(status)},
                           {"branch", branch},
                           {"ahead", ahead},
                           {"behind", behind}};
    if (!error.empty()) json["error"] = error;
    return json;
}

}  // namespace vostra::data
