#include "git/gitlab_forge.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace vostra::git {

using nlohmann::json;

namespace {

constexpr const char* kDefaultRef = "main";
constexpr const char* kDraftPrefix = "Draft: ";
constexpr const char* kNotAUserId = "GitLab wants numeric user ids, not: ";

// The common event names and GitLab's webhook switches for them.
constexpr std::array<std::pair<std::string_view, const char*>, 7> kHookEvents{{
    {"push", "push_events"},
    {"pull_request", "merge_requests_events"},
    {"issues", "issues_events"},
    {"issue_comment", "note_events"},
    {"create", "tag_push_events"},
    {"delete", "tag_push_events"},
    {"release", "releases_events"},
}};

// GitLab's states in the common words: "opened" is "open"; merged and
// locked requests are closed.
std::string commonState(const std::string& state) {
    if (state == "opened") return "open";
    if (state == "merged" || state == "locked") return "closed";
    return state;
}

// The common state filter in GitLab's words.
std::string gitLabState(const std::string& state) {
    if (state.empty() || state == "open") return "opened";
    return state;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
    return text;
}

// Numeric user ids, or the first text that is not one.
std::pair<json, std::string> userIds(const std::vector<std::string>& ids) {
    json list = json::array();
    for (const std::string& id : ids) {
        int64_t value = 0;
        const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), value);
        if (id.empty() || error != std::errc() || end != id.data() + id.size()) return {{}, id};
        list.push_back(value);
    }
    return {list, {}};
}

RepoOwner userFromGitLab(const json& j) {
    RepoOwner user = RepoOwner::fromJson(j);
    user.html_url = answerText(j, "web_url");
    return user;
}

Repository repositoryFromGitLab(const json& j) {
    Repository repo = Repository::fromJson(j);
    repo.full_name = answerText(j, "path_with_namespace");
    if (const auto it = j.find("namespace"); it != j.end() && it->is_object()) {
        repo.owner.id = answerNumber(*it, "id");
        repo.owner.login = answerText(*it, "full_path");
        repo.owner.name = answerText(*it, "name");
        repo.owner.type = answerText(*it, "kind");
        repo.owner.avatar_url = answerText(*it, "avatar_url");
        repo.owner.html_url = answerText(*it, "web_url");
    }
    repo.is_private = !repo.visibility.empty() && repo.visibility != "public";
    repo.fork = j.contains("forked_from_project") && j["forked_from_project"].is_object();
    repo.html_url = answerText(j, "web_url");
    repo.clone_url = answerText(j, "http_url_to_repo");
    repo.ssh_url = answerText(j, "ssh_url_to_repo");
    repo.stargazers_count = answerNumber(j, "star_count");
    return repo;
}

Issue issueFromGitLab(const json& j) {
    Issue issue = Issue::fromJson(j);
    issue.number = answerNumber(j, "iid");
    issue.body = answerText(j, "description");
    issue.state = commonState(issue.state);
    issue.comments = answerNumber(j, "user_notes_count");
    issue.user = answerText(j, "author", "username");
    issue.html_url = answerText(j, "web_url");
    return issue;
}

PullRequest mergeRequestFromGitLab(const json& j) {
    PullRequest pr;
    static_cast<Issue&>(pr) = issueFromGitLab(j);
    pr.merged = answerFlag(j, "merged") || answerText(j, "state") == "merged";
    pr.draft = answerFlag(j, "draft") || answerFlag(j, "work_in_progress");
    pr.mergeable = answerText(j, "merge_status") == "can_be_merged";
    pr.head_ref = answerText(j, "source_branch");
    pr.head_sha = answerText(j, "sha");
    pr.base_ref = answerText(j, "target_branch");
    pr.base_sha = answerText(j, "diff_refs", "base_sha");
    pr.changed_files = answerNumber(j, "changes_count");
    if (!pr.html_url.empty()) pr.diff_url = pr.html_url + ".diff";
    return pr;
}

Commit commitFromGitLab(const json& j) {
    Commit commit;
    commit.sha = answerText(j, "id");
    commit.html_url = answerText(j, "web_url");
    commit.message = answerText(j, "message");
    commit.author_name = answerText(j, "author_name");
    commit.author_email = answerText(j, "author_email");
    commit.author_date = answerText(j, "authored_date");
    commit.committer_name = answerText(j, "committer_name");
    commit.committer_email = answerText(j, "committer_email");
    if (const auto it = j.find("stats"); it != j.end()) {
        commit.additions = answerNumber(*it, "additions");
        commit.deletions = answerNumber(*it, "deletions");
    }
    return commit;
}

FileContent fileFromGitLab(const json& j) {
    FileContent file;
    file.type = "file";
    file.name = answerText(j, "file_name");
    file.path = answerText(j, "file_path");
    file.sha = answerText(j, "blob_id");
    file.size = answerNumber(j, "size");
    file.encoding = answerText(j, "encoding");
    file.content = answerText(j, "content");
    return file;
}

FileContent treeEntryFromGitLab(const json& j) {
    FileContent entry;
    entry.type = answerText(j, "type") == "tree" ? "dir" : "file";
    entry.name = answerText(j, "name");
    entry.path = answerText(j, "path");
    entry.sha = answerText(j, "id");
    return entry;
}

WebhookConfig hookFromGitLab(const json& j) {
    WebhookConfig hook;
    hook.id = answerNumber(j, "id");
    hook.url = answerText(j, "url");
    // "delete" shares its switch with "create"; it is named once.
    for (const auto& [event, key] : kHookEvents)
        if (event != "delete" && answerFlag(j, key)) hook.events.emplace_back(event);
    return hook;
}

}  // namespace

std::string GitLabForge::projectPath(const std::string& owner, const std::string& repo) {
    return "/projects/" + encode(owner + "/" + repo);
}

ForgeStatus GitLabForge::initialize(const ForgeConfig& config) {
    return adopt(config, ForgeType::GitLab, "GitLab");
}

GitCredentials GitLabForge::gitCredentials() const {
    return tokenCredentials(kOAuthGitUser);
}

ForgeStatus GitLabForge::testConnection() const {
    return statusOf(makeRequest("GET", "/user"));
}

ForgeResult<RepoOwner> GitLabForge::getCurrentUser() const {
    return recordOf<RepoOwner>(makeRequest("GET", "/user"), userFromGitLab);
}

ForgeResult<std::vector<Repository>> GitLabForge::listRepositories(int page, int per_page,
                                                                   const std::string&) const {
    return listOf<Repository>(makeRequest("GET", "/projects?page=" + std::to_string(page) +
                                                     "&per_page=" + std::to_string(per_page) +
                                                     "&membership=true"),
                              repositoryFromGitLab);
}

ForgeResult<std::vector<Repository>> GitLabForge::searchRepositories(const std::string& query,
                                                                     int page,
                                                                     int per_page) const {
    return listOf<Repository>(
        makeRequest("GET", "/projects?search=" + encode(query) + "&page=" + std::to_string(page) +
                               "&per_page=" + std::to_string(per_page)),
        repositoryFromGitLab);
}

ForgeResult<Repository> GitLabForge::getRepository(const std::string& owner,
                                                   const std::string& repo) const {
    return recordOf<Repository>(makeRequest("GET", projectPath(owner, repo)), repositoryFromGitLab);
}

ForgeResult<Repository> GitLabForge::createRepository(const std::string& name,
                                                      const std::string& description,
                                                      bool is_private, bool auto_init) const {
    const json body = {{"name", name},
                       {"description", description},
                       {"visibility", is_private ? "private" : "public"},
                       {"initialize_with_readme", auto_init}};
    return recordOf<Repository>(makeRequest("POST", "/projects", body), repositoryFromGitLab);
}

ForgeStatus GitLabForge::deleteRepository(const std::string& owner,
                                          const std::string& repo) const {
    return statusOf(makeRequest("DELETE", projectPath(owner, repo)));
}

ForgeResult<Repository> GitLabForge::forkRepository(const std::string& owner,
                                                    const std::string& repo) const {
    return recordOf<Repository>(makeRequest("POST", projectPath(owner, repo) + "/fork", json::object()),
                                repositoryFromGitLab);
}

ForgeResult<std::vector<Branch>> GitLabForge::listBranches(const std::string& owner,
                                                           const std::string& repo) const {
    return listOf<Branch>(makeRequest("GET", projectPath(owner, repo) + "/repository/branches"),
                          Branch::fromJson);
}

ForgeResult<Branch> GitLabForge::getBranch(const std::string& owner, const std::string& repo,
                                           const std::string& name) const {
    return recordOf<Branch>(
        makeRequest("GET", projectPath(owner, repo) + "/repository/branches/" + encode(name)),
        Branch::fromJson);
}

ForgeResult<Branch> GitLabForge::createBranch(const std::string& owner, const std::string& repo,
                                              const std::string& name,
                                              const std::string& from) const {
    return recordOf<Branch>(makeRequest("POST", projectPath(owner, repo) + "/repository/branches",
                                        {{"branch", name}, {"ref", from}}),
                            Branch::fromJson);
}

ForgeStatus GitLabForge::deleteBranch(const std::string& owner, const std::string& repo,
                                      const std::string& name) const {
    return statusOf(
        makeRequest("DELETE", projectPath(owner, repo) + "/repository/branches/" + encode(name)));
}

ForgeResult<std::vector<Commit>> GitLabForge::listCommits(const std::string& owner,
                                                          const std::string& repo,
                                                          const std::string& branch, int page,
                                                          int per_page) const {
    std::string path = projectPath(owner, repo) + "/repository/commits?page=" +
                       std::to_string(page) + "&per_page=" + std::to_string(per_page);
    if (!branch.empty()) path += "&ref_name=" + encode(branch);
    return listOf<Commit>(makeRequest("GET", path), commitFromGitLab);
}

ForgeResult<Commit> GitLabForge::getCommit(const std::string& owner, const std::string& repo,
                                           const std::string& sha) const {
    return recordOf<Commit>(
        makeRequest("GET", projectPath(owner, repo) + "/repository/commits/" + encode(sha)),
        commitFromGitLab);
}

ForgeResult<std::vector<Commit>> GitLabForge::compareCommits(const std::string& owner,
                                                             const std::string& repo,
                                                             const std::string& base,
                                                             const std::string& head) const {
    auto answer = makeRequest("GET", projectPath(owner, repo) + "/repository/compare?from=" +
                                         encode(base) + "&to=" + encode(head));
    if (answer) answer.value = answerList(answer.value, "commits");
    return listOf<Commit>(answer, commitFromGitLab);
}

ForgeResult<FileContent> GitLabForge::getFileContent(const std::string& owner,
                                                     const std::string& repo,
                                                     const std::string& path,
                                                     const std::string& ref) const {
    return recordOf<FileContent>(
        makeRequest("GET", projectPath(owner, repo) + "/repository/files/" + encode(path) +
                               "?ref=" + encode(ref.empty() ? kDefaultRef : ref)),
        fileFromGitLab);
}

ForgeResult<std::vector<FileContent>> GitLabForge::listDirectoryContents(
    const std::string& owner, const std::string& repo, const std::string& path,
    const std::string& ref) const {
    std::string request = projectPath(owner, repo) + "/repository/tree?path=" + encode(path);
    if (!ref.empty()) request += "&ref=" + encode(ref);
    return listOf<FileContent>(makeRequest("GET", request), treeEntryFromGitLab);
}

ForgeStatus GitLabForge::createOrUpdateFile(const std::string& owner, const std::string& repo,
                                            const FileChange& change) const {
    // Sent as base64 so that binary files arrive intact.
    const json body = {{"branch", change.branch.empty() ? kDefaultRef : change.branch},
                       {"content", base64(change.content)},
                       {"encoding", "base64"},
                       {"commit_message", change.message}};
    return statusOf(makeRequest(change.sha.empty() ? "POST" : "PUT",
                                projectPath(owner, repo) + "/repository/files/" +
                                    encode(change.path),
                                body));
}

ForgeStatus GitLabForge::deleteFile(const std::string& owner, const std::string& repo,
                                    const FileChange& change) const {
    const json body = {{"branch", change.branch.empty() ? kDefaultRef : change.branch},
                       {"commit_message", change.message}};
    return statusOf(makeRequest(
        "DELETE", projectPath(owner, repo) + "/repository/files/" + encode(change.path), body));
}

ForgeResult<std::vector<Issue>> GitLabForge::listIssues(const std::string& owner,
                                                        const std::string& repo,
                                                        const std::string& state, int page,
                                                        int per_page) const {
    return listOf<Issue>(makeRequest("GET", projectPath(owner, repo) + "/issues?state=" +
                                                encode(gitLabState(state)) + "&page=" +
                                                std::to_string(page) +
                                                "&per_page=" + std::to_string(per_page)),
                         issueFromGitLab);
}

ForgeResult<Issue> GitLabForge::getIssue(const std::string& owner, const std::string& repo,
                                         int64_t number) const {
    return recordOf<Issue>(
        makeRequest("GET", projectPath(owner, repo) + "/issues/" + std::to_string(number)),
        issueFromGitLab);
}

ForgeResult<Issue> GitLabForge::createIssue(const std::string& owner, const std::string& repo,
                                            const NewIssue& issue) const {
    auto [assignees, refused] = userIds(issue.assignees);
    if (!refused.empty()) return ForgeResult<Issue>::failure(kNotAUserId + refused);
    json body = {{"title", issue.title}, {"description", issue.body}};
    if (!issue.labels.empty()) body["labels"] = joined(issue.labels);
    if (!assignees.empty()) body["assignee_ids"] = std::move(assignees);
    return recordOf<Issue>(makeRequest("POST", projectPath(owner, repo) + "/issues", body),
                           issueFromGitLab);
}

ForgeResult<Issue> GitLabForge::updateIssue(const std::string& owner, const std::string& repo,
                                            int64_t number, const IssueChanges& changes) const {
    json body = json::object();
    if (changes.title) body["title"] = *changes.title;
    if (changes.body) body["description"] = *changes.body;
    if (changes.state) body["state_event"] = *changes.state == "closed" ? "close" : "reopen";
    if (changes.labels) body["labels"] = joined(*changes.labels);
    return recordOf<Issue>(
        makeRequest("PUT", projectPath(owner, repo) + "/issues/" + std::to_string(number), body),
        issueFromGitLab);
}

ForgeStatus GitLabForge::addIssueComment(const std::string& owner, const std::string& repo,
                                         int64_t number, const std::string& body) const {
    return statusOf(makeRequest(
        "POST", projectPath(owner, repo) + "/issues/" + std::to_string(number) + "/notes",
        {{"body", body}}));
}

ForgeStatus GitLabForge::addIssueLabels(const std::string& owner, const std::string& repo,
                                        int64_t number,
                                        const std::vector<std::string>& labels) const {
    return statusOf(
        makeRequest("PUT", projectPath(owner, repo) + "/issues/" + std::to_string(number),
                    {{"add_labels", joined(labels)}}));
}

ForgeResult<std::vector<PullRequest>> GitLabForge::listPullRequests(const std::string& owner,
                                                                    const std::string& repo,
                                                                    const std::string& state,
                                                                    int page,
                                                                    int per_page) const {
    return listOf<PullRequest>(
        makeRequest("GET", projectPath(owner, repo) + "/merge_requests?state=" +
                               encode(gitLabState(state)) + "&page=" + std::to_string(page) +
                               "&per_page=" + std::to_string(per_page)),
        mergeRequestFromGitLab);
}

ForgeResult<PullRequest> GitLabForge::getPullRequest(const std::string& owner,
                                                     const std::string& repo,
                                                     int64_t number) const {
    return recordOf<PullRequest>(
        makeRequest("GET",
                    projectPath(owner, repo) + "/merge_requests/" + std::to_string(number)),
        mergeRequestFromGitLab);
}

ForgeResult<PullRequest> GitLabForge::createPullRequest(const std::string& owner,
                                                        const std::string& repo,
                                                        const NewPullRequest& request) const {
    auto [reviewers, refused] = userIds(request.reviewers);
    if (!refused.empty()) return ForgeResult<PullRequest>::failure(kNotAUserId + refused);
    json body = {{"title", request.draft ? kDraftPrefix + request.title : request.title},
                 {"description", request.body},
                 {"source_branch", request.head},
                 {"target_branch", request.base}};
    if (!reviewers.empty()) body["reviewer_ids"] = std::move(reviewers);
    return recordOf<PullRequest>(
        makeRequest("POST", projectPath(owner, repo) + "/merge_requests", body),
        mergeRequestFromGitLab);
}

ForgeStatus GitLabForge::mergePullRequest(const std::string& owner, const std::string& repo,
                                          int64_t number, const std::string& method,
                                          const std::string& commit_title) const {
    if (!isMergeMethod(method)) return ForgeStatus::failure(kInvalidMergeMethod + method);
    json body = {{"squash", method == "squash"}};
    if (!commit_title.empty()) body["merge_commit_message"] = commit_title;
    return statusOf(makeRequest(
        "PUT", projectPath(owner, repo) + "/merge_requests/" + std::to_string(number) + "/merge",
        body));
}

ForgeStatus GitLabForge::addPullRequestReviewers(const std::string& owner,
                                                 const std::string& repo, int64_t number,
                                                 const std::vector<std::string>& reviewers) const {
    auto [ids, refused] = userIds(reviewers);
    if (!refused.empty()) return ForgeStatus::failure(kNotAUserId + refused);
    return statusOf(makeRequest(
        "PUT", projectPath(owner, repo) + "/merge_requests/" + std::to_string(number),
        {{"reviewer_ids", ids}}));
}

ForgeResult<std::vector<WebhookConfig>> GitLabForge::listWebhooks(const std::string& owner,
                                                                  const std::string& repo) const {
    return listOf<WebhookConfig>(makeRequest("GET", projectPath(owner, repo) + "/hooks"),
                                 hookFromGitLab);
}

ForgeResult<WebhookConfig> GitLabForge::createWebhook(const std::string& owner,
                                                      const std::string& repo,
                                                      const WebhookConfig& hook) const {
    const std::vector<std::string> events =
        hook.events.empty() ? WebhookConfig::defaultEvents() : hook.events;
    json body = {{"url", hook.url}, {"enable_ssl_verification", true}, {"token", hook.secret}};
    for (const auto& [event, key] : kHookEvents) {
        const bool wanted = std::find(events.begin(), events.end(), event) != events.end();
        body[key] = body.value(key, false) || wanted;
    }
    return recordOf<WebhookConfig>(makeRequest("POST", projectPath(owner, repo) + "/hooks", body),
                                   hookFromGitLab);
}

ForgeStatus GitLabForge::deleteWebhook(const std::string& owner, const std::string& repo,
                                       int64_t id) const {
    return statusOf(
        makeRequest("DELETE", projectPath(owner, repo) + "/hooks/" + std::to_string(id)));
}

ForgeStatus GitLabForge::cloneRepository(const std::string& url, const std::string& path,
                                         const CloneOptions& options,
                                         const ProgressCallback& progress) const {
    return runClone(url, path, options, progress);
}

ForgeStatus GitLabForge::pullRepository(const std::string& path,
                                        const ProgressCallback& progress) const {
    return runPull(path, progress);
}

ForgeStatus GitLabForge::pushRepository(const std::string& path,
                                        const ProgressCallback& progress) const {
    return runPush(path, progress);
}

ForgeResult<std::vector<Label>> GitLabForge::listLabels(const std::string& owner,
                                                        const std::string& repo) const {
    return listOf<Label>(makeRequest("GET", projectPath(owner, repo) + "/labels"),
                         Label::fromJson);
}

ForgeResult<Label> GitLabForge::createLabel(const std::string& owner, const std::string& repo,
                                            const Label& label) const {
    // GitLab wants the colour with its "#".
    const std::string color = label.color.starts_with('#') ? label.color : "#" + label.color;
    return recordOf<Label>(makeRequest("POST", projectPath(owner, repo) + "/labels",
                                       {{"name", label.name},
                                        {"color", color},
                                        {"description", label.description}}),
                           Label::fromJson);
}

std::string GitLabForge::getCloneUrl(const std::string& owner, const std::string& repo) const {
    return cloneUrlFor(owner, repo);
}

}  // namespace vostra::git
