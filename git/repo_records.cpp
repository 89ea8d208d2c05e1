#include "git/repo_records.h"

#include <ctime>

#include "common/file_name.h"
#include "common/log.h"
#include "common/random_id.h"
#include "git/git_storage_manager.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[GitRepos] ");
constexpr const char* kRecordsFolder = "repos";
constexpr const char* kNotFound = "Repository not found";
constexpr const char* kFileNotFound = "File not found";
constexpr const char* kRecordMetadataKey = "record_id";

std::string folderOf(const std::string& id) {
    return std::string(kRecordsFolder) + "/" + id;
}
std::string recordPath(const std::string& id) {
    return folderOf(id) + "/repo.json";
}
std::string manifestPath(const std::string& id) {
    return folderOf(id) + "/manifest.json";
}
std::string filesPath(const std::string& id) {
    return folderOf(id) + "/files";
}

std::string isoNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

// A path below a record's files folder: no ".." may climb out of it.
bool isInsidePath(const std::string& path) {
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (path.compare(start, end - start, "..") == 0) return false;
        start = end + 1;
    }
    return path.find('\0') == std::string::npos;
}

Status storageFailure(const StorageResult& result) {
    return Status::failure(result.kind == ErrorKind::None ? ErrorKind::Internal : result.kind,
                           result.error);
}

}  // namespace

GitRepoRecords::GitRepoRecords(GitStorageManager& manager) : manager_(manager) {}

nlohmann::json GitRepoRecords::list(StorageService& storage, const std::string& tenant) const {
    nlohmann::json repos = nlohmann::json::array();
    StorageListRequest request;
    request.tenant_id = tenant;
    request.path = kRecordsFolder;
    request.limit = 100000;
    const StorageResult listing = storage.list(request);
    if (!listing.success) return repos;
    for (const FileEntry& entry : listing.entries) {
        StorageReadRequest read;
        read.tenant_id = tenant;
        read.path = recordPath(entry.name);
        const StorageResult record = storage.read(read);
        if (!record.success) continue;
        nlohmann::json parsed = nlohmann::json::parse(record.data, nullptr, false);
        if (!parsed.is_discarded() && parsed.is_object()) repos.push_back(std::move(parsed));
    }
    return repos;
}

Status GitRepoRecords::writeRecord(StorageService& storage, const std::string& tenant,
                                   const nlohmann::json& record) {
    StorageWriteRequest write;
    write.tenant_id = tenant;
    write.path = recordPath(record.value("id", ""));
    write.data = record.dump(2);
    write.content_type = "application/json";
    const StorageResult result = storage.write(write);
    return result.success ? Status::success() : storageFailure(result);
}

Status GitRepoRecords::create(StorageService& storage, const std::string& tenant,
                              const nlohmann::json& body, nlohmann::json& record) {
    std::string url = body.value("url", std::string());
    const std::string branch = body.value("branch", std::string("main"));
    const int depth = body.value("depth", 0);
    if (!git::isValidBranchName(branch))
        return Status::failure(ErrorKind::Invalid, "Invalid branch name");
    if (depth < 0) return Status::failure(ErrorKind::Invalid, "Invalid depth");
    if (!url.empty()) {
        if (std::string resolved; manager_.resolveShortUrl(url, resolved)) url = resolved;
        if (!git::isAllowedRemoteUrl(url))
            return Status::failure(ErrorKind::Invalid, "Invalid repository URL");
        if (manager_.isDomainBlocked(url))
            return Status::failure(ErrorKind::Refused, "Domain is blocked: " + git::urlHost(url));
    }
    std::string id;
    for (int attempt = 0; attempt < 8 && id.empty(); ++attempt) {
        std::string candidate = "repo-" + randomHex(8);
        if (!storage.stat(tenant, folderOf(candidate)).success) id = std::move(candidate);
    }
    if (id.empty()) return Status::failure(ErrorKind::Internal, "Cannot choose a repository id");
    record = {{"id", id},
              {"url", git::stripUrlCredentials(url)},
              {"branch", branch},
              {"tenant_id", tenant},
              {"status", "pending"},
              {"created_at", isoNow()}};
    if (depth > 0) record["depth"] = depth;
    // Whatever the storage says, a record that cannot be written is a 500.
    if (Status written = writeRecord(storage, tenant, record); !written)
        return Status::failure(ErrorKind::Internal, written.message);
    if (!git::urlCredentials(url).empty()) {
        std::lock_guard lock(mutex_);
        pending_urls_[id] = url;
    }
    return Status::success();
}

Status GitRepoRecords::get(StorageService& storage, const std::string& tenant,
                           const std::string& id, nlohmann::json& record) const {
    if (!fileNameProblem(id).empty()) return Status::failure(ErrorKind::NotFound, kNotFound);
    StorageReadRequest read;
    read.tenant_id = tenant;
    read.path = recordPath(id);
    const StorageResult result = storage.read(read);
    if (!result.success) return Status::failure(ErrorKind::NotFound, kNotFound);
    record = nlohmann::json::parse(result.data, nullptr, false);
    if (record.is_discarded() || !record.is_object())
        return Status::failure(ErrorKind::NotFound, kNotFound);
    return Status::success();
}

Status GitRepoRecords::remove(StorageService& storage, const std::string& tenant,
                              const std::string& id) {
    if (std::string problem = fileNameProblem(id); !problem.empty())
        return Status::failure(ErrorKind::Invalid, problem);
    if (std::string repo_id; workingCopy(tenant, id, repo_id)) {
        if (Status removed = manager_.deleteRepository(repo_id); !removed) return removed;
    }
    {
        std::lock_guard lock(mutex_);
        pending_urls_.erase(id);
        sync_locks_.erase(id);
    }
    const StorageResult removed = storage.remove(tenant, folderOf(id), true);
    return removed.success ? Status::success() : storageFailure(removed);
}

Status GitRepoRecords::workingCopy(const std::string& tenant, const std::string& id,
                                   std::string& repo_id) const {
    auto repo = manager_.findByMetadata(tenant, kRecordMetadataKey, id);
    if (!repo) return Status::failure(ErrorKind::NotFound, "Repository has not been synced");
    repo_id = repo->id;
    return Status::success();
}

Status GitRepoRecords::sync(StorageService& storage, const std::string& tenant,
                            const std::string& id, nlohmann::json& record) {
    if (Status found = get(storage, tenant, id, record); !found) return found;
    std::shared_ptr<std::mutex> record_lock;
    std::string url;
    {
        std::lock_guard lock(mutex_);
        auto& slot = sync_locks_[id];
        if (!slot) slot = std::make_shared<std::mutex>();
        record_lock = slot;
        auto pending = pending_urls_.find(id);
        url = pending != pending_urls_.end() ? pending->second : record.value("url", "");
    }
    std::lock_guard one_sync(*record_lock);
    // Another sync may have finished while this one waited.
    if (Status found = get(storage, tenant, id, record); !found) return found;

    Status outcome = Status::success();
    if (!url.empty()) {
        std::string repo_id;
        if (workingCopy(tenant, id, repo_id)) {
            outcome = manager_.syncRepository(repo_id);
        } else {
            CloneRequest clone;
            clone.tenant_id = tenant;
            clone.url = url;
            clone.branch = record.value("branch", "main");
            clone.depth = record.value("depth", 0);
            clone.folder = id;
            clone.metadata[kRecordMetadataKey] = id;
            StoredRepo stored;
            outcome = manager_.cloneRepository(clone, stored);
            if (outcome) {
                repo_id = stored.id;
                std::lock_guard lock(mutex_);
                pending_urls_.erase(id);
            }
        }
        nlohmann::json manifest;
        if (outcome) outcome = mirror(storage, tenant, id, repo_id, manifest);
        std::vector<CommitInfo> head;
        if (outcome && manager_.getCommits(repo_id, "", 1, head) && !head.empty())
            record["commit"] = head.front().sha;
    }
    if (!outcome) {
        record["status"] = "error";
        record["error"] = outcome.message;
        if (Status written = writeRecord(storage, tenant, record); !written)
            kLog.error("Cannot record the failed sync of ", id, ": ", written.message);
        return outcome;
    }
    record["status"] = "synced";
    record["last_sync"] = isoNow();
    record.erase("error");
    if (Status written = writeRecord(storage, tenant, record); !written)
        return Status::failure(ErrorKind::Internal, written.message);
    return Status::success();
}

Status GitRepoRecords::mirror(StorageService& storage, const std::string& tenant,
                              const std::string& id, const std::string& repo_id,
                              nlohmann::json& manifest) {
    std::vector<RepoEntry> tree;
    if (Status listed = manager_.getFileTree(repo_id, "", 0, tree); !listed) return listed;
    nlohmann::json previous = nlohmann::json::object();
    {
        StorageReadRequest read;
        read.tenant_id = tenant;
        read.path = manifestPath(id);
        const StorageResult result = storage.read(read);
        if (result.success) previous = nlohmann::json::parse(result.data, nullptr, false);
        if (!previous.is_object()) previous = nlohmann::json::object();
    }
    manifest = nlohmann::json::object();
    for (const RepoEntry& entry : tree) {
        // Links are not followed into storage, and names the storage keeps
        // for itself cannot be stored.
        if (entry.type != "file" || StorageService::isReservedPath(entry.path)) continue;
        manifest[entry.path] = entry.sha;
    }
    for (const auto& [path, sha] : previous.items()) {
        if (manifest.contains(path)) continue;
        const StorageResult removed = storage.remove(tenant, filesPath(id) + "/" + path, false);
        if (!removed.success && removed.kind != ErrorKind::NotFound) return storageFailure(removed);
    }
    int written = 0;
    for (const auto& [path, sha] : manifest.items()) {
        if (previous.value(path, "") == sha.get<std::string>()) continue;
        StorageWriteRequest write;
        write.tenant_id = tenant;
        write.path = filesPath(id) + "/" + path;
        if (Status read = manager_.readFile(repo_id, path, "", write.data); !read) return read;
        write.content_type = GitStorageManager::getMimeType(path);
        const StorageResult result = storage.write(write);
        if (!result.success) return storageFailure(result);
        ++written;
    }
    StorageWriteRequest write;
    write.tenant_id = tenant;
    write.path = manifestPath(id);
    write.data = manifest.dump();
    write.content_type = "application/json";
    const StorageResult result = storage.write(write);
    if (!result.success) return storageFailure(result);
    kLog.info("Repository ", id, " of ", tenant, ": ", written, " files written, ", manifest.size(),
              " in all");
    return Status::success();
}

Status GitRepoRecords::listFiles(StorageService& storage, const std::string& tenant,
                                 const std::string& id, const std::string& path,
                                 nlohmann::json& files) const {
    nlohmann::json record;
    if (Status found = get(storage, tenant, id, record); !found) return found;
    if (!isInsidePath(path)) return Status::failure(ErrorKind::Invalid, "Invalid path: " + path);
    StorageListRequest request;
    request.tenant_id = tenant;
    request.path = filesPath(id) + (path.empty() ? "" : "/" + path);
    request.limit = 100000;
    files = nlohmann::json::array();
    const StorageResult listing = storage.list(request);
    if (!listing.success) {
        // Nothing synced yet is an empty folder, not a failure.
        return listing.kind == ErrorKind::NotFound ? Status::success() : storageFailure(listing);
    }
    const std::string root = filesPath(id) + "/";
    for (const FileEntry& entry : listing.entries) {
        std::string relative = entry.path;
        if (const std::size_t at = relative.find(root); at != std::string::npos)
            relative = relative.substr(at + root.size());
        files.push_back({{"name", entry.name},
                         {"path", relative},
                         {"is_directory", entry.is_directory},
                         {"size", entry.size_bytes}});
    }
    return Status::success();
}

Status GitRepoRecords::readFile(StorageService& storage, const std::string& tenant,
                                const std::string& id, const std::string& path,
                                std::string& content) const {
    if (!fileNameProblem(id).empty() || path.empty() || !isInsidePath(path))
        return Status::failure(ErrorKind::NotFound, kFileNotFound);
    StorageReadRequest read;
    read.tenant_id = tenant;
    read.path = filesPath(id) + "/" + path;
    StorageResult result = storage.read(read);
    if (!result.success || (result.entry && result.entry->is_directory))
        return Status::failure(ErrorKind::NotFound, kFileNotFound);
    content = std::move(result.data);
    return Status::success();
}

}  // namespace vostra::data
