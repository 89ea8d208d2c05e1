// The forges the daemon is configured with, each with its client, found by
// id, by alias, or by a repository's URL or short name. The daemon owns one
// manager; the forge routes, the repository storage and clones use it.
//
// Thread-safe: one mutex guards the table, and clients are handed out as
// shared pointers, so a forge removed while a request is using it lives
// until that request ends. No lock is held during a forge's requests.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/status.h"
#include "git/git_forge.h"

namespace vostra::git {

// A repository named through a configured forge.
struct ResolvedRepo {
    std::shared_ptr<GitForge> forge;
    std::string owner;  // may hold several segments (GitLab subgroups)
    std::string repo;
};

class GitForgeManager {
public:
    GitForgeManager() = default;
    GitForgeManager(const GitForgeManager&) = delete;
    GitForgeManager& operator=(const GitForgeManager&) = delete;

    // Adds a forge and its client. An empty "id" takes the alias, an empty
    // "alias" the id. False, with the reason on stderr, when both are
    // empty, when the id or alias equals any present forge's id or alias,
    // when there is no client for the type, or when initialize refuses.
    bool addForge(const ForgeConfig& config);

    // Removes the forge with this id or alias; false when there is none.
    // Clears the default when it was the default.
    bool removeForge(const std::string& id_or_alias);

    // The client with this id (or, failing that, this alias); nullptr when
    // there is none.
    std::shared_ptr<GitForge> getForge(const std::string& id) const;
    std::shared_ptr<GitForge> getForgeByAlias(const std::string& alias) const;

    // The forge set with setDefaultForge, or else the first one added;
    // nullptr when there are none.
    std::shared_ptr<GitForge> getDefaultForge() const;
    // False when no forge has this id or alias.
    bool setDefaultForge(const std::string& id);
    // The id of the default forge; empty when none was set.
    std::string defaultForgeId() const;

    // The configurations in the order the forges were added, secrets
    // included: answer with ForgeConfig::toJson.
    std::vector<ForgeConfig> listForges() const;

    // A repository from any of these forms (a trailing ".git" is dropped):
    //   "alias:owner/repo" or "alias/owner/repo"  (GitForge::parseShortUrl;
    //                                              the id serves as alias too)
    //   "https://host/owner/repo", "ssh://git@host/owner/repo",
    //   "git@host:owner/repo"                     (host of a forge's "url")
    // For a GitLab forge every segment before the last is the owner and
    // the path ends at "/-/"; for the others the owner and repository are
    // the first two segments, so ".../owner/repo/tree/main" resolves too.
    // nullopt when no configured forge matches.
    std::optional<ResolvedRepo> resolveUrl(const std::string& text) const;

    // The forge whose "url" has the same host as `url`, for the credentials
    // of a clone; nullptr when none does.
    std::shared_ptr<GitForge> forgeForUrl(const std::string& url) const;

    // Replaces the table with the accounts file's forges (ForgesConfig). A
    // missing file is an empty table. False, with the table unchanged, for
    // a file that cannot be read; false, with the good forges loaded, when
    // some forge is refused as by addForge.
    bool loadConfig(const std::string& path);
    // Writes the table, tokens included, to the accounts file (mode 0600).
    Status saveConfig(const std::string& path) const;

private:
    struct Entry {
        ForgeConfig config;
        std::shared_ptr<GitForge> forge;
    };

    // Adds to `entries` as addForge promises; the reason in `why` when not.
    static bool addEntry(std::vector<Entry>& entries, ForgeConfig config, std::string& why);
    const Entry* findLocked(const std::string& id_or_alias) const;

    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    std::string default_id_;
};

}  // namespace vostra::git
