// Makes the client that speaks a forge's REST dialect: GitHubForge,
// GitLabForge or GiteaForge. No client exists for Bitbucket. Stateless;
// thread-safe.
#pragma once

#include <memory>
#include <string>

#include "git/git_forge.h"

namespace vostra::git {

class GitForgeFactory {
public:
    // A new, uninitialised client of `type`; nullptr for Bitbucket and
    // Unknown.
    static std::unique_ptr<GitForge> create(ForgeType type);

    // A new client initialised with `config`; nullptr when there is no
    // client for its type or initialize refuses it.
    static std::unique_ptr<GitForge> create(const ForgeConfig& config);

    // The forge type of a repository URL ("https://host/...", "ssh://...",
    // "git@host:..."), judged by its host name alone: a host containing
    // "github" is GitHub, one containing "gitlab" is GitLab, and any other
    // host is taken for Gitea, since self-hosted Gitea servers carry no
    // telling name. Unknown when the URL has no host.
    static ForgeType typeFromUrl(const std::string& url);

    // A client without credentials (enough for public repositories) for
    // the forge serving `url`: type by typeFromUrl, web address
    // "https://<host>" (or the URL's own http(s) scheme, host and port).
    // nullptr when the URL has no host.
    static std::unique_ptr<GitForge> createFromUrl(const std::string& url);
};

}  // namespace vostra::git
