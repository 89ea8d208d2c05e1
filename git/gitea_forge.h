// The client of a Gitea server. Gitea follows GitHub's REST forms, so this
// is GitHubStyleForge with Gitea's differences: "limit" paging, its search,
// branch, commit, merge, file-creation, webhook and label forms.
// Thread safety as GitForge: initialize once, then use from any thread.
#pragma once

#include "git/github_forge.h"

namespace vostra::git {

class GiteaForge final : public GitHubStyleForge {
public:
    // Refuses a non-Gitea configuration: "Invalid forge type for Gitea".
    ForgeStatus initialize(const ForgeConfig& config) override;
    ForgeType getType() const override { return ForgeType::Gitea; }
    // Results come under "data" of "/repos/search".
    ForgeResult<std::vector<Repository>> searchRepositories(const std::string& query, int page,
                                                            int per_page) const override;
    ForgeResult<Branch> createBranch(const std::string& owner, const std::string& repo,
                                     const std::string& name,
                                     const std::string& from) const override;
    ForgeResult<Commit> getCommit(const std::string& owner, const std::string& repo,
                                  const std::string& sha) const override;
    ForgeStatus mergePullRequest(const std::string& owner, const std::string& repo,
                                 int64_t number, const std::string& method,
                                 const std::string& commit_title) const override;
    ForgeResult<WebhookConfig> createWebhook(const std::string& owner, const std::string& repo,
                                             const WebhookConfig& hook) const override;
    ForgeResult<Label> createLabel(const std::string& owner, const std::string& repo,
                                   const Label& label) const override;
    // The token under the user name "oauth2".
    GitCredentials gitCredentials() const override;

protected:
    // "page=<page>&limit=<n>".
    std::string pageQuery(int page, int per_page) const override;
};

}  // namespace vostra::git
