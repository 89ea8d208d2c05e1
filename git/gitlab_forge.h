// The client of a GitLab server (gitlab.com or self-managed). GitLab
// addresses a repository ("project") by its whole path, encoded as one
// segment, numbers issues and merge requests by "iid", and answers in its
// own shapes, which this client translates into the common records:
// "opened" becomes "open", a merged request is "closed" and merged.
// Thread safety as GitForge: initialize once, then use from any thread.
#pragma once

#include "git/git_forge.h"

namespace vostra::git {

class GitLabForge final : public GitForge {
public:
    // Refuses a non-GitLab configuration: "Invalid forge type for GitLab".
    ForgeStatus initialize(const ForgeConfig& config) override;
    ForgeStatus testConnection() const override;
    ForgeType getType() const override { return ForgeType::GitLab; }
    const ForgeConfig& getConfig() const override { return config_; }
    ForgeResult<RepoOwner> getCurrentUser() const override;
    // The projects the account is a member of; `type` is not used.
    ForgeResult<std::vector<Repository>> listRepositories(int page, int per_page,
                                                          const std::string& type) const override;
    ForgeResult<std::vector<Repository>> searchRepositories(const std::string& query, int page,
                                                            int per_page) const override;
    ForgeResult<Repository> getRepository(const std::string& owner,
                                          const std::string& repo) const override;
    // Visibility "private" or "public"; `auto_init` adds a README.
    ForgeResult<Repository> createRepository(const std::string& name,
                                             const std::string& description, bool is_private,
                                             bool auto_init) const override;
    // GitLab answers 202: the project is deleted in the background.
    ForgeStatus deleteRepository(const std::string& owner, const std::string& repo) const override;
    ForgeResult<Repository> forkRepository(const std::string& owner,
                                           const std::string& repo) const override;
    ForgeResult<std::vector<Branch>> listBranches(const std::string& owner,
                                                  const std::string& repo) const override;
    ForgeResult<Branch> getBranch(const std::string& owner, const std::string& repo,
                                  const std::string& name) const override;
    ForgeResult<Branch> createBranch(const std::string& owner, const std::string& repo,
                                     const std::string& name,
                                     const std::string& from) const override;
    ForgeStatus deleteBranch(const std::string& owner, const std::string& repo,
                             const std::string& name) const override;
    ForgeResult<std::vector<Commit>> listCommits(const std::string& owner, const std::string& repo,
                                                 const std::string& branch, int page,
                                                 int per_page) const override;
    ForgeResult<Commit> getCommit(const std::string& owner, const std::string& repo,
                                  const std::string& sha) const override;
    ForgeResult<std::vector<Commit>> compareCommits(const std::string& owner,
                                                    const std::string& repo,
                                                    const std::string& base,
                                                    const std::string& head) const override;
    // `ref` empty reads "main".
    ForgeResult<FileContent> getFileContent(const std::string& owner, const std::string& repo,
                                            const std::string& path,
                                            const std::string& ref) const override;
    ForgeResult<std::vector<FileContent>> listDirectoryContents(
        const std::string& owner, const std::string& repo, const std::string& path,
        const std::string& ref) const override;
    // GitLab always names the branch: an empty one is "main".
    ForgeStatus createOrUpdateFile(const std::string& owner, const std::string& repo,
                                   const FileChange& change) const override;
    ForgeStatus deleteFile(const std::string& owner, const std::string& repo,
                           const FileChange& change) const override;
    ForgeResult<std::vector<Issue>> listIssues(const std::string& owner, const std::string& repo,
                                               const std::string& state, int page,
                                               int per_page) const override;
    ForgeResult<Issue> getIssue(const std::string& owner, const std::string& repo,
                                int64_t number) const override;
    // Assignees must be numeric user ids.
    ForgeResult<Issue> createIssue(const std::string& owner, const std::string& repo,
                                   const NewIssue& issue) const override;
    ForgeResult<Issue> updateIssue(const std::string& owner, const std::string& repo,
                                   int64_t number, const IssueChanges& changes) const override;
    ForgeStatus addIssueComment(const std::string& owner, const std::string& repo, int64_t number,
                                const std::string& body) const override;
    ForgeStatus addIssueLabels(const std::string& owner, const std::string& repo, int64_t number,
                               const std::vector<std::string>& labels) const override;
    ForgeResult<std::vector<PullRequest>> listPullRequests(const std::string& owner,
                                                           const std::string& repo,
                                                           const std::string& state, int page,
                                                           int per_page) const override;
    ForgeResult<PullRequest> getPullRequest(const std::string& owner, const std::string& repo,
                                            int64_t number) const override;
    // A draft gets GitLab's "Draft: " title prefix; reviewers must be
    // numeric user ids.
    ForgeResult<PullRequest> createPullRequest(const std::string& owner, const std::string& repo,
                                               const NewPullRequest& request) const override;
    // "squash" squashes; "merge" and "rebase" merge as the project is set
    // up to (GitLab chooses the merge method per project).
    ForgeStatus mergePullRequest(const std::string& owner, const std::string& repo,
                                 int64_t number, const std::string& method,
                                 const std::string& commit_title) const override;
    // Replaces the reviewers; numeric user ids.
    ForgeStatus addPullRequestReviewers(const std::string& owner, const std::string& repo,
                                        int64_t number,
                                        const std::vector<std::string>& reviewers) const override;
    ForgeResult<std::vector<WebhookConfig>> listWebhooks(const std::string& owner,
                                                         const std::string& repo) const override;
    ForgeResult<WebhookConfig> createWebhook(const std::string& owner, const std::string& repo,
                                             const WebhookConfig& hook) const override;
    ForgeStatus deleteWebhook(const std::string& owner, const std::string& repo,
                              int64_t id) const override;
    ForgeStatus cloneRepository(const std::string& url, const std::string& path,
                                const CloneOptions& options,
                                const ProgressCallback& progress) const override;
    ForgeStatus pullRepository(const std::string& path,
                               const ProgressCallback& progress) const override;
    ForgeStatus pushRepository(const std::string& path,
                               const ProgressCallback& progress) const override;
    ForgeResult<std::vector<Label>> listLabels(const std::string& owner,
                                               const std::string& repo) const override;
    ForgeResult<Label> createLabel(const std::string& owner, const std::string& repo,
                                   const Label& label) const override;
    std::string getCloneUrl(const std::string& owner, const std::string& repo) const override;
    // The token under the user name "oauth2".
    GitCredentials gitCredentials() const override;

private:
    // "/projects/<owner>%2F<repo>".
    static std::string projectPath(const std::string& owner, const std::string& repo);
};

}  // namespace vostra::git
