#include "git/github_forge.h"

namespace vostra::git {

using nlohmann::json;

namespace {

constexpr const char* kGitUser = "x-access-token";
constexpr const char* kNotAFile = "Not a file: ";
constexpr const char* kNoSuchBranch = "Branch has no commit: ";

std::string orDefault(const std::string& value, const char* fallback) {
    return value.empty() ? std::string(fallback) : value;
}

// GitHub and Gitea list pull requests among the issues; the issue calls
// answer issues only.
std::vector<Issue> issuesOnly(const json& list) {
    std::vector<Issue> issues;
    if (!list.is_array()) return issues;
    for (const json& item : list)
        if (!item.contains("pull_request")) issues.push_back(Issue::fromJson(item));
    return issues;
}

}  // namespace

std::string GitHubStyleForge::repoPath(const std::string& owner, const std::string& repo) {
    return "/repos/" + encode(owner) + "/" + encode(repo);
}

std::string GitHubStyleForge::pageQuery(int page, int per_page) const {
    return "page=" + std::to_string(page) + "&per_page=" + std::to_string(per_page);
}

std::string GitHubStyleForge::numbered(const std::string& owner, const std::string& repo,
                                       const char* what, int64_t number) {
    return repoPath(owner, repo) + what + std::to_string(number);
}

ForgeStatus GitHubStyleForge::testConnection() const {
    return statusOf(makeRequest("GET", "/user"));
}

ForgeResult<RepoOwner> GitHubStyleForge::getCurrentUser() const {
    return recordOf<RepoOwner>(makeRequest("GET", "/user"), RepoOwner::fromJson);
}

ForgeResult<std::vector<Repository>> GitHubStyleForge::listRepositories(
    int page, int per_page, const std::string& type) const {
    return listOf<Repository>(makeRequest("GET", "/user/repos?" + pageQuery(page, per_page) +
                                                     "&type=" + encode(orDefault(type, "all"))),
                              Repository::fromJson);
}

ForgeResult<std::vector<Repository>> GitHubStyleForge::searchRepositories(const std::string& query,
                                                                          int page,
                                                                          int per_page) const {
    auto answer = makeRequest("GET", "/search/repositories?q=" + encode(query) + "&" +
                                         pageQuery(page, per_page));
    if (answer) answer.value = answerList(answer.value, "items");
    return listOf<Repository>(answer, Repository::fromJson);
}

ForgeResult<Repository> GitHubStyleForge::getRepository(const std::string& owner,
                                                        const std::string& repo) const {
    return recordOf<Repository>(makeRequest("GET", repoPath(owner, repo)), Repository::fromJson);
}

ForgeResult<Repository> GitHubStyleForge::createRepository(const std::string& name,
                                                           const std::string& description,
                                                           bool is_private,
                                                           bool auto_init) const {
    const json body = {{"name", name},
                       {"description", description},
                       {"private", is_private},
                       {"auto_init", auto_init}};
    return recordOf<Repository>(makeRequest("POST", "/user/repos", body), Repository::fromJson);
}

ForgeStatus GitHubStyleForge::deleteRepository(const std::string& owner,
                                               const std::string& repo) const {
    return statusOf(makeRequest("DELETE", repoPath(owner, repo)));
}

ForgeResult<Repository> GitHubStyleForge::forkRepository(const std::string& owner,
                                                         const std::string& repo) const {
    return recordOf<Repository>(makeRequest("POST", repoPath(owner, repo) + "/forks", json::object()),
                                Repository::fromJson);
}

ForgeResult<std::vector<Branch>> GitHubStyleForge::listBranches(const std::string& owner,
                                                                const std::string& repo) const {
    return listOf<Branch>(makeRequest("GET", repoPath(owner, repo) + "/branches"),
                          Branch::fromJson);
}

ForgeResult<Branch> GitHubStyleForge::getBranch(const std::string& owner, const std::string& repo,
                                                const std::string& name) const {
    return recordOf<Branch>(
        makeRequest("GET", repoPath(owner, repo) + "/branches/" + encode(name, true)),
        Branch::fromJson);
}

ForgeResult<Branch> GitHubStyleForge::createBranch(const std::string& owner,
                                                   const std::string& repo,
                                                   const std::string& name,
                                                   const std::string& from) const {
    const std::string base = repoPath(owner, repo);
    const auto source = makeRequest("GET", base + "/git/ref/heads/" + encode(from, true));
    if (!source) return ForgeResult<Branch>::failedAs(source);
    const std::string sha = answerText(source.value, "object", "sha");
    if (sha.empty()) return ForgeResult<Branch>::failure(kNoSuchBranch + from, source.http_status);
    const json body = {{"ref", "refs/heads/" + name}, {"sha", sha}};
    const auto created = makeRequest("POST", base + "/git/refs", body);
    if (!created) return ForgeResult<Branch>::failedAs(created);
    Branch branch;
    branch.name = name;
    branch.commit_sha = answerText(created.value, "object", "sha");
    if (branch.commit_sha.empty()) branch.commit_sha = sha;
    return ForgeResult<Branch>::ok(std::move(branch), created.http_status);
}

ForgeStatus GitHubStyleForge::deleteBranch(const std::string& owner, const std::string& repo,
                                           const std::string& name) const {
    return statusOf(
        makeRequest("DELETE", repoPath(owner, repo) + "/git/refs/heads/" + encode(name, true)));
}

ForgeResult<std::vector<Commit>> GitHubStyleForge::listCommits(const std::string& owner,
                                                               const std::string& repo,
                                                               const std::string& branch,
                                                               int page, int per_page) const {
    std::string path = repoPath(owner, repo) + "/commits?" + pageQuery(page, per_page);
    if (!branch.empty()) path += "&sha=" + encode(branch);
    return listOf<Commit>(makeRequest("GET", path), Commit::fromJson);
}

ForgeResult<Commit> GitHubStyleForge::getCommit(const std::string& owner, const std::string& repo,
                                                const std::string& sha) const {
    return recordOf<Commit>(makeRequest("GET", repoPath(owner, repo) + "/commits/" + encode(sha)),
                            Commit::fromJson);
}

ForgeResult<std::vector<Commit>> GitHubStyleForge::compareCommits(const std::string& owner,
                                                                  const std::string& repo,
                                                                  const std::string& base,
                                                                  const std::string& head) const {
    auto answer = makeRequest("GET", repoPath(owner, repo) + "/compare/" + encode(base, true) +
                                         "..." + encode(head, true));
    if (answer) answer.value = answerList(answer.value, "commits");
    return listOf<Commit>(answer, Commit::fromJson);
}

ForgeResult<FileContent> GitHubStyleForge::getFileContent(const std::string& owner,
                                                          const std::string& repo,
                                                          const std::string& path,
                                                          const std::string& ref) const {
    std::string request = repoPath(owner, repo) + "/contents/" + encode(path, true);
    if (!ref.empty()) request += "?ref=" + encode(ref);
    const auto answer = makeRequest("GET", request);
    // A folder answers with a list of its entries.
    if (answer && !answer.value.is_object())
        return ForgeResult<FileContent>::failure(kNotAFile + path, answer.http_status);
    return recordOf<FileContent>(answer, FileContent::fromJson);
}

ForgeResult<std::vector<FileContent>> GitHubStyleForge::listDirectoryContents(
    const std::string& owner, const std::string& repo, const std::string& path,
    const std::string& ref) const {
    std::string request = repoPath(owner, repo) + "/contents/" + encode(path, true);
    if (!ref.empty()) request += "?ref=" + encode(ref);
    return listOf<FileContent>(makeRequest("GET", request), FileContent::fromJson);
}

ForgeStatus GitHubStyleForge::createOrUpdateFile(const std::string& owner,
                                                 const std::string& repo,
                                                 const FileChange& change) const {
    json body = {{"message", change.message}, {"content", base64(change.content)}};
    if (!change.sha.empty()) body["sha"] = change.sha;
    if (!change.branch.empty()) body["branch"] = change.branch;
    return statusOf(makeRequest(
        "PUT", repoPath(owner, repo) + "/contents/" + encode(change.path, true), body));
}

ForgeStatus GitHubStyleForge::deleteFile(const std::string& owner, const std::string& repo,
                                         const FileChange& change) const {
    json body = {{"message", change.message}, {"sha", change.sha}};
    if (!change.branch.empty()) body["branch"] = change.branch;
    return statusOf(makeRequest(
        "DELETE", repoPath(owner, repo) + "/contents/" + encode(change.path, true), body));
}

ForgeResult<std::vector<Issue>> GitHubStyleForge::listIssues(const std::string& owner,
                                                             const std::string& repo,
                                                             const std::string& state, int page,
                                                             int per_page) const {
    const auto answer =
        makeRequest("GET", repoPath(owner, repo) + "/issues?" + pageQuery(page, per_page) +
                               "&state=" + encode(orDefault(state, "open")));
    if (!answer) return ForgeResult<std::vector<Issue>>::failedAs(answer);
    return ForgeResult<std::vector<Issue>>::ok(issuesOnly(answer.value), answer.http_status);
}

ForgeResult<Issue> GitHubStyleForge::getIssue(const std::string& owner, const std::string& repo,
                                              int64_t number) const {
    return recordOf<Issue>(makeRequest("GET", numbered(owner, repo, "/issues/", number)),
                           Issue::fromJson);
}

ForgeResult<Issue> GitHubStyleForge::createIssue(const std::string& owner,
                                                 const std::string& repo,
                                                 const NewIssue& issue) const {
    const json body = {{"title", issue.title},
                       {"body", issue.body},
                       {"labels", issue.labels},
                       {"assignees", issue.assignees}};
    return recordOf<Issue>(makeRequest("POST", repoPath(owner, repo) + "/issues", body),
                           Issue::fromJson);
}

ForgeResult<Issue> GitHubStyleForge::updateIssue(const std::string& owner,
                                                 const std::string& repo, int64_t number,
                                                 const IssueChanges& changes) const {
    json body = json::object();
    if (changes.title) body["title"] = *changes.title;
    if (changes.body) body["body"] = *changes.body;
    if (changes.state) body["state"] = *changes.state;
    if (changes.labels) body["labels"] = *changes.labels;
    return recordOf<Issue>(makeRequest("PATCH", numbered(owner, repo, "/issues/", number), body),
                           Issue::fromJson);
}

ForgeStatus GitHubStyleForge::addIssueComment(const std::string& owner, const std::string& repo,
                                              int64_t number, const std::string& body) const {
    return statusOf(makeRequest("POST", numbered(owner, repo, "/issues/", number) + "/comments",
                                {{"body", body}}));
}

ForgeStatus GitHubStyleForge::addIssueLabels(const std::string& owner, const std::string& repo,
                                             int64_t number,
                                             const std::vector<std::string>& labels) const {
    return statusOf(makeRequest("POST", numbered(owner, repo, "/issues/", number) + "/labels",
                                {{"labels", labels}}));
}

ForgeResult<std::vector<PullRequest>> GitHubStyleForge::listPullRequests(
    const std::string& owner, const std::string& repo, const std::string& state, int page,
    int per_page) const {
    return listOf<PullRequest>(
        makeRequest("GET", repoPath(owner, repo) + "/pulls?" + pageQuery(page, per_page) +
                               "&state=" + encode(orDefault(state, "open"))),
        PullRequest::fromJson);
}

ForgeResult<PullRequest> GitHubStyleForge::getPullRequest(const std::string& owner,
                                                          const std::string& repo,
                                                          int64_t number) const {
    return recordOf<PullRequest>(makeRequest("GET", numbered(owner, repo, "/pulls/", number)),
                                 PullRequest::fromJson);
}

ForgeResult<PullRequest> GitHubStyleForge::createPullRequest(const std::string& owner,
                                                             const std::string& repo,
                                                             const NewPullRequest& request) const {
    const json body = {{"title", request.title},
                       {"body", request.body},
                       {"head", request.head},
                       {"base", request.base},
                       {"draft", request.draft}};
    auto created = recordOf<PullRequest>(
        makeRequest("POST", repoPath(owner, repo) + "/pulls", body), PullRequest::fromJson);
    if (!created || request.reviewers.empty()) return created;
    const ForgeStatus asked =
        addPullRequestReviewers(owner, repo, created.value.number, request.reviewers);
    if (!asked)
        return ForgeResult<PullRequest>::failure(
            "Pull request #" + std::to_string(created.value.number) +
                " created; requesting reviewers failed: " + asked.error,
            asked.http_status);
    return created;
}

ForgeStatus GitHubStyleForge::mergePullRequest(const std::string& owner, const std::string& repo,
                                               int64_t number, const std::string& method,
                                               const std::string& commit_title) const {
    if (!isMergeMethod(method)) return ForgeStatus::failure(kInvalidMergeMethod + method);
    json body = {{"merge_method", method}};
    if (!commit_title.empty()) body["commit_title"] = commit_title;
    return statusOf(
        makeRequest("PUT", numbered(owner, repo, "/pulls/", number) + "/merge", body));
}

ForgeStatus GitHubStyleForge::addPullRequestReviewers(
    const std::string& owner, const std::string& repo, int64_t number,
    const std::vector<std::string>& reviewers) const {
    return statusOf(makeRequest("POST",
                                numbered(owner, repo, "/pulls/", number) + "/requested_reviewers",
                                {{"reviewers", reviewers}}));
}

ForgeResult<std::vector<WebhookConfig>> GitHubStyleForge::listWebhooks(
    const std::string& owner, const std::string& repo) const {
    return listOf<WebhookConfig>(makeRequest("GET", repoPath(owner, repo) + "/hooks"),
                                 WebhookConfig::fromJson);
}

ForgeResult<WebhookConfig> GitHubStyleForge::createWebhook(const std::string& owner,
                                                           const std::string& repo,
                                                           const WebhookConfig& hook) const {
    const json body = {
        {"name", "web"},
        {"active", hook.active},
        {"events", hook.events.empty() ? WebhookConfig::defaultEvents() : hook.events},
        {"config", {{"url", hook.url}, {"content_type", "json"}, {"secret", hook.secret}}}};
    return recordOf<WebhookConfig>(makeRequest("POST", repoPath(owner, repo) + "/hooks", body),
                                   WebhookConfig::fromJson);
}

ForgeStatus GitHubStyleForge::deleteWebhook(const std::string& owner, const std::string& repo,
                                            int64_t id) const {
    return statusOf(makeRequest("DELETE", numbered(owner, repo, "/hooks/", id)));
}

ForgeStatus GitHubStyleForge::cloneRepository(const std::string& url, const std::string& path,
                                              const CloneOptions& options,
                                              const ProgressCallback& progress) const {
    return runClone(url, path, options, progress);
}

ForgeStatus GitHubStyleForge::pullRepository(const std::string& path,
                                             const ProgressCallback& progress) const {
    return runPull(path, progress);
}

ForgeStatus GitHubStyleForge::pushRepository(const std::string& path,
                                             const ProgressCallback& progress) const {
    return runPush(path, progress);
}

ForgeResult<std::vector<Label>> GitHubStyleForge::listLabels(const std::string& owner,
                                                             const std::string& repo) const {
    return listOf<Label>(makeRequest("GET", repoPath(owner, repo) + "/labels"), Label::fromJson);
}

ForgeResult<Label> GitHubStyleForge::createLabel(const std::string& owner,
                                                 const std::string& repo,
                                                 const Label& label) const {
    // GitHub wants the six hex digits alone.
    const std::string color = label.color.starts_with('#') ? label.color.substr(1) : label.color;
    const json body = {{"name", label.name}, {"color", color}, {"description", label.description}};
    return recordOf<Label>(makeRequest("POST", repoPath(owner, repo) + "/labels", body),
                           Label::fromJson);
}

std::string GitHubStyleForge::getCloneUrl(const std::string& owner,
                                          const std::string& repo) const {
    return cloneUrlFor(owner, repo);
}

ForgeStatus GitHubForge::initialize(const ForgeConfig& config) {
    return adopt(config, ForgeType::GitHub, "GitHub");
}

GitCredentials GitHubForge::gitCredentials() const {
    return tokenCredentials(kGitUser);
}

}  // namespace vostra::git
