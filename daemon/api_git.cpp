// The git API under "/api/v1/git": the tenant's repository records with
// their synced files and history ("repos"), and the forge accounts
// ("forges"), whose tokens are kept in a 0600 file and never answered.
// Records live in the storage service; syncs go through GitStorageManager.
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/request_context.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "git/forge_records.h"
#include "git/git_forge_manager.h"
#include "git/repo_records.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr const char* kGitNotFound = "Git endpoint not found";
constexpr const char* kRepoEndpointNotFound = "Unknown git endpoint";
constexpr const char* kGitNotAvailable = "Git repository storage not available";
constexpr const char* kForgeNotFound = "Forge not found";
constexpr const char* kReposPrefix = "/api/v1/git/repos/";

constexpr KindStatus kGitStatuses[] = {
    {ErrorKind::Invalid, 400},  {ErrorKind::Refused, 403},       {ErrorKind::NotFound, 404},
    {ErrorKind::Conflict, 409}, {ErrorKind::QuotaExceeded, 507}, {ErrorKind::Unavailable, 503},
};

// Saving the accounts file must follow the change it records: two changes
// saved out of order would lose one.
std::mutex forges_file_mutex;

// What the git rows are handed. The services are null when absent; each
// row says which it needs.
struct GitCall {
    StorageService* storage;
    GitService* git;
    git::GitForgeManager& forges;
    const std::string& forges_file;
    std::string tenant;
    std::string_view path;  // as received, with the query the history rows read
};

void sendFailure(int fd, const Status& status, int otherwise = 500) {
    sendError(fd, statusFor(kGitStatuses, status.kind, otherwise), status.message);
}

// The records need both services; false (after answering 503) without.
bool recordsReady(const GitCall& call, const HttpRequest& request) {
    if (!call.storage) {
        sendError(request.fd, 503, StorageService::kNotAvailable);
        return false;
    }
    if (!call.git) {
        sendError(request.fd, 503, kGitNotAvailable);
        return false;
    }
    return true;
}

void listRepos(GitCall& call, const HttpRequest& request, const RouteParams&) {
    if (!recordsReady(call, request)) return;
    sendJson(request.fd, 200, {{"repos", call.git->records.list(*call.storage, call.tenant)}});
}

void createRepo(GitCall& call, const HttpRequest& request, const RouteParams&) {
    if (!recordsReady(call, request)) return;
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    json record;
    const Status created = call.git->records.create(*call.storage, call.tenant, *body, record);
    if (!created) return sendFailure(request.fd, created);
    sendJson(request.fd, 201, record);
}

void getRepo(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    if (!recordsReady(call, request)) return;
    json record;
    const Status found =
        call.git->records.get(*call.storage, call.tenant, params.get("id"), record);
    if (!found) return sendFailure(request.fd, found);
    sendJson(request.fd, 200, record);
}

void deleteRepo(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    if (!recordsReady(call, request)) return;
    const Status removed = call.git->records.remove(*call.storage, call.tenant, params.get("id"));
    if (!removed) return sendError(request.fd, 500, removed.message);
    sendJson(request.fd, 200, {{"status", "deleted"}});
}

void syncRepo(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    if (!recordsReady(call, request)) return;
    const std::string id = params.get("id");
    json record;
    const Status synced = call.git->records.sync(*call.storage, call.tenant, id, record);
    if (!synced) return sendFailure(request.fd, synced);
    json answer = {{"status", "synced"}, {"repo_id", id}, {"last_sync", record["last_sync"]}};
    if (record.contains("commit")) answer["commit"] = record["commit"];
    sendJson(request.fd, 200, answer);
}

// A path naming a folder ("" or ending in "/") lists it; else the file's
// bytes are answered as text.
void getFiles(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    if (!recordsReady(call, request)) return;
    const std::string id = params.get("id");
    std::string path = params.get("path");
    if (path.empty() || path.ends_with('/')) {
        while (path.ends_with('/'))
            path.pop_back();
        json files;
        const Status listed =
            call.git->records.listFiles(*call.storage, call.tenant, id, path, files);
        if (!listed) return sendFailure(request.fd, listed);
        sendJson(request.fd, 200, {{"files", files}});
        return;
    }
    std::string content;
    const Status read = call.git->records.readFile(*call.storage, call.tenant, id, path, content);
    if (!read) return sendError(request.fd, 404, read.message);
    sendResponse(request.fd, 200, content, "text/plain");
}

// The history rows work on the record's working copy, which its first
// sync made.
template <typename Answer>
void withWorkingCopy(GitCall& call, const HttpRequest& request, const RouteParams& params,
                     Answer&& answer) {
    if (!recordsReady(call, request)) return;
    json record;
    const std::string id = params.get("id");
    if (Status found = call.git->records.get(*call.storage, call.tenant, id, record); !found)
        return sendFailure(request.fd, found);
    std::string repo_id;
    if (Status cloned = call.git->records.workingCopy(call.tenant, id, repo_id); !cloned)
        return sendFailure(request.fd, cloned);
    answer(*call.git->manager, repo_id);
}

int intParameter(const GitCall& call, const char* name, int fallback) {
    const std::string text = queryParameter(call.path, name);
    try {
        return text.empty() ? fallback : std::stoi(text);
    } catch (const std::exception&) {
        return fallback;
    }
}

void getCommits(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::vector<CommitInfo> commits;
        const Status status = git.getCommits(repo, queryParameter(call.path, "branch"),
                                             intParameter(call, "limit", 50), commits);
        if (!status) return sendFailure(request.fd, status);
        json list = json::array();
        for (const CommitInfo& commit : commits)
            list.push_back(commit.toJson());
        sendJson(request.fd, 200, {{"commits", list}});
    });
}

void getBranches(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::vector<BranchInfo> branches;
        if (Status status = git.getBranches(repo, branches); !status)
            return sendFailure(request.fd, status);
        json list = json::array();
        for (const BranchInfo& branch : branches)
            list.push_back(branch.toJson());
        sendJson(request.fd, 200, {{"branches", list}});
    });
}

void getStatus(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        SyncState state;
        if (Status status = git.getSyncStatus(repo, state); !status)
            return sendFailure(request.fd, status);
        sendJson(request.fd, 200, state.toJson());
    });
}

void getTree(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::vector<RepoEntry> entries;
        const Status status = git.getFileTree(repo, queryParameter(call.path, "branch"),
                                              intParameter(call, "depth", 0), entries);
        if (!status) return sendFailure(request.fd, status);
        json list = json::array();
        for (const RepoEntry& entry : entries)
            list.push_back(entry.toJson());
        sendJson(request.fd, 200, {{"entries", list}});
    });
}

void getDiff(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::string diff;
        const Status status = git.getDiff(repo, queryParameter(call.path, "from"),
                                          queryParameter(call.path, "to", "HEAD"), diff);
        if (!status) return sendFailure(request.fd, status);
        sendResponse(request.fd, 200, diff, "text/plain");
    });
}

void getBlame(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::vector<BlameLine> lines;
        if (Status status = git.getBlame(repo, params.get("path"), lines); !status)
            return sendFailure(request.fd, status);
        json list = json::array();
        for (const BlameLine& line : lines)
            list.push_back(line.toJson());
        sendJson(request.fd, 200, {{"blame", list}});
    });
}

void searchFiles(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::vector<std::string> paths;
        const Status status = git.findFiles(repo, queryParameter(call.path, "pattern"),
                                            queryParameter(call.path, "branch"), paths);
        if (!status) return sendFailure(request.fd, status);
        sendJson(request.fd, 200, {{"files", paths}});
    });
}

// A file at any branch, read from the working copy's history.
void getContent(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        std::string content;
        const std::string path = params.get("path");
        const Status status =
            git.readFile(repo, path, queryParameter(call.path, "branch"), content);
        if (!status) return sendFailure(request.fd, status);
        sendResponse(request.fd, 200, content, GitStorageManager::getMimeType(path));
    });
}

void checkout(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    const std::string branch = body->value("branch", "");
    withWorkingCopy(call, request, params, [&](GitStorageManager& git, const std::string& repo) {
        if (Status status = git.checkoutBranch(repo, branch); !status)
            return sendFailure(request.fd, status);
        sendJson(request.fd, 200, {{"status", "checked_out"}, {"branch", branch}});
    });
}

Status saveForges(const GitCall& call) {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::path(call.forges_file).parent_path();
    if (!folder.empty() && std::filesystem::create_directories(folder, error))
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
    const Status saved = call.forges.saveConfig(call.forges_file);
    if (!saved) kLog.error("Cannot save forge accounts: ", saved.message);
    return saved;
}

void listForges(GitCall& call, const HttpRequest& request, const RouteParams&) {
    json forges = json::array();
    for (const git::ForgeConfig& forge : call.forges.listForges())
        forges.push_back(forge.toJson());
    sendJson(request.fd, 200, {{"forges", forges}});
}

void addForge(GitCall& call, const HttpRequest& request, const RouteParams&) {
    json body = json::parse(request.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) return sendError(request.fd, 400, "Invalid JSON");
    const std::string type = body.value("type", "");
    const std::string url = body.value("url", "");
    std::string alias = body.value("alias", "");
    const std::string token = body.value("token", "");
    if (type.empty() || url.empty()) return sendError(request.fd, 400, "type and url are required");
    body.erase("token");
    git::ForgeConfig forge = git::ForgeConfig::fromJson(body);
    if (forge.type == git::ForgeType::Unknown || forge.type == git::ForgeType::Bitbucket)
        return sendError(request.fd, 400, "Unsupported forge type: " + type);

    std::lock_guard lock(forges_file_mutex);
    for (int number = 1; alias.empty(); ++number) {
        const std::string candidate = type + "-" + std::to_string(number);
        if (!call.forges.getForgeByAlias(candidate) && !call.forges.getForge(candidate))
            alias = candidate;
    }
    forge.alias = alias;
    if (forge.id.empty()) forge.id = alias;
    if (forge.name.empty()) forge.name = alias;
    forge.auth.type = token.empty() ? "none" : "token";
    forge.auth.token = token;
    if (call.forges.getForgeByAlias(alias) || call.forges.getForge(forge.id))
        return sendError(request.fd, 409, "Forge already exists: " + alias);
    if (!call.forges.addForge(forge)) return sendError(request.fd, 400, "Invalid forge: " + alias);
    if (Status saved = saveForges(call); !saved) {
        call.forges.removeForge(forge.id);
        return sendError(request.fd, 500, saved.message);
    }
    sendJson(request.fd, 201, {{"message", "Forge added successfully"}, {"alias", alias}});
}

void getForge(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    auto forge = call.forges.getForgeByAlias(params.get("alias"));
    if (!forge) return sendError(request.fd, 404, kForgeNotFound);
    sendJson(request.fd, 200, forge->getConfig().toJson());
}

void deleteForge(GitCall& call, const HttpRequest& request, const RouteParams& params) {
    std::lock_guard lock(forges_file_mutex);
    auto forge = call.forges.getForgeByAlias(params.get("alias"));
    if (!forge || !call.forges.removeForge(forge->getConfig().id))
        return sendError(request.fd, 404, kForgeNotFound);
    if (Status saved = saveForges(call); !saved) return sendError(request.fd, 500, saved.message);
    sendJson(request.fd, 200, {{"message", "Forge deleted"}});
}

constexpr ServiceRoute<GitCall> kGitRoutes[] = {
    {"GET", "/api/v1/git/repos", listRepos},
    {"POST", "/api/v1/git/repos", createRepo},
    {"GET", "/api/v1/git/repos/{id}", getRepo},
    {"DELETE", "/api/v1/git/repos/{id}", deleteRepo},
    {"POST", "/api/v1/git/repos/{id}/sync", syncRepo},
    {"GET", "/api/v1/git/repos/{id}/files/{path*}", getFiles},
    {"GET", "/api/v1/git/repos/{id}/commits", getCommits},
    {"GET", "/api/v1/git/repos/{id}/branches", getBranches},
    {"GET", "/api/v1/git/repos/{id}/status", getStatus},
    {"GET", "/api/v1/git/repos/{id}/tree", getTree},
    {"GET", "/api/v1/git/repos/{id}/diff", getDiff},
    {"GET", "/api/v1/git/repos/{id}/blame/{path+}", getBlame},
    {"GET", "/api/v1/git/repos/{id}/search", searchFiles},
    {"GET", "/api/v1/git/repos/{id}/content/{path+}", getContent},
    {"POST", "/api/v1/git/repos/{id}/checkout", checkout},
    {"GET", "/api/v1/git/forges", listForges},
    {"POST", "/api/v1/git/forges", addForge},
    {"GET", "/api/v1/git/forges/{alias}", getForge},
    {"DELETE", "/api/v1/git/forges/{alias}", deleteForge},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("git", kGitRoutes);

}  // namespace

void DataDaemon::startGit() {
    GitStorageConfig settings;
    settings.storage_path = config_.git_path;
    settings.blocked_domains = config_.git_blocked_domains;
    settings.max_repos_per_tenant = config_.git_max_repos_per_tenant;
    settings.max_storage_per_tenant = config_.git_max_storage_per_tenant;
    settings.auto_sync_interval_minutes = config_.git_auto_sync_interval_minutes;
    settings.clone_timeout_seconds = config_.git_clone_timeout_seconds;
    auto service =
        std::make_unique<GitService>(std::make_unique<GitStorageManager>(forges_, settings));
    if (Status started = service->manager->initialize(); !started) {
        kLog.error("Git storage not started: ", started.message);
        return;
    }
    git_.replace(std::move(service));
}

void DataDaemon::handleGitApi(const HttpRequest& request) {
    // Rows are matched without the query string, which the history rows read.
    const HttpRequest routed = withoutQuery(request);
    const std::string_view not_found =
        routed.path.starts_with(kReposPrefix) ? kRepoEndpointNotFound : kGitNotFound;
    const std::string tenant = currentTenant().tenant_id;
    auto serve = [&](StorageService* storage, GitService* git) {
        GitCall call{storage, git, *forges_, forges_file_, tenant, request.path};
        serveRoutes(call, kGitRoutes, routed, not_found);
    };
    auto withGit = [&](StorageService* storage) {
        git_.with([&](GitService& git) { serve(storage, &git); }, [&] { serve(storage, nullptr); });
    };
    storage_.with([&](StorageService& storage) { withGit(&storage); }, [&] { withGit(nullptr); });
}

}  // namespace vostra::data
