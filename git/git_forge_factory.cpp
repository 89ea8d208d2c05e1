#include "git/git_forge_factory.h"

#include "git/gitea_forge.h"
#include "git/github_forge.h"
#include "git/gitlab_forge.h"

namespace vostra::git {

std::unique_ptr<GitForge> GitForgeFactory::create(ForgeType type) {
    switch (type) {
        case ForgeType::GitHub: return std::make_unique<GitHubForge>();
        case ForgeType::GitLab: return std::make_unique<GitLabForge>();
        case ForgeType::Gitea: return std::make_unique<GiteaForge>();
        default: return nullptr;
    }
}

std::unique_ptr<GitForge> GitForgeFactory::create(const ForgeConfig& config) {
    std::unique_ptr<GitForge> forge = create(config.type);
    if (!forge || !forge->initialize(config)) return nullptr;
    return forge;
}

ForgeType GitForgeFactory::typeFromUrl(const std::string& url) {
    const std::string host = urlHost(url);
    if (host.empty()) return ForgeType::Unknown;
    if (host.find("github") != std::string::npos) return ForgeType::GitHub;
    if (host.find("gitlab") != std::string::npos) return ForgeType::GitLab;
    return ForgeType::Gitea;
}

std::unique_ptr<GitForge> GitForgeFactory::createFromUrl(const std::string& url) {
    ForgeConfig config;
    config.type = typeFromUrl(url);
    if (config.type == ForgeType::Unknown) return nullptr;
    const std::string web = stripUrlCredentials(url);
    if (web.starts_with("https://") || web.starts_with("http://")) {
        const std::size_t authority = web.find("://") + 3;
        config.url = web.substr(0, web.find_first_of("/?#", authority));
    } else {
        config.url = "https://" + urlHost(url);
    }
    config.id = config.alias = urlHost(url);
    return create(config);
}

}  // namespace vostra::git
