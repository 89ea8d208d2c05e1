#include "git/gitea_forge.h"

namespace vostra::git {

using nlohmann::json;

ForgeStatus GiteaForge::initialize(const ForgeConfig& config) {
    return adopt(config, ForgeType::Gitea, "Gitea");
}

GitCredentials GiteaForge::gitCredentials() const {
    return tokenCredentials(kOAuthGitUser);
}

std::string GiteaForge::pageQuery(int page, int per_page) const {
    return "page=" + std::to_string(page) + "&limit=" + std::to_string(per_page);
}

ForgeResult<std::vector<Repository>> GiteaForge::searchRepositories(const std::string& query,
                                                                    int page,
                                                                    int per_page) const {
    auto answer =
        makeRequest("GET", "/repos/search?q=" + encode(query) + "&" + pageQuery(page, per_page));
    if (answer) answer.value = answerList(answer.value, "data");
    return listOf<Repository>(answer, Repository::fromJson);
}

ForgeResult<Branch> GiteaForge::createBranch(const std::string& owner, const std::string& repo,
                                             const std::string& name,
                                             const std::string& from) const {
    const json body = {{"new_branch_name", name}, {"old_ref_name", from}};
    return recordOf<Branch>(makeRequest("POST", repoPath(owner, repo) + "/branches", body),
                            Branch::fromJson);
}

ForgeResult<Commit> GiteaForge::getCommit(const std::string& owner, const std::string& repo,
                                          const std::string& sha) const {
    return recordOf<Commit>(
        makeRequest("GET", repoPath(owner, repo) + "/git/commits/" + encode(sha)),
        Commit::fromJson);
}

ForgeStatus GiteaForge::mergePullRequest(const std::string& owner, const std::string& repo,
                                         int64_t number, const std::string& method,
                                         const std::string& commit_title) const {
    if (!isMergeMethod(method)) return ForgeStatus::failure(kInvalidMergeMethod + method);
    json body = {{"Do", method}};
    if (!commit_title.empty()) body["MergeTitleField"] = commit_title;
    return statusOf(
        makeRequest("PUT", numbered(owner, repo, "/pulls/", number) + "/merge", body));
}

ForgeResult<WebhookConfig> GiteaForge::createWebhook(const std::string& owner,
                                                     const std::string& repo,
                                                     const WebhookConfig& hook) const {
    const json body = {
        {"type", "gitea"},
        {"active", hook.active},
        {"events", hook.events.empty() ? WebhookConfig::defaultEvents() : hook.events},
        {"config", {{"url", hook.url}, {"content_type", "json"}, {"secret", hook.secret}}}};
    return recordOf<WebhookConfig>(makeRequest("POST", repoPath(owner, repo) + "/hooks", body),
                                   WebhookConfig::fromJson);
}

ForgeResult<Label> GiteaForge::createLabel(const std::string& owner, const std::string& repo,
                                           const Label& label) const {
    // Gitea wants the colour with its "#".
    const std::string color = label.color.starts_with('#') ? label.color : "#" + label.color;
    const json body = {{"name", label.name}, {"color", color}, {"description", label.description}};
    return recordOf<Label>(makeRequest("POST", repoPath(owner, repo) + "/labels", body),
                           Label::fromJson);
}

}  // namespace vostra::git
