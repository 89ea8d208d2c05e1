// GitStorageManager: the tenants' git working copies on local disk, and
// every question about them answered by the real `git` tool (history,
// blame, diff, branches, files at any revision). Each working copy lives at
// <storage_path>/<tenant>/<folder> with its record in ".vostra_repo.json"
// at its top, so the set survives restarts. Clones may come from a URL or
// from a forge account of the shared GitForgeManager, whose token is handed
// to git for that one command and stored nowhere else.
//
// Thread-safe: one mutex guards the records; git commands run outside it,
// so a slow clone never holds up the other repositories. Commands on one
// repository are not serialised against each other beyond what git's own
// locks do. Not copyable.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/status.h"
#include "git/git_runner.h"
#include "git/git_storage_records.h"

namespace vostra::git {
class GitForgeManager;
}

namespace vostra::data {

class GitStorageManager;

// A handle on one stored repository: each call forwards to the manager
// with the repository's id. Cheap to copy; the manager must outlive it.
class RepoWorkspace {
public:
    RepoWorkspace(GitStorageManager& manager, std::string id)
        : manager_(&manager), id_(std::move(id)) {}

    Status readFile(const std::string& path, std::string& content,
                    const std::string& branch = "") const;
    Status listDir(const std::string& path, std::vector<RepoEntry>& out,
                   const std::string& branch = "") const;
    Status findFiles(const std::string& pattern, std::vector<std::string>& out,
                     const std::string& branch = "") const;
    // A file or folder at `path` of `branch`.
    bool exists(const std::string& path, const std::string& branch = "") const;
    bool isDirectory(const std::string& path, const std::string& branch = "") const;
    Status checkout(const std::string& branch) const;
    Status getCurrentBranch(std::string& branch) const;
    std::optional<StoredRepo> getInfo() const;
    // Empty when the repository is gone.
    std::string getLocalPath() const;
    const std::string& id() const { return id_; }

private:
    GitStorageManager* manager_;
    std::string id_;
};

class GitStorageManager {
public:
    // `forges` may be null: clones from forge accounts then fail.
    GitStorageManager(std::shared_ptr<git::GitForgeManager> forges, GitStorageConfig config);
    ~GitStorageManager();  // shuts down
    GitStorageManager(const GitStorageManager&) = delete;
    GitStorageManager& operator=(const GitStorageManager&) = delete;

    // Reads every record found one level below each tenant folder (records
    // that do not parse are skipped, and say so) and starts the auto-sync
    // thread. The storage folder is made (mode 0700) by the first clone.
    Status initialize();
    // Stops the auto-sync thread; waits for a sync it is running.
    void shutdown();
    void setConfig(const GitStorageConfig& config);
    GitStorageConfig getConfig() const;

    // Clones into a new working copy and records it. Refuses a bad tenant,
    // URL or branch name (Invalid), a blocked host (Refused), a tenant at
    // its limits (QuotaExceeded), too many clones at once (Unavailable),
    // and a folder in use (Conflict); a failed clone (Internal, git's
    // output) leaves nothing behind.
    Status cloneRepository(const CloneRequest& request, StoredRepo& out);
    Status cloneFromUrl(const std::string& tenant, const std::string& url,
                        const std::string& branch, StoredRepo& out);
    Status cloneFromForge(const std::string& tenant, const std::string& forge_id,
                          const std::string& full_name, const std::string& branch, StoredRepo& out);
    // Removes the working copy and its record; NotFound when unknown.
    Status deleteRepository(const std::string& id);

    std::optional<StoredRepo> getRepository(const std::string& id) const;
    // A handle on repository `id`; nothing when there is none.
    std::optional<RepoWorkspace> getWorkspace(const std::string& id);
    std::optional<StoredRepo> getRepositoryByName(const std::string& tenant,
                                                  const std::string& full_name) const;
    // The first repository whose metadata has `key` equal to `value`.
    std::optional<StoredRepo> findByMetadata(const std::string& tenant, const std::string& key,
                                             const std::string& value) const;
    std::vector<StoredRepo> listRepositories(const std::string& tenant) const;
    std::vector<StoredRepo> listAllRepositories() const;

    // Fetches the remote and fast-forwards the checked-out branch when it
    // is only behind; the record then says "synced", or "ahead" /
    // "diverged" when local commits keep it from following.
    Status syncRepository(const std::string& id, SyncState* state = nullptr);
    // Syncs each of the tenant's repositories; the number that synced.
    int syncAllForTenant(const std::string& tenant);
    Status setAutoSync(const std::string& id, bool enabled);
    // Ahead and behind counts of the checked-out branch against the last
    // fetched state of its remote (no network).
    Status getSyncStatus(const std::string& id, SyncState& out);

    // Files at `branch` ("" for the checked-out one); a branch known only
    // on the remote is read from there.
    Status readFile(const std::string& id, const std::string& path, const std::string& branch,
                    std::string& content);
    Status listDirectory(const std::string& id, const std::string& path, const std::string& branch,
                         std::vector<RepoEntry>& out);
    // Every entry down to `depth` levels (0: no limit), sorted by path.
    Status getFileTree(const std::string& id, const std::string& branch, int depth,
                       std::vector<RepoEntry>& out);
    // Paths whose whole path or last name matches the glob `pattern`.
    Status findFiles(const std::string& id, const std::string& pattern, const std::string& branch,
                     std::vector<std::string>& out);
    // Switches the working copy, fetching the branch first when it is
    // known only on the remote.
    Status checkoutBranch(const std::string& id, const std::string& branch);
    Status getCurrentBranch(const std::string& id, std::string& branch);
    Status getBranches(const std::string& id, std::vector<BranchInfo>& out);
    Status getCommits(const std::string& id, const std::string& branch, int limit,
                      std::vector<CommitInfo>& out);
    Status getDiff(const std::string& id, const std::string& from, const std::string& to,
                   std::string& diff);
    Status getBlame(const std::string& id, const std::string& path, std::vector<BlameLine>& out);
    // The blob id git gives the file's content at the checked-out revision.
    Status hashObject(const std::string& id, const std::string& path, std::string& sha);
    Status updateMetadata(const std::string& id, const std::map<std::string, std::string>& values);

    nlohmann::json getStats() const;
    nlohmann::json getTenantUsage(const std::string& tenant) const;

    bool isDomainBlocked(const std::string& url) const;
    // An "alias:owner/repo" short name of a configured forge as its clone
    // URL; false when `text` is not one.
    bool resolveShortUrl(const std::string& text, std::string& url) const;
    static std::string getMimeType(const std::string& path);
    // Git's rule: a NUL byte in the first 8000 bytes.
    static bool isBinaryContent(std::string_view content);
    static bool isBinaryFile(const std::string& path);

private:
    // The record of `id` with last_accessed moved, or NotFound.
    Status touch(const std::string& id, StoredRepo& out);
    // The revision to read for `branch`: itself, or "origin/<branch>" when
    // only the remote has it; Invalid or NotFound otherwise.
    Status revisionFor(const StoredRepo& repo, const std::string& branch, std::string& revision);
    git::GitRunResult git(const StoredRepo& repo, std::vector<std::string> args,
                          int timeout_seconds = 0,
                          const git::GitCredentials& credentials = {}) const;
    // Credentials for fetching the repository's remote: its forge
    // account's, the host's account's, or those the clone was given.
    git::GitCredentials credentialsFor(const StoredRepo& repo) const;
    void save(const StoredRepo& repo) const;
    void storeRecord(const StoredRepo& repo);
    void measure(StoredRepo& repo) const;
    void loadRecords();
    void syncLoop();

    std::shared_ptr<git::GitForgeManager> forges_;
    mutable std::mutex mutex_;
    GitStorageConfig config_;
    std::map<std::string, StoredRepo> repos_;
    // Credentials given inside a clone URL: kept in memory only, so that a
    // private repository added that way still syncs until a restart.
    std::map<std::string, git::GitCredentials> url_credentials_;
    int active_clones_ = 0;

    std::atomic<bool> running_{false};
    std::mutex wake_mutex_;
    std::condition_variable wake_;
    std::thread sync_thread_;
};

}  // namespace vostra::data
