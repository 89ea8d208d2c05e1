// The value records of the repository storage: its settings, one stored
// working copy, a directory entry, a clone request, and what the history
// commands answer. Plain values with their JSON forms; thread-safe to copy.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct GitStorageConfig {
    std::string storage_path = "/var/lib/vostra/git";  // root of the working copies
    int max_repos_per_tenant = 100;
    int64_t max_storage_per_tenant = 10LL << 30;  // bytes
    int auto_sync_interval_minutes = 60;
    int max_concurrent_clones = 4;
    int clone_timeout_seconds = 600;
    bool enable_lfs = false;
    bool enable_sparse_checkout = false;
    std::vector<std::string> blocked_domains;

    // Reads the keys present; a key of the wrong type throws the parser's
    // type_error.
    static GitStorageConfig fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

enum class SyncStatus { Unknown, Syncing, Synced, Behind, Ahead, Diverged, Error };

const char* syncStatusName(SyncStatus status);
// An unrecognised text reads as Unknown.
SyncStatus syncStatusFromName(const std::string& name);

// One working copy kept by GitStorageManager; saved as ".vostra_repo.json"
// at its top. Times are seconds since the Unix epoch (0: never).
struct StoredRepo {
    std::string id;
    std::string tenant_id;
    std::string forge_id;
    std::string full_name;
    std::string clone_url;  // never with credentials
    std::string local_path;
    std::string default_branch;
    SyncStatus sync_status = SyncStatus::Unknown;
    std::string sync_error;
    int64_t size_bytes = 0;
    int64_t file_count = 0;
    int64_t cloned_at = 0;
    int64_t last_synced = 0;
    int64_t last_accessed = 0;
    std::map<std::string, std::string> metadata;
    bool auto_sync = false;

    // The keys in their documented order.
    nlohmann::ordered_json toJson() const;
    static StoredRepo fromJson(const nlohmann::json& json);
};

struct RepoEntry {
    std::string name;
    std::string path;
    std::string type;  // "file", "dir" or "symlink"
    int64_t size = 0;
    std::string sha;  // git's object id

    nlohmann::json toJson() const;
};

struct CloneRequest {
    std::string tenant_id;
    std::string forge_id;   // with full_name: clone from this forge account
    std::string url;        // or from this URL (credentials in it are used, not kept)
    std::string full_name;  // "owner/repo"; from the URL when empty
    std::string branch;     // empty: the remote's default
    int depth = 0;          // 0: the whole history
    // The working copy's folder under the tenant's; the repository's name
    // when empty.
    std::string folder;
    std::map<std::string, std::string> metadata;
};

struct CommitInfo {
    std::string sha;
    std::string author;
    std::string email;
    int64_t timestamp = 0;
    std::string message;

    nlohmann::json toJson() const;
};

struct BlameLine {
    std::string sha;
    std::string author;
    int64_t timestamp = 0;
    std::string line;

    nlohmann::json toJson() const;
};

struct BranchInfo {
    std::string name;
    bool current = false;
    bool remote_only = false;  // known from the remote, not yet checked out

    nlohmann::json toJson() const;
};

// How a working copy's branch stands against its remote.
struct SyncState {
    SyncStatus status = SyncStatus::Unknown;
    std::string branch;
    int ahead = 0;
    int behind = 0;
    std::string error;

    nlohmann::json toJson() const;
};

}  // namespace vostra::data
