// The client of GitHub (github.com or a GitHub Enterprise server), and the
// REST dialect it shares with Gitea: repositories live under
// "/repos/<owner>/<repo>", with the same paths and answer shapes below.
// Thread safety as GitForge: initialize once, then use from any thread.
#pragma once

#include "git/git_forge.h"

namespace vostra::git {

// Every operation in the "/repos/<owner>/<repo>" form. GitHubForge uses it
// as it stands; GiteaForge overrides the few operations Gitea does
// differently.
class GitHubStyleForge : public GitForge {
public:
    const ForgeConfig& getConfig() const override { return config_; }
    ForgeStatus testConnection() const override;
    ForgeResult<RepoOwner> getCurrentUser() const override;
    ForgeResult<std::vector<Repository>> listRepositories(int page, int per_page,
                                                          const std::string& type) const override;
    ForgeResult<std::vector<Repository>> searchRepositories(const std::string& query, int page,
                                                            int per_page) const override;
    ForgeResult<Repository> getRepository(const std::string& owner,
                                          const std::string& repo) const override;
    ForgeResult<Repository> createRepository(const std::string& name,
                                             const std::string& description, bool is_private,
                                             bool auto_init) const override;
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
    ForgeResult<FileContent> getFileContent(const std::string& owner, const std::string& repo,
                                            const std::string& path,
                                            const std::string& ref) const override;
    ForgeResult<std::vector<FileContent>> listDirectoryContents(
        const std::string& owner, const std::string& repo, const std::string& path,
        const std::string& ref) const override;
    ForgeStatus createOrUpdateFile(const std::string& owner, const std::string& repo,
                                   const FileChange& change) const override;
    ForgeStatus deleteFile(const std::string& owner, const std::string& repo,
                           const FileChange& change) const override;
    ForgeResult<std::vector<Issue>> listIssues(const std::string& owner, const std::string& repo,
                                               const std::string& state, int page,
                                               int per_page) const override;
    ForgeResult<Issue> getIssue(const std::string& owner, const std::string& repo,
                                int64_t number) const override;
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
    // The reviewers are requested right after creation; when that fails the
    // answer is a failure although the pull request exists.
    ForgeResult<PullRequest> createPullRequest(const std::string& owner, const std::string& repo,
                                               const NewPullRequest& request) const override;
    ForgeStatus mergePullRequest(const std::string& owner, const std::string& repo,
                                 int64_t number, const std::string& method,
                                 const std::string& commit_title) const override;
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

protected:
    // "/repos/<owner>/<repo>", each part encoded.
    static std::string repoPath(const std::string& owner, const std::string& repo);
    // The paging part of a query: "page=<page>&per_page=<n>".
    virtual std::string pageQuery(int page, int per_page) const;
    // `number` as a path segment of `what` ("/issues/", "/pulls/").
    static std::string numbered(const std::string& owner, const std::string& repo,
                                const char* what, int64_t number);
};

class GitHubForge final : public GitHubStyleForge {
public:
    // Refuses a non-GitHub configuration: "Invalid forge type for GitHub".
    ForgeStatus initialize(const ForgeConfig& config) override;
    ForgeType getType() const override { return ForgeType::GitHub; }
    // The token under the user name "x-access-token".
    GitCredentials gitCredentials() const override;
};

}  // namespace vostra::git
