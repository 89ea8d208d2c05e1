#include "git/git_storage_manager.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/atomic_file.h"
#include "common/file_name.h"
#include "common/log.h"
#include "common/random_id.h"
#include "git/git_forge.h"
#include "git/git_forge_manager.h"

namespace vostra::data {

using git::GitCredentials;
using git::GitRunOptions;
using git::GitRunResult;

namespace {

namespace fs = std::filesystem;

constexpr vostra::Log kLog("[GitStorage] ");
constexpr const char* kRecordFile = ".vostra_repo.json";
constexpr const char* kNotFound = "Repository not found";
constexpr const char* kFileNotFound = "File not found";
// Local questions (log, blame, ls-tree) answer in well under this; a
// network one uses the clone time-out.
constexpr int kLocalTimeoutSeconds = 120;
constexpr std::size_t kBinaryProbeBytes = 8000;

int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::vector<std::string_view> splitOn(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return parts;
}

int64_t toInteger(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// "owner/repo" of a URL's path, ".git" dropped.
std::string fullNameFromUrl(const std::string& url) {
    std::string path = url;
    if (const std::size_t scheme = path.find("://"); scheme != std::string::npos) {
        const std::size_t slash = path.find('/', scheme + 3);
        path = slash == std::string::npos ? "" : path.substr(slash + 1);
    } else if (const std::size_t colon = path.find(':'); colon != std::string::npos) {
        path = path.substr(colon + 1);
    }
    while (path.ends_with('/'))
        path.pop_back();
    if (path.ends_with(".git")) path.resize(path.size() - 4);
    const std::vector<std::string_view> parts = splitOn(path, '/');
    if (parts.empty()) return {};
    if (parts.size() == 1) return std::string(parts.back());
    return std::string(parts[parts.size() - 2]) + "/" + std::string(parts.back());
}

std::string lastSegment(const std::string& full_name) {
    const std::size_t slash = full_name.rfind('/');
    return slash == std::string::npos ? full_name : full_name.substr(slash + 1);
}

// A revision a caller may name for diff: never an option, only the
// characters of ref names, hashes and "~^@{}" navigation.
bool isPlainRevision(const std::string& revision) {
    if (revision.empty() || revision.front() == '-' || revision.size() > 255) return false;
    return std::ranges::all_of(revision, [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string_view("._/~^@{}-").find(c) != std::string_view::npos;
    });
}

// A path inside the repository, as git names it: relative, no "..".
Status repoPath(const std::string& path, std::string& out) {
    std::string trimmed = path;
    while (trimmed.starts_with('/'))
        trimmed.erase(0, 1);
    while (trimmed.ends_with('/'))
        trimmed.pop_back();
    for (std::string_view part : splitOn(trimmed, '/'))
        if (part == ".." || part == "." || (part.empty() && !trimmed.empty()))
            return Status::failure(ErrorKind::Invalid, "Invalid path: " + path);
    if (trimmed.find('\0') != std::string::npos)
        return Status::failure(ErrorKind::Invalid, "Invalid path");
    out = std::move(trimmed);
    return Status::success();
}

// One "ls-tree -l -z" record: "<mode> <type> <object> <size>\t<path>".
std::optional<RepoEntry> parseTreeEntry(std::string_view record) {
    const std::size_t tab = record.find('\t');
    if (tab == std::string_view::npos) return std::nullopt;
    const std::vector<std::string_view> fields = splitOn(record.substr(0, tab), ' ');
    std::vector<std::string_view> words;
    for (std::string_view field : fields)
        if (!field.empty()) words.push_back(field);
    if (words.size() < 4) return std::nullopt;
    RepoEntry entry;
    entry.path = std::string(record.substr(tab + 1));
    entry.name = lastSegment(entry.path);
    if (words[1] == "tree") {
        entry.type = "dir";
    } else if (words[0] == "120000") {
        entry.type = "symlink";
    } else if (words[1] == "blob") {
        entry.type = "file";
    } else {
        return std::nullopt;  // a submodule: nothing of it is here
    }
    entry.sha = std::string(words[2]);
    entry.size = words[3] == "-" ? 0 : toInteger(words[3]);
    return entry;
}

std::vector<RepoEntry> parseTree(const std::string& output) {
    std::vector<RepoEntry> entries;
    for (std::string_view record : splitOn(output, '\0'))
        if (auto entry = parseTreeEntry(record)) entries.push_back(std::move(*entry));
    return entries;
}

Status gitFailure(const GitRunResult& run, ErrorKind kind = ErrorKind::Internal) {
    return Status::failure(kind, run.failureText());
}

}  // namespace

GitStorageManager::GitStorageManager(std::shared_ptr<git::GitForgeManager> forges,
                                     GitStorageConfig config)
    : forges_(std::move(forges)), config_(std::move(config)) {}

GitStorageManager::~GitStorageManager() {
    shutdown();
}

Status GitStorageManager::initialize() {
    // The folder is made by the first clone: a worker that never clones
    // leaves no trace on the host.
    const std::string root = getConfig().storage_path;
    std::error_code error;
    if (fs::exists(root, error) && !fs::is_directory(root, error))
        return Status::failure(ErrorKind::Internal, "Git storage path is not a folder: " + root);
    loadRecords();
    if (!running_.exchange(true)) sync_thread_ = std::thread([this] { syncLoop(); });
    return Status::success();
}

void GitStorageManager::shutdown() {
    if (!running_.exchange(false)) return;
    { std::lock_guard lock(wake_mutex_); }
    wake_.notify_all();
    if (sync_thread_.joinable()) sync_thread_.join();
}

void GitStorageManager::setConfig(const GitStorageConfig& config) {
    std::lock_guard lock(mutex_);
    config_ = config;
}

GitStorageConfig GitStorageManager::getConfig() const {
    std::lock_guard lock(mutex_);
    return config_;
}

void GitStorageManager::loadRecords() {
    const std::string root = getConfig().storage_path;
    std::error_code error;
    std::map<std::string, StoredRepo> found;
    for (const fs::directory_entry& tenant : fs::directory_iterator(root, error)) {
        if (!tenant.is_directory(error) || tenant.is_symlink(error)) continue;
        for (const fs::directory_entry& folder : fs::directory_iterator(tenant.path(), error)) {
            const fs::path record_path = folder.path() / kRecordFile;
            if (!fs::is_regular_file(record_path, error)) continue;
            std::ifstream in(record_path);
            std::stringstream text;
            text << in.rdbuf();
            try {
                StoredRepo repo = StoredRepo::fromJson(nlohmann::json::parse(text.str()));
                // Where the copy is now wins over where it was written.
                repo.local_path = folder.path().string();
                repo.tenant_id = tenant.path().filename().string();
                if (repo.sync_status == SyncStatus::Syncing) repo.sync_status = SyncStatus::Unknown;
                if (repo.id.empty()) continue;
                found[repo.id] = std::move(repo);
            } catch (const std::exception& problem) {
                kLog.error("Skipping unreadable record ", record_path.string(), ": ",
                           problem.what());
            }
        }
    }
    std::lock_guard lock(mutex_);
    for (auto& [id, repo] : found)
        repos_.try_emplace(id, std::move(repo));
    kLog.info("Loaded ", repos_.size(), " repositories from ", root);
}

void GitStorageManager::save(const StoredRepo& repo) const {
    const Status written = writeFileAtomically(repo.local_path + "/" + kRecordFile,
                                               repo.toJson().dump(2), 0600, false);
    if (!written) kLog.error("Cannot save record of ", repo.id, ": ", written.message);
}

void GitStorageManager::storeRecord(const StoredRepo& repo) {
    {
        std::lock_guard lock(mutex_);
        auto it = repos_.find(repo.id);
        if (it == repos_.end()) return;  // deleted meanwhile
        it->second = repo;
    }
    save(repo);
}

void GitStorageManager::measure(StoredRepo& repo) const {
    int64_t bytes = 0;
    int64_t files = 0;
    std::error_code error;
    fs::recursive_directory_iterator walk(repo.local_path,
                                          fs::directory_options::skip_permission_denied, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const std::string name = walk->path().filename().string();
        if (walk.depth() == 0 && (name == ".git" || name == kRecordFile)) {
            walk.disable_recursion_pending();
            continue;
        }
        if (walk->is_symlink(error) || !walk->is_regular_file(error)) continue;
        bytes += static_cast<int64_t>(walk->file_size(error));
        ++files;
    }
    repo.size_bytes = bytes;
    repo.file_count = files;
}

GitRunResult GitStorageManager::git(const StoredRepo& repo, std::vector<std::string> args,
                                    int timeout_seconds, const GitCredentials& credentials) const {
    GitRunOptions options;
    options.work_dir = repo.local_path;
    options.timeout_seconds = timeout_seconds > 0 ? timeout_seconds : kLocalTimeoutSeconds;
    options.credentials = credentials;
    return runGit(args, options);
}

GitCredentials GitStorageManager::credentialsFor(const StoredRepo& repo) const {
    if (forges_) {
        std::shared_ptr<git::GitForge> forge = repo.forge_id.empty()
                                                   ? forges_->forgeForUrl(repo.clone_url)
                                                   : forges_->getForge(repo.forge_id);
        if (forge) {
            GitCredentials credentials = forge->gitCredentials();
            if (!credentials.empty()) return credentials;
        }
    }
    std::lock_guard lock(mutex_);
    auto it = url_credentials_.find(repo.id);
    return it == url_credentials_.end() ? GitCredentials{} : it->second;
}

Status GitStorageManager::cloneRepository(const CloneRequest& request, StoredRepo& out) {
    if (std::string problem = fileNameProblem(request.tenant_id); !problem.empty())
        return Status::failure(ErrorKind::Invalid, "Invalid tenant: " + problem);
    if (!request.branch.empty() && !git::isValidBranchName(request.branch))
        return Status::failure(ErrorKind::Invalid, "Invalid branch name");
    if (request.depth < 0) return Status::failure(ErrorKind::Invalid, "Invalid depth");

    StoredRepo repo;
    GitCredentials credentials;
    if (!request.forge_id.empty()) {
        std::shared_ptr<git::GitForge> forge =
            forges_ ? forges_->getForge(request.forge_id) : nullptr;
        if (!forge) return Status::failure(ErrorKind::NotFound, "Forge not found");
        const std::size_t slash = request.full_name.find('/');
        if (slash == std::string::npos || slash == 0 || slash + 1 == request.full_name.size())
            return Status::failure(ErrorKind::Invalid, "full_name must be owner/repo");
        repo.forge_id = request.forge_id;
        repo.clone_url = forge->getCloneUrl(request.full_name.substr(0, slash),
                                            request.full_name.substr(slash + 1));
        credentials = forge->gitCredentials();
    } else {
        repo.clone_url = git::stripUrlCredentials(request.url);
        credentials = git::urlCredentials(request.url);
        if (credentials.empty() && forges_) {
            if (auto forge = forges_->forgeForUrl(repo.clone_url))
                credentials = forge->gitCredentials();
        }
    }
    if (!git::isAllowedRemoteUrl(repo.clone_url))
        return Status::failure(ErrorKind::Invalid, "Invalid repository URL");
    if (isDomainBlocked(repo.clone_url))
        return Status::failure(ErrorKind::Refused,
                               "Domain is blocked: " + git::urlHost(repo.clone_url));

    repo.full_name =
        request.full_name.empty() ? fullNameFromUrl(repo.clone_url) : request.full_name;
    const std::string folder =
        request.folder.empty() ? lastSegment(repo.full_name) : request.folder;
    if (std::string problem = fileNameProblem(folder); !problem.empty() || folder.starts_with('.'))
        return Status::failure(ErrorKind::Invalid, "Invalid repository name: " + folder);
    repo.id = "repo-" + randomHex(12);
    repo.tenant_id = request.tenant_id;
    repo.metadata = request.metadata;
    repo.sync_status = SyncStatus::Syncing;
    int timeout = 0;
    {
        std::lock_guard lock(mutex_);
        repo.local_path = config_.storage_path + "/" + request.tenant_id + "/" + folder;
        timeout = config_.clone_timeout_seconds;
        int count = 0;
        int64_t bytes = 0;
        bool taken = false;
        for (const auto& [id, other] : repos_) {
            taken = taken || other.local_path == repo.local_path;
            if (other.tenant_id != request.tenant_id) continue;
            ++count;
            bytes += other.size_bytes;
        }
        if (count >= config_.max_repos_per_tenant)
            return Status::failure(ErrorKind::QuotaExceeded, "Repository limit reached for tenant");
        if (bytes >= config_.max_storage_per_tenant)
            return Status::failure(ErrorKind::QuotaExceeded, "Storage limit reached for tenant");
        if (taken)
            return Status::failure(ErrorKind::Conflict, "Repository already exists: " + folder);
        if (active_clones_ >= config_.max_concurrent_clones)
            return Status::failure(ErrorKind::Unavailable, "Too many clones in progress");
        if (repos_.contains(repo.id))
            return Status::failure(ErrorKind::Conflict, "Repository id collision; try again");
        ++active_clones_;
        repos_[repo.id] = repo;  // holds the folder while git works
    }
    std::error_code error;
    const fs::path root = fs::path(repo.local_path).parent_path().parent_path();
    if (!fs::exists(root, error) && fs::create_directories(root, error))
        fs::permissions(root, fs::perms::owner_all, error);
    if (fs::exists(repo.local_path, error)) {
        std::lock_guard lock(mutex_);
        --active_clones_;
        repos_.erase(repo.id);
        return Status::failure(ErrorKind::Conflict, "Repository already exists: " + folder);
    }
    fs::create_directories(fs::path(repo.local_path).parent_path(), error);

    std::vector<std::string> args = {"clone", "--no-single-branch"};
    if (request.depth > 0) args.insert(args.end(), {"--depth", std::to_string(request.depth)});
    if (!request.branch.empty()) args.insert(args.end(), {"--branch", request.branch});
    args.insert(args.end(), {"--", repo.clone_url, repo.local_path});
    GitRunOptions options;
    options.timeout_seconds = timeout;
    options.credentials = credentials;
    kLog.info("Cloning ", repo.clone_url, " for tenant ", repo.tenant_id);
    const GitRunResult run = runGit(args, options);
    if (!run.ok()) {
        fs::remove_all(repo.local_path, error);
        std::lock_guard lock(mutex_);
        --active_clones_;
        repos_.erase(repo.id);
        kLog.error("Clone of ", repo.clone_url, " failed: ", run.failureText());
        return gitFailure(run);
    }
    // The record file must never show as a change of the working copy.
    std::ofstream(repo.local_path + "/.git/info/exclude", std::ios::app)
        << "/" << kRecordFile << "\n";
    const GitRunResult head = git(repo, {"rev-parse", "--abbrev-ref", "HEAD"});
    repo.default_branch =
        head.ok() ? head.output.substr(0, head.output.find('\n')) : request.branch;
    repo.sync_status = SyncStatus::Synced;
    repo.cloned_at = repo.last_synced = repo.last_accessed = nowSeconds();
    measure(repo);
    {
        std::lock_guard lock(mutex_);
        --active_clones_;
        if (!credentials.empty() && request.forge_id.empty())
            url_credentials_[repo.id] = credentials;
    }
    storeRecord(repo);
    out = repo;
    return Status::success();
}

Status GitStorageManager::cloneFromUrl(const std::string& tenant, const std::string& url,
                                       const std::string& branch, StoredRepo& out) {
    CloneRequest request;
    request.tenant_id = tenant;
    request.url = url;
    request.branch = branch;
    return cloneRepository(request, out);
}

Status GitStorageManager::cloneFromForge(const std::string& tenant, const std::string& forge_id,
                                         const std::string& full_name, const std::string& branch,
                                         StoredRepo& out) {
    CloneRequest request;
    request.tenant_id = tenant;
    request.forge_id = forge_id;
    request.full_name = full_name;
    request.branch = branch;
    return cloneRepository(request, out);
}

Status GitStorageManager::deleteRepository(const std::string& id) {
    StoredRepo repo;
    {
        std::lock_guard lock(mutex_);
        auto it = repos_.find(id);
        if (it == repos_.end()) return Status::failure(ErrorKind::NotFound, kNotFound);
        repo = std::move(it->second);
        repos_.erase(it);
        url_credentials_.erase(id);
    }
    std::error_code error;
    fs::remove_all(repo.local_path, error);
    if (error)
        return Status::failure(ErrorKind::Internal,
                               "Cannot remove " + repo.local_path + ": " + error.message());
    return Status::success();
}

std::optional<StoredRepo> GitStorageManager::getRepository(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto it = repos_.find(id);
    if (it == repos_.end()) return std::nullopt;
    return it->second;
}

std::optional<RepoWorkspace> GitStorageManager::getWorkspace(const std::string& id) {
    if (!getRepository(id)) return std::nullopt;
    return RepoWorkspace(*this, id);
}

std::optional<StoredRepo> GitStorageManager::getRepositoryByName(
    const std::string& tenant, const std::string& full_name) const {
    std::lock_guard lock(mutex_);
    for (const auto& [id, repo] : repos_)
        if (repo.tenant_id == tenant && repo.full_name == full_name) return repo;
    return std::nullopt;
}

std::optional<StoredRepo> GitStorageManager::findByMetadata(const std::string& tenant,
                                                            const std::string& key,
                                                            const std::string& value) const {
    std::lock_guard lock(mutex_);
    for (const auto& [id, repo] : repos_) {
        if (repo.tenant_id != tenant) continue;
        auto it = repo.metadata.find(key);
        if (it != repo.metadata.end() && it->second == value) return repo;
    }
    return std::nullopt;
}

std::vector<StoredRepo> GitStorageManager::listRepositories(const std::string& tenant) const {
    std::vector<StoredRepo> repos;
    std::lock_guard lock(mutex_);
    for (const auto& [id, repo] : repos_)
        if (repo.tenant_id == tenant) repos.push_back(repo);
    return repos;
}

std::vector<StoredRepo> GitStorageManager::listAllRepositories() const {
    std::vector<StoredRepo> repos;
    std::lock_guard lock(mutex_);
    for (const auto& [id, repo] : repos_)
        repos.push_back(repo);
    return repos;
}

Status GitStorageManager::touch(const std::string& id, StoredRepo& out) {
    std::lock_guard lock(mutex_);
    auto it = repos_.find(id);
    if (it == repos_.end()) return Status::failure(ErrorKind::NotFound, kNotFound);
    if (it->second.sync_status == SyncStatus::Syncing && it->second.cloned_at == 0)
        return Status::failure(ErrorKind::Unavailable, "Repository is still being cloned");
    it->second.last_accessed = nowSeconds();
    out = it->second;
    return Status::success();
}

Status GitStorageManager::syncRepository(const std::string& id, SyncState* state) {
    StoredRepo repo;
    if (Status found = touch(id, repo); !found) return found;
    const GitCredentials credentials = credentialsFor(repo);
    const GitRunResult fetched =
        git(repo, {"fetch", "--prune", "origin"}, getConfig().clone_timeout_seconds, credentials);
    SyncState result;
    if (!fetched.ok()) {
        repo.sync_status = SyncStatus::Error;
        repo.sync_error = fetched.failureText();
        storeRecord(repo);
        return gitFailure(fetched);
    }
    if (Status status = getSyncStatus(id, result); !status) {
        repo.sync_status = SyncStatus::Error;
        repo.sync_error = status.message;
        storeRecord(repo);
        return status;
    }
    if (result.behind > 0 && result.ahead == 0) {
        const GitRunResult merged = git(repo, {"merge", "--ff-only", "origin/" + result.branch});
        if (!merged.ok()) {
            repo.sync_status = SyncStatus::Error;
            repo.sync_error = merged.failureText();
            storeRecord(repo);
            return gitFailure(merged);
        }
        result.behind = 0;
        result.status = SyncStatus::Synced;
    }
    repo.sync_status = result.status;
    repo.sync_error.clear();
    repo.last_synced = nowSeconds();
    measure(repo);
    storeRecord(repo);
    if (state) *state = result;
    return Status::success();
}

int GitStorageManager::syncAllForTenant(const std::string& tenant) {
    int synced = 0;
    for (const StoredRepo& repo : listRepositories(tenant))
        if (syncRepository(repo.id)) ++synced;
    return synced;
}

Status GitStorageManager::setAutoSync(const std::string& id, bool enabled) {
    StoredRepo repo;
    if (Status found = touch(id, repo); !found) return found;
    repo.auto_sync = enabled;
    storeRecord(repo);
    return Status::success();
}

Status GitStorageManager::getSyncStatus(const std::string& id, SyncState& out) {
    StoredRepo repo;
    if (Status found = touch(id, repo); !found) return found;
    out = SyncState{};
    if (Status status = getCurrentBranch(id, out.branch); !status) return status;
    if (out.branch == "HEAD") {  // detached: nothing to follow
        out.status = SyncStatus::Synced;
        return Status::success();
    }
    const GitRunResult counts = git(repo, {"rev-list", "--left-right", "--count",
                                           "HEAD...refs/remotes/origin/" + out.branch, "--"});
    if (!counts.ok()) {
        out.status = SyncStatus::Unknown;
        out.error = "No remote branch origin/" + out.branch;
        return Status::success();
    }
    std::istringstream numbers(counts.output);
    numbers >> out.ahead >> out.behind;
    out.status = out.ahead > 0 && out.behind > 0 ? SyncStatus::Diverged
                 : out.ahead > 0                 ? SyncStatus::Ahead
                 : out.behind > 0                ? SyncStatus::Behind
                                                 : SyncStatus::Synced;
    return Status::success();
}

Status GitStorageManager::revisionFor(const StoredRepo& repo, const std::string& branch,
                                      std::string& revision) {
    if (branch.empty()) {
        revision = "HEAD";
        return Status::success();
    }
    if (!git::isValidBranchName(branch))
        return Status::failure(ErrorKind::Invalid, "Invalid branch name");
    for (const std::string& candidate :
         {"refs/heads/" + branch, "refs/remotes/origin/" + branch, "refs/tags/" + branch}) {
        if (git(repo, {"rev-parse", "--verify", "--quiet", candidate + "^{commit}"}).ok()) {
            revision = candidate;
            return Status::success();
        }
    }
    return Status::failure(ErrorKind::NotFound, "Branch not found: " + branch);
}

Status GitStorageManager::readFile(const std::string& id, const std::string& path,
                                   const std::string& branch, std::string& content) {
    StoredRepo repo;
    std::string inside;
    std::string revision;
    if (Status status = touch(id, repo); !status) return status;
    if (Status status = repoPath(path, inside); !status) return status;
    if (inside.empty()) return Status::failure(ErrorKind::NotFound, kFileNotFound);
    if (Status status = revisionFor(repo, branch, revision); !status) return status;
    GitRunResult run = git(repo, {"cat-file", "blob", revision + ":" + inside});
    if (!run.ok()) return Status::failure(ErrorKind::NotFound, kFileNotFound);
    if (run.truncated) return Status::failure(ErrorKind::QuotaExceeded, "File too large to read");
    content = std::move(run.output);
    return Status::success();
}

Status GitStorageManager::listDirectory(const std::string& id, const std::string& path,
                                        const std::string& branch, std::vector<RepoEntry>& out) {
    StoredRepo repo;
    std::string inside;
    std::string revision;
    if (Status status = touch(id, repo); !status) return status;
    if (Status status = repoPath(path, inside); !status) return status;
    if (Status status = revisionFor(repo, branch, revision); !status) return status;
    std::vector<std::string> args = {"ls-tree", "-z", "-l", revision};
    if (!inside.empty()) args.insert(args.end(), {"--", inside + "/"});
    const GitRunResult run = git(repo, args);
    if (!run.ok()) return gitFailure(run);
    out = parseTree(run.output);
    if (out.empty() && !inside.empty())
        return Status::failure(ErrorKind::NotFound, "Directory not found: " + inside);
    std::ranges::sort(out, {}, &RepoEntry::name);
    return Status::success();
}

Status GitStorageManager::getFileTree(const std::string& id, const std::string& branch, int depth,
                                      std::vector<RepoEntry>& out) {
    StoredRepo repo;
    std::string revision;
    if (Status status = touch(id, repo); !status) return status;
    if (Status status = revisionFor(repo, branch, revision); !status) return status;
    const GitRunResult run = git(repo, {"ls-tree", "-r", "-t", "-z", "-l", revision});
    if (!run.ok()) return gitFailure(run);
    out.clear();
    for (RepoEntry& entry : parseTree(run.output)) {
        const auto level = std::ranges::count(entry.path, '/');
        if (depth <= 0 || level < depth) out.push_back(std::move(entry));
    }
    std::ranges::sort(out, {}, &RepoEntry::path);
    return Status::success();
}

Status GitStorageManager::findFiles(const std::string& id, const std::string& pattern,
                                    const std::string& branch, std::vector<std::string>& out) {
    StoredRepo repo;
    std::string revision;
    if (Status status = touch(id, repo); !status) return status;
    if (pattern.empty()) return Status::failure(ErrorKind::Invalid, "Pattern is required");
    if (Status status = revisionFor(repo, branch, revision); !status) return status;
    const GitRunResult run = branch.empty()
                                 ? git(repo, {"ls-files", "-z"})
                                 : git(repo, {"ls-tree", "-r", "-z", "--name-only", revision});
    if (!run.ok()) return gitFailure(run);
    out.clear();
    for (std::string_view path : splitOn(run.output, '\0')) {
        const std::string whole(path);
        if (whole.empty()) continue;
        if (fnmatch(pattern.c_str(), whole.c_str(), 0) == 0 ||
            fnmatch(pattern.c_str(), lastSegment(whole).c_str(), 0) == 0)
            out.push_back(whole);
    }
    return Status::success();
}

Status GitStorageManager::checkoutBranch(const std::string& id, const std::string& branch) {
    StoredRepo repo;
    if (Status status = touch(id, repo); !status) return status;
    if (!git::isValidBranchName(branch))
        return Status::failure(ErrorKind::Invalid, "Invalid branch name");
    const std::string local = "refs/heads/" + branch;
    const std::string remote = "refs/remotes/origin/" + branch;
    GitRunResult run;
    if (git(repo, {"rev-parse", "--verify", "--quiet", local}).ok()) {
        run = git(repo, {"checkout", branch, "--"});
    } else {
        if (!git(repo, {"rev-parse", "--verify", "--quiet", remote}).ok()) {
            const GitRunResult fetched =
                git(repo, {"fetch", "origin", "+" + local + ":" + remote},
                    getConfig().clone_timeout_seconds, credentialsFor(repo));
            if (!fetched.ok())
                return Status::failure(ErrorKind::NotFound, "Branch not found: " + branch);
        }
        run = git(repo, {"checkout", "-b", branch, "--track", "origin/" + branch, "--"});
    }
    if (!run.ok()) return gitFailure(run);
    measure(repo);
    storeRecord(repo);
    return Status::success();
}

Status GitStorageManager::getCurrentBranch(const std::string& id, std::string& branch) {
    StoredRepo repo;
    if (Status status = touch(id, repo); !status) return status;
    const GitRunResult run = git(repo, {"rev-parse", "--abbrev-ref", "HEAD"});
    if (!run.ok()) return gitFailure(run);
    branch = run.output.substr(0, run.output.find('\n'));
    return Status::success();
}

Status GitStorageManager::getBranches(const std::string& id, std::vector<BranchInfo>& out) {
    StoredRepo repo;
    if (Status status = touch(id, repo); !status) return status;
    const GitRunResult run = git(
        repo, {"for-each-ref", "--format=%(HEAD) %(refname)", "refs/heads", "refs/remotes/origin"});
    if (!run.ok()) return gitFailure(run);
    std::map<std::string, BranchInfo> branches;
    for (std::string_view line : splitOn(run.output, '\n')) {
        if (line.size() < 3) continue;
        const bool current = line.front() == '*';
        std::string_view ref = line.substr(2);
        BranchInfo info;
        if (ref.starts_with("refs/heads/")) {
            info.name = std::string(ref.substr(11));
        } else if (ref.starts_with("refs/remotes/origin/")) {
            info.name = std::string(ref.substr(20));
            if (info.name == "HEAD") continue;
            info.remote_only = true;
        } else {
            continue;
        }
        auto [it, added] = branches.try_emplace(info.name, info);
        if (!added && !info.remote_only) it->second = info;
        if (!info.remote_only) it->second.remote_only = false;
        it->second.current = it->second.current || current;
    }
    out.clear();
    for (auto& [name, info] : branches)
        out.push_back(std::move(info));
    return Status::success();
}

Status GitStorageManager::getCommits(const std::string& id, const std::string& branch, int limit,
                                     std::vector<CommitInfo>& out) {
    StoredRepo repo;
    std::string revision;
    if (Status status = touch(id, repo); !status) return status;
    if (Status status = revisionFor(repo, branch, revision); !status) return status;
    limit = std::clamp(limit, 1, 10000);
    const GitRunResult run = git(repo, {"log", "-n", std::to_string(limit),
                                        "--pretty=format:%H|%an|%ae|%at|%s", revision, "--"});
    if (!run.ok()) return gitFailure(run);
    out.clear();
    for (std::string_view line : splitOn(run.output, '\n')) {
        std::vector<std::string_view> fields;
        for (int i = 0; i < 4; ++i) {
            const std::size_t bar = line.find('|');
            if (bar == std::string_view::npos) break;
            fields.push_back(line.substr(0, bar));
            line.remove_prefix(bar + 1);
        }
        if (fields.size() < 4) continue;
        out.push_back({std::string(fields[0]), std::string(fields[1]), std::string(fields[2]),
                       toInteger(fields[3]), std::string(line)});
    }
    return Status::success();
}

Status GitStorageManager::getDiff(const std::string& id, const std::string& from,
                                  const std::string& to, std::string& diff) {
    StoredRepo repo;
    if (Status status = touch(id, repo); !status) return status;
    for (const std::string& revision : {from, to}) {
        if (!isPlainRevision(revision))
            return Status::failure(ErrorKind::Invalid, "Invalid revision: " + revision);
        if (!git(repo, {"rev-parse", "--verify", "--quiet", revision + "^{commit}"}).ok())
            return Status::failure(ErrorKind::NotFound, "Revision not found: " + revision);
    }
    GitRunResult run = git(repo, {"diff", from, to, "--"});
    if (!run.ok()) return gitFailure(run);
    diff = std::move(run.output);
    return Status::success();
}

Status GitStorageManager::getBlame(const std::string& id, const std::string& path,
                                   std::vector<BlameLine>& out) {
    StoredRepo repo;
    std::string inside;
    if (Status status = touch(id, repo); !status) return status;
    if (Status status = repoPath(path, inside); !status) return status;
    const GitRunResult run = git(repo, {"blame", "--porcelain", "HEAD", "--", inside});
    if (!run.ok()) return Status::failure(ErrorKind::NotFound, kFileNotFound);
    // Porcelain names a commit's author only the first time it appears.
    std::map<std::string, std::pair<std::string, int64_t>> authors;
    std::string sha;
    out.clear();
    for (std::string_view line : splitOn(run.output, '\n')) {
        if (line.starts_with('\t')) {
            const auto& [author, time] = authors[sha];
            out.push_back({sha, author, time, std::string(line.substr(1))});
        } else if (line.starts_with("author ")) {
            authors[sha].first = std::string(line.substr(7));
        } else if (line.starts_with("author-time ")) {
            authors[sha].second = toInteger(line.substr(12));
        } else if (line.size() > 40 && line[40] == ' ' &&
                   std::all_of(line.begin(), line.begin() + 40, [](char c) {
                       return std::isxdigit(static_cast<unsigned char>(c));
                   })) {
            sha = std::string(line.substr(0, 40));
        }
    }
    return Status::success();
}

Status GitStorageManager::hashObject(const std::string& id, const std::string& path,
                                     std::string& sha) {
    StoredRepo repo;
    std::string inside;
    if (Status status = touch(id, repo); !status) return status;
    if (Status status = repoPath(path, inside); !status) return status;
    // Only a plain file of the working copy: a link could lead anywhere.
    struct stat info {};
    const std::string full = repo.local_path + "/" + inside;
    if (inside.empty() || ::lstat(full.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return Status::failure(ErrorKind::NotFound, kFileNotFound);
    const GitRunResult run = git(repo, {"hash-object", "--", inside});
    if (!run.ok()) return gitFailure(run);
    sha = run.output.substr(0, run.output.find('\n'));
    return Status::success();
}

Status GitStorageManager::updateMetadata(const std::string& id,
                                         const std::map<std::string, std::string>& values) {
    StoredRepo repo;
    if (Status found = touch(id, repo); !found) return found;
    for (const auto& [key, value] : values)
        repo.metadata[key] = value;
    storeRecord(repo);
    return Status::success();
}

nlohmann::json GitStorageManager::getStats() const {
    std::lock_guard lock(mutex_);
    int64_t bytes = 0;
    int64_t files = 0;
    nlohmann::json per_tenant = nlohmann::json::object();
    for (const auto& [id, repo] : repos_) {
        bytes += repo.size_bytes;
        files += repo.file_count;
        per_tenant[repo.tenant_id] = per_tenant.value(repo.tenant_id, 0) + 1;
    }
    return {{"total_repos", repos_.size()},
            {"total_size_bytes", bytes},
            {"total_files", files},
            {"repos_per_tenant", per_tenant},
            {"active_clones", active_clones_},
            {"config", config_.toJson()}};
}

nlohmann::json GitStorageManager::getTenantUsage(const std::string& tenant) const {
    std::lock_guard lock(mutex_);
    int count = 0;
    int64_t bytes = 0;
    int64_t files = 0;
    for (const auto& [id, repo] : repos_) {
        if (repo.tenant_id != tenant) continue;
        ++count;
        bytes += repo.size_bytes;
        files += repo.file_count;
    }
    return {{"tenant_id", tenant},
            {"repos", count},
            {"size_bytes", bytes},
            {"files", files},
            {"max_repos", config_.max_repos_per_tenant},
            {"max_size_bytes", config_.max_storage_per_tenant}};
}

bool GitStorageManager::isDomainBlocked(const std::string& url) const {
    const std::string host = git::urlHost(url);
    if (host.empty()) return false;
    std::lock_guard lock(mutex_);
    for (std::string blocked : config_.blocked_domains) {
        for (char& c : blocked)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (host == blocked || host.ends_with("." + blocked)) return true;
    }
    return false;
}

bool GitStorageManager::resolveShortUrl(const std::string& text, std::string& url) const {
    if (!forges_) return false;
    auto resolved = forges_->resolveUrl(text);
    if (!resolved || !resolved->forge) return false;
    url = resolved->forge->getCloneUrl(resolved->owner, resolved->repo);
    return true;
}

std::string GitStorageManager::getMimeType(const std::string& path) {
    static const std::map<std::string, std::string, std::less<>> kTypes = {
        {".txt", "text/plain"},
        {".md", "text/markdown"},
        {".html", "text/html"},
        {".css", "text/css"},
        {".js", "application/javascript"},
        {".json", "application/json"},
        {".xml", "application/xml"},
        {".py", "text/x-python"},
        {".cpp", "text/x-c++"},
        {".c", "text/x-c"},
        {".h", "text/x-c"},
        {".hpp", "text/x-c++"},
        {".java", "text/x-java"},
        {".go", "text/x-go"},
        {".rs", "text/x-rust"},
        {".ts", "text/typescript"},
        {".jsx", "text/jsx"},
        {".tsx", "text/tsx"},
        {".yaml", "text/yaml"},
        {".yml", "text/yaml"},
        {".toml", "text/toml"},
        {".sh", "application/x-sh"},
        {".bash", "application/x-sh"},
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
        {".jpeg", "image/jpeg"},
        {".gif", "image/gif"},
        {".svg", "image/svg+xml"},
        {".pdf", "application/pdf"},
        {".zip", "application/zip"},
    };
    const std::string name = lastSegment(path);
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) {
        auto it = kTypes.find(std::string_view(name).substr(dot));
        if (it != kTypes.end()) return it->second;
    }
    return "application/octet-stream";
}

bool GitStorageManager::isBinaryContent(std::string_view content) {
    return content.substr(0, kBinaryProbeBytes).find('\0') != std::string_view::npos;
}

bool GitStorageManager::isBinaryFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string head(kBinaryProbeBytes, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));
    return isBinaryContent(head);
}

void GitStorageManager::syncLoop() {
    while (running_.load()) {
        const GitStorageConfig config = getConfig();
        const int64_t interval = std::max(1, config.auto_sync_interval_minutes) * 60LL;
        const int64_t now = nowSeconds();
        for (const StoredRepo& repo : listAllRepositories()) {
            if (!running_.load()) return;
            if (!repo.auto_sync || now - repo.last_synced < interval) continue;
            if (Status status = syncRepository(repo.id); !status)
                kLog.error("Auto-sync of ", repo.id, " failed: ", status.message);
        }
        std::unique_lock lock(wake_mutex_);
        wake_.wait_for(lock, std::chrono::seconds(std::min<int64_t>(interval, 60)),
                       [this] { return !running_.load(); });
    }
}

Status RepoWorkspace::readFile(const std::string& path, std::string& content,
                               const std::string& branch) const {
    return manager_->readFile(id_, path, branch, content);
}

Status RepoWorkspace::listDir(const std::string& path, std::vector<RepoEntry>& out,
                              const std::string& branch) const {
    return manager_->listDirectory(id_, path, branch, out);
}

Status RepoWorkspace::findFiles(const std::string& pattern, std::vector<std::string>& out,
                                const std::string& branch) const {
    return manager_->findFiles(id_, pattern, branch, out);
}

bool RepoWorkspace::exists(const std::string& path, const std::string& branch) const {
    std::string content;
    return isDirectory(path, branch) || manager_->readFile(id_, path, branch, content).ok();
}

bool RepoWorkspace::isDirectory(const std::string& path, const std::string& branch) const {
    std::vector<RepoEntry> entries;
    return manager_->listDirectory(id_, path, branch, entries).ok();
}

Status RepoWorkspace::checkout(const std::string& branch) const {
    return manager_->checkoutBranch(id_, branch);
}

Status RepoWorkspace::getCurrentBranch(std::string& branch) const {
    return manager_->getCurrentBranch(id_, branch);
}

std::optional<StoredRepo> RepoWorkspace::getInfo() const { return manager_->getRepository(id_); }

std::string RepoWorkspace::getLocalPath() const {
    const auto repo = manager_->getRepository(id_);
    return repo ? repo->local_path : std::string();
}

}  // namespace vostra::data
