// GitRepoRecords: the repositories a tenant registers through the API, kept
// in the tenant's file storage under "repos/<id>/" (the record in
// "repo.json", the files of the last sync under "files/"), so they follow
// whichever storage backend is configured. A sync clones or fetches the
// repository through GitStorageManager, into a working copy named after the
// record, and mirrors its checked-out files into storage; the blob ids of
// what was mirrored ("manifest.json") let the next sync write only what
// changed.
//
// Thread-safe as far as the storage service and the manager are; two syncs
// of one record at once are serialised here. Not copyable.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "common/status.h"
#include "git/git_runner.h"
#include "git/git_storage_manager.h"

namespace vostra::data {

class StorageService;

class GitRepoRecords {
public:
    // `manager` must outlive this object. Each call is handed the storage
    // service it works on, which the caller keeps alive for the call.
    explicit GitRepoRecords(GitStorageManager& manager);
    GitRepoRecords(const GitRepoRecords&) = delete;
    GitRepoRecords& operator=(const GitRepoRecords&) = delete;

    // Every record under the tenant's "repos/" that reads and parses; a
    // listing that fails gives none.
    nlohmann::json list(StorageService& storage, const std::string& tenant) const;
    // A new "pending" record from the POST body keys "url" (default empty;
    // an "alias:owner/repo" short name of a forge account is resolved;
    // credentials in it are used for the first clone, never stored),
    // "branch" (default "main") and "depth" (default 0, the whole history).
    // Invalid for a bad URL or branch, Refused for a blocked host; storage
    // failures pass through as Internal with the storage's message.
    Status create(StorageService& storage, const std::string& tenant, const nlohmann::json& body,
                  nlohmann::json& record);
    // NotFound "Repository not found" when there is none.
    Status get(StorageService& storage, const std::string& tenant, const std::string& id,
               nlohmann::json& record) const;
    // Removes the record, its files and its working copy. Storage failures
    // pass through as Internal.
    Status remove(StorageService& storage, const std::string& tenant, const std::string& id);
    // Brings the record's files up to date with its remote and marks it
    // "synced" with "last_sync" and the checked-out "commit"; a record
    // without a URL is only marked. A failed clone or fetch marks it
    // "error" with the reason and fails with the manager's kind.
    Status sync(StorageService& storage, const std::string& tenant, const std::string& id,
                nlohmann::json& record);
    // The storage listing of "files/<path>" as {"name", "path",
    // "is_directory", "size"}, paths relative to the files root.
    Status listFiles(StorageService& storage, const std::string& tenant, const std::string& id,
                     const std::string& path, nlohmann::json& files) const;
    // The mirrored bytes of one file; NotFound "File not found".
    Status readFile(StorageService& storage, const std::string& tenant, const std::string& id,
                    const std::string& path, std::string& content) const;
    // The manager's working copy behind a synced record, for the history
    // routes; NotFound when the record was never cloned.
    Status workingCopy(const std::string& tenant, const std::string& id,
                       std::string& repo_id) const;

private:
    Status writeRecord(StorageService& storage, const std::string& tenant,
                       const nlohmann::json& record);
    // Writes the changed files of the working copy into storage and drops
    // those gone; returns the new manifest.
    Status mirror(StorageService& storage, const std::string& tenant, const std::string& id,
                  const std::string& repo_id, nlohmann::json& manifest);

    GitStorageManager& manager_;
    // Clone URLs with their credentials, until the first clone has used them.
    mutable std::mutex mutex_;
    std::map<std::string, std::string> pending_urls_;
    std::map<std::string, std::shared_ptr<std::mutex>> sync_locks_;
};

// The daemon's git service: the working copies and the route records kept
// over them, started and shut down together.
struct GitService {
    explicit GitService(std::unique_ptr<GitStorageManager> working_copies)
        : manager(std::move(working_copies)), records(*manager) {}
    void shutdown() { manager->shutdown(); }

    std::unique_ptr<GitStorageManager> manager;
    GitRepoRecords records;
};

}  // namespace vostra::data
