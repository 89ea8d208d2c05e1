// The client of one git hosting service ("forge"): its REST API for
// repositories, branches, commits, files, issues, pull requests, webhooks
// and labels, and the git tool for clone, pull and push. One subclass per
// service (GitHub, GitLab, Gitea); GitForgeFactory makes them and
// GitForgeManager keeps the configured ones.
//
// Failures are values: every operation answers a ForgeResult and nothing
// is thrown out of a client. No error text or log line ever holds the
// forge's token.
//
// Thread safety: initialize() once, before the client is shared; after
// that the client does not change and every operation may run on many
// threads at once (each request has a libcurl handle of its own).
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "git/forge_records.h"
#include "git/git_runner.h"

namespace vostra::git {

// The outcome of a forge operation: the value on success, otherwise a
// fixed phrase ("HTTP error 404", "CURL error: ...") in `error`.
template <typename T>
struct [[nodiscard]] ForgeResult {
    bool success = false;
    T value{};
    std::string error;
    long http_status = 0;  // status of the forge's answer; 0 when none arrived

    explicit operator bool() const { return success; }

    static ForgeResult ok(T value, long http_status = 0) {
        ForgeResult result;
        result.success = true;
        result.value = std::move(value);
        result.http_status = http_status;
        return result;
    }
    static ForgeResult failure(std::string error, long http_status = 0) {
        ForgeResult result;
        result.error = std::move(error);
        result.http_status = http_status;
        return result;
    }
    // The failure of another operation, passed on unchanged.
    template <typename U>
    static ForgeResult failedAs(const ForgeResult<U>& other) {
        return failure(other.error, other.http_status);
    }
};

// An operation that answers nothing but success or failure.
using ForgeStatus = ForgeResult<std::monostate>;

// A file written through the forge's contents API.
struct FileChange {
    std::string path;     // inside the repository, "/"-separated
    std::string content;  // the bytes; the client encodes them
    std::string message;  // commit message
    std::string branch;   // empty for the repository's default branch
    std::string sha;      // blob of the version replaced; empty to create
};

struct NewIssue {
    std::string title;
    std::string body;
    std::vector<std::string> labels;
    std::vector<std::string> assignees;  // logins; GitLab wants numeric user ids
};

// Only the fields that are set change.
struct IssueChanges {
    std::optional<std::string> title;
    std::optional<std::string> body;
    std::optional<std::string> state;  // "open" or "closed"
    std::optional<std::vector<std::string>> labels;
};

struct NewPullRequest {
    std::string title;
    std::string body;
    std::string head;  // the branch with the changes
    std::string base;  // the branch they go into
    bool draft = false;
    std::vector<std::string> reviewers;  // logins; GitLab wants numeric user ids
};

struct CloneOptions {
    std::string branch = "main";  // empty for the remote's own default
    int depth = 0;                // 0 for the whole history
};

// "alias:owner/repo" or "alias/owner/repo", split. An owner may have
// several segments (GitLab subgroups): the repository is the last segment.
struct ShortRepoName {
    std::string alias;
    std::string owner;
    std::string repo;
};

class GitForge {
public:
    using ProgressCallback = std::function<void(const std::string&)>;

    virtual ~GitForge();
    GitForge(const GitForge&) = delete;
    GitForge& operator=(const GitForge&) = delete;

    // Takes the configuration; refuses one of another forge type ("Invalid
    // forge type for GitHub"). Makes no request.
    virtual ForgeStatus initialize(const ForgeConfig& config) = 0;
    // Whether the forge answers and accepts the credentials.
    virtual ForgeStatus testConnection() const = 0;
    // The forge type this client speaks; fixed by the class.
    virtual ForgeType getType() const = 0;
    // The configuration given to initialize, secrets included.
    virtual const ForgeConfig& getConfig() const = 0;
    // The account the credentials belong to.
    virtual ForgeResult<RepoOwner> getCurrentUser() const = 0;
    // The account's repositories; `type` filters as the forge allows
    // ("all", "owner", "member"; GitLab lists memberships whatever it is).
    virtual ForgeResult<std::vector<Repository>> listRepositories(int page, int per_page,
                                                                  const std::string& type) const = 0;
    // Repositories anywhere on the forge whose names match `query`.
    virtual ForgeResult<std::vector<Repository>> searchRepositories(const std::string& query,
                                                                    int page, int per_page) const = 0;
    // One repository; "HTTP error 404" when it does not exist or is hidden.
    virtual ForgeResult<Repository> getRepository(const std::string& owner,
                                                  const std::string& repo) const = 0;
    // A repository of the signed-in account.
    virtual ForgeResult<Repository> createRepository(const std::string& name,
                                                     const std::string& description,
                                                     bool is_private, bool auto_init) const = 0;
    // Deletes the repository for good (GitLab: scheduled, answered 202).
    virtual ForgeStatus deleteRepository(const std::string& owner, const std::string& repo) const = 0;
    // The new fork, which the forge may still be filling.
    virtual ForgeResult<Repository> forkRepository(const std::string& owner,
                                                   const std::string& repo) const = 0;
    // The first page of branches, in the forge's order.
    virtual ForgeResult<std::vector<Branch>> listBranches(const std::string& owner,
                                                          const std::string& repo) const = 0;
    // `name` may hold "/" ("feature/x").
    virtual ForgeResult<Branch> getBranch(const std::string& owner, const std::string& repo,
                                          const std::string& name) const = 0;
    // A branch `name` starting where branch `from` is now.
    virtual ForgeResult<Branch> createBranch(const std::string& owner, const std::string& repo,
                                             const std::string& name,
                                             const std::string& from) const = 0;
    // Removes the branch; the forge refuses a protected one.
    virtual ForgeStatus deleteBranch(const std::string& owner, const std::string& repo,
                                     const std::string& name) const = 0;
    // Newest first; `branch` empty for the default branch.
    virtual ForgeResult<std::vector<Commit>> listCommits(const std::string& owner,
                                                         const std::string& repo,
                                                         const std::string& branch, int page,
                                                         int per_page) const = 0;
    // One commit with its stats and changed files.
    virtual ForgeResult<Commit> getCommit(const std::string& owner, const std::string& repo,
                                          const std::string& sha) const = 0;
    // The commits on `head` that are not on `base`.
    virtual ForgeResult<std::vector<Commit>> compareCommits(const std::string& owner,
                                                            const std::string& repo,
                                                            const std::string& base,
                                                            const std::string& head) const = 0;
    // `ref` empty for the default branch.
    virtual ForgeResult<FileContent> getFileContent(const std::string& owner,
                                                    const std::string& repo,
                                                    const std::string& path,
                                                    const std::string& ref) const = 0;
    // The entries of a folder ("" for the top), without content.
    virtual ForgeResult<std::vector<FileContent>> listDirectoryContents(
        const std::string& owner, const std::string& repo, const std::string& path,
        const std::string& ref) const = 0;
    // Creates the file when `change.sha` is empty, otherwise replaces it.
    virtual ForgeStatus createOrUpdateFile(const std::string& owner, const std::string& repo,
                                           const FileChange& change) const = 0;
    // `change.content` is not used.
    virtual ForgeStatus deleteFile(const std::string& owner, const std::string& repo,
                                   const FileChange& change) const = 0;
    // `state` "open", "closed" or "all".
    virtual ForgeResult<std::vector<Issue>> listIssues(const std::string& owner,
                                                       const std::string& repo,
                                                       const std::string& state, int page,
                                                       int per_page) const = 0;
    // Issues are addressed by their number in the repository (GitLab: "iid").
    virtual ForgeResult<Issue> getIssue(const std::string& owner, const std::string& repo,
                                        int64_t number) const = 0;
    // The new issue as the forge recorded it.
    virtual ForgeResult<Issue> createIssue(const std::string& owner, const std::string& repo,
                                           const NewIssue& issue) const = 0;
    // The issue after the change.
    virtual ForgeResult<Issue> updateIssue(const std::string& owner, const std::string& repo,
                                           int64_t number, const IssueChanges& changes) const = 0;
    // Adds a comment (GitLab: a note) to an issue.
    virtual ForgeStatus addIssueComment(const std::string& owner, const std::string& repo,
                                        int64_t number, const std::string& body) const = 0;
    // Adds labels, keeping those already set.
    virtual ForgeStatus addIssueLabels(const std::string& owner, const std::string& repo,
                                       int64_t number,
                                       const std::vector<std::string>& labels) const = 0;
    // `state` "open", "closed" or "all".
    virtual ForgeResult<std::vector<PullRequest>> listPullRequests(const std::string& owner,
                                                                   const std::string& repo,
                                                                   const std::string& state,
                                                                   int page,
                                                                   int per_page) const = 0;
    // Pull requests (GitLab: merge requests) are addressed by number too.
    virtual ForgeResult<PullRequest> getPullRequest(const std::string& owner,
                                                    const std::string& repo,
                                                    int64_t number) const = 0;
    // The new pull request as the forge recorded it.
    virtual ForgeResult<PullRequest> createPullRequest(const std::string& owner,
                                                      const std::string& repo,
                                                      const NewPullRequest& request) const = 0;
    // `method` "merge", "squash" or "rebase".
    virtual ForgeStatus mergePullRequest(const std::string& owner, const std::string& repo,
                                         int64_t number, const std::string& method,
                                         const std::string& commit_title) const = 0;
    // Asks these accounts for a review.
    virtual ForgeStatus addPullRequestReviewers(const std::string& owner, const std::string& repo,
                                                int64_t number,
                                                const std::vector<std::string>& reviewers) const = 0;
    // The repository's webhooks; their secrets are never read back.
    virtual ForgeResult<std::vector<WebhookConfig>> listWebhooks(const std::string& owner,
                                                                 const std::string& repo) const = 0;
    // `hook.events` empty for WebhookConfig::defaultEvents().
    virtual ForgeResult<WebhookConfig> createWebhook(const std::string& owner,
                                                     const std::string& repo,
                                                     const WebhookConfig& hook) const = 0;
    // Removes the webhook with this id.
    virtual ForgeStatus deleteWebhook(const std::string& owner, const std::string& repo,
                                      int64_t id) const = 0;
    // Clones `url` into `path` (which must not exist or be empty), reporting
    // "Starting clone..." and "Clone complete". The forge's credentials go
    // to git only when `url` points at this forge's host.
    virtual ForgeStatus cloneRepository(const std::string& url, const std::string& path,
                                        const CloneOptions& options,
                                        const ProgressCallback& progress) const = 0;
    // Fast-forwards the checkout at `path` from its upstream, reporting
    // "Pulling changes..." and "Pull complete". A diverged branch fails.
    virtual ForgeStatus pullRepository(const std::string& path,
                                       const ProgressCallback& progress) const = 0;
    // Pushes the current branch to the same name on "origin", reporting
    // "Pushing changes..." and "Push complete".
    virtual ForgeStatus pushRepository(const std::string& path,
                                       const ProgressCallback& progress) const = 0;
    // The labels defined in the repository.
    virtual ForgeResult<std::vector<Label>> listLabels(const std::string& owner,
                                                       const std::string& repo) const = 0;
    // `label.color` with or without "#"; each client sends its forge's form.
    virtual ForgeResult<Label> createLabel(const std::string& owner, const std::string& repo,
                                           const Label& label) const = 0;
    // url/owner/repo.git, or git@host:owner/repo.git when the configured
    // default protocol is "ssh". Never holds credentials.
    virtual std::string getCloneUrl(const std::string& owner, const std::string& repo) const = 0;

    // What git is given for HTTPS remotes of this forge: the token under
    // the user name the forge expects; empty when there is no token.
    virtual GitCredentials gitCredentials() const = 0;

    // One REST call: `path` (with its query) relative to the API base,
    // `method` "GET", "POST", "PUT", "PATCH" or "DELETE", `body` sent as
    // JSON unless null. The answer parsed as JSON (null when empty). Errors:
    // "Failed to initialize CURL", "CURL error: <text>", "HTTP error <status>".
    ForgeResult<nlohmann::json> makeRequest(const std::string& method, const std::string& path,
                                            const nlohmann::json& body = nullptr) const;

    // The API base the requests go to: "api_url" when set, otherwise
    // derived from "url" by forge type.
    std::string apiBase() const;

    // Splits "alias:owner/repo" or "alias/owner/repo" (".git" dropped);
    // nullopt for anything else, URLs ("https://...", "git@host:...")
    // included. An alias is letters, digits, "-", "_" and ".".
    static std::optional<ShortRepoName> parseShortUrl(const std::string& text);

protected:
    GitForge() = default;

    // The body of every initialize: `config` when its type is `expected`,
    // otherwise "Invalid forge type for <forge_name>".
    ForgeStatus adopt(const ForgeConfig& config, ForgeType expected, std::string_view forge_name);
    // The user name GitLab and Gitea expect beside a token over HTTPS.
    static constexpr const char* kOAuthGitUser = "oauth2";
    // `user` with the configured token; empty when there is none.
    GitCredentials tokenCredentials(const std::string& user) const;
    std::string cloneUrlFor(const std::string& owner, const std::string& repo) const;

    ForgeStatus runClone(const std::string& url, const std::string& path,
                         const CloneOptions& options, const ProgressCallback& progress) const;
    ForgeStatus runPull(const std::string& path, const ProgressCallback& progress) const;
    ForgeStatus runPush(const std::string& path, const ProgressCallback& progress) const;

    static constexpr const char* kInvalidMergeMethod = "Invalid merge method: ";
    // "merge", "squash" or "rebase".
    static bool isMergeMethod(const std::string& method);

    // Percent-encodes everything but unreserved characters (and "/" when
    // `keep_slash`), for path segments and query values.
    static std::string encode(std::string_view text, bool keep_slash = false);
    static std::string base64(std::string_view bytes);

    // An answer turned into a record, a list of records or a plain status.
    template <typename Record, typename Parse>
    static ForgeResult<Record> recordOf(const ForgeResult<nlohmann::json>& answer, Parse parse) {
        if (!answer) return ForgeResult<Record>::failedAs(answer);
        return ForgeResult<Record>::ok(parse(answer.value), answer.http_status);
    }
    template <typename Record, typename Parse>
    static ForgeResult<std::vector<Record>> listOf(const ForgeResult<nlohmann::json>& answer,
                                                   Parse parse) {
        if (!answer) return ForgeResult<std::vector<Record>>::failedAs(answer);
        std::vector<Record> records;
        if (answer.value.is_array())
            for (const nlohmann::json& item : answer.value) records.push_back(parse(item));
        return ForgeResult<std::vector<Record>>::ok(std::move(records), answer.http_status);
    }
    static ForgeStatus statusOf(const ForgeResult<nlohmann::json>& answer) {
        if (!answer) return ForgeStatus::failedAs(answer);
        return ForgeStatus::ok({}, answer.http_status);
    }

    ForgeConfig config_;

private:
    // Credentials for a remote: the forge's own only when `url` is on the
    // forge's host, so a token never reaches another server.
    GitCredentials credentialsFor(const std::string& url) const;
    // credentialsFor the URL of the checkout's "origin".
    GitCredentials remoteCredentials(const std::string& path) const;
    ForgeStatus runGitStep(const std::vector<std::string>& args, const std::string& work_dir,
                           const GitCredentials& credentials, std::string_view failure) const;
};

}  // namespace vostra::git
