// The records of the forge clients: how a configured forge and its
// credentials are described, and the repositories, issues, pull requests,
// commits, branches, labels, files and webhooks the forges answer with.
//
// fromJson reads the answer shape that GitHub documents (Gitea answers in
// the same shape; the GitLab client translates its own), assigning only
// keys that are present; toJson writes the same keys back, so a record
// read from toJson's output is the record again. Plain values owned by the
// caller; thread-safe to copy.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vostra::git {

// Reading forge answers, which lack keys or hold nulls as versions
// differ, without ever throwing. The text at answer[key] (or at
// answer[key][inner]), the list at answer[key], the number there (a JSON
// number or decimal text), the boolean there; empty, 0 or false when
// absent or of another type.
std::string answerText(const nlohmann::json& answer, const char* key, const char* inner = nullptr);
nlohmann::json answerList(const nlohmann::json& answer, const char* key);
int64_t answerNumber(const nlohmann::json& answer, const char* key);
bool answerFlag(const nlohmann::json& answer, const char* key);

// The numbers are those the configuration and the API report.
enum class ForgeType { Gitea = 0, GitLab = 1, GitHub = 2, Bitbucket = 3, Unknown = 4 };

// "gitea", "gitlab", "github", "bitbucket"; any other text, including the
// same words capitalised, is Unknown.
ForgeType forgeTypeFromName(std::string_view name);
// The lower-case name above; "unknown" for Unknown.
std::string forgeTypeName(ForgeType type);

// How the daemon signs in to a forge. The token, password, passphrase and
// OAuth secrets never leave the process except through toStoredJson.
struct ForgeAuth {
    std::string type = "none";  // "none", "token", "oauth", "ssh" or "basic"
    std::string token;
    std::string username;
    std::string password;
    std::string ssh_key_path;
    std::string ssh_passphrase;
    std::string oauth_client_id;
    std::string oauth_client_secret;
    std::string oauth_refresh_token;

    // Throws nlohmann's type_error for a present key of the wrong type.
    static ForgeAuth fromJson(const nlohmann::json& json);
    // "type" and, by type, only the non-secret companions: "username" for
    // token and basic, "ssh_key_path" for ssh, "oauth_client_id" for oauth.
    nlohmann::json toJson() const;
    // Every non-empty key, secrets included: only for the accounts file,
    // which is written with mode 0600.
    nlohmann::json toStoredJson() const;
};

// One configured forge.
struct ForgeConfig {
    std::string id;
    std::string name;
    ForgeType type = ForgeType::Unknown;
    std::string url;      // the web address, e.g. "https://gitlab.example.com"
    std::string api_url;  // overrides the API base derived from `url`
    std::string alias;    // short name for routes and "alias:owner/repo"
    ForgeAuth auth;
    std::string default_protocol = "https";  // or "ssh"
    bool verify_ssl = true;
    int timeout_seconds = 30;  // total time of one request
    nlohmann::json labels;     // an object or list, carried through untouched

    // Throws nlohmann's type_error for a present key of the wrong type:
    // "type must be number, but is ..." / "type must be boolean, but is ...".
    static ForgeConfig fromJson(const nlohmann::json& json);
    // The public form: auth through ForgeAuth::toJson, no secrets.
    nlohmann::json toJson() const;
    // The form kept in the accounts file, secrets included.
    nlohmann::json toStoredJson() const;
};

// A user or organisation; also the answer of getCurrentUser.
struct RepoOwner {
    int64_t id = 0;
    std::string login;
    std::string name;
    std::string email;
    std::string type;  // "User" or "Organization" where the forge says
    std::string avatar_url;
    std::string html_url;

    // Also reads Gitea's and GitLab's "username" when "login" is absent.
    static RepoOwner fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct Repository {
    int64_t id = 0;
    std::string name;
    std::string full_name;  // "owner/name"; GitLab's path with namespace
    RepoOwner owner;
    std::string description;
    bool is_private = false;  // key "private"
    bool fork = false;
    bool archived = false;
    std::string visibility;
    std::string html_url;
    std::string clone_url;
    std::string ssh_url;
    std::string default_branch;
    int64_t stargazers_count = 0;  // Gitea's "stars_count" is read too
    int64_t forks_count = 0;
    int64_t open_issues_count = 0;
    std::vector<std::string> topics;

    static Repository fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct Issue {
    int64_t number = 0;
    std::string title;
    std::string body;
    std::string state;  // "open" or "closed"
    int64_t comments = 0;
    std::string user;  // the author's login
    std::vector<std::string> labels;
    std::vector<std::string> assignees;  // logins
    std::string html_url;
    std::string created_at;
    std::string updated_at;

    // "user" and "assignees" may be user objects or logins, "labels" label
    // objects or names.
    static Issue fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct PullRequest : Issue {
    bool mergeable = false;  // false also while the forge has not decided
    bool merged = false;
    bool draft = false;
    std::string diff_url;
    int64_t changed_files = 0;
    std::string head_ref;  // "head": {"ref", "sha"}
    std::string head_sha;
    std::string base_ref;  // "base": {"ref", "sha"}
    std::string base_sha;

    static PullRequest fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct Commit {
    std::string sha;
    std::string html_url;
    std::string message;  // under "commit"
    std::string author_name;
    std::string author_email;
    std::string author_date;
    std::string committer_name;
    std::string committer_email;
    int64_t additions = 0;  // under "stats"
    int64_t deletions = 0;
    std::vector<std::string> files;  // changed file names

    static Commit fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct Branch {
    std::string name;
    bool is_protected = false;  // key "protected"
    std::string commit_sha;     // "commit": {"sha"} (Gitea: {"id"})

    static Branch fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct Label {
    std::string name;
    std::string color;  // six hex digits, with or without "#" as the forge wants
    std::string description;

    static Label fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

// A file or folder entry. `content` is kept as the forge sent it (base64
// when `encoding` is "base64"), so the record stays valid JSON text for
// binary files; decoded() gives the bytes.
struct FileContent {
    std::string type;  // "file" or "dir"
    std::string name;
    std::string path;
    std::string sha;
    int64_t size = 0;
    std::string encoding;
    std::string content;
    std::string download_url;

    // The file's bytes; nullopt when base64 content does not decode.
    std::optional<std::string> decoded() const;

    static FileContent fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct WebhookConfig {
    int64_t id = 0;
    std::string url;  // "config": {"url", "content_type", "secret"}
    std::string content_type = "json";
    std::string secret;  // sent when creating; never written by toJson
    std::vector<std::string> events;
    bool active = true;

    // The events a new webhook listens to when none are named.
    static std::vector<std::string> defaultEvents();

    static WebhookConfig fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

// A delivery received from a forge's webhook. The event name travels in a
// header ("X-GitHub-Event", "X-Gitea-Event", "X-Gitlab-Event"), so the
// caller fills `event`; the rest comes from the payload.
struct WebhookEvent {
    std::string event;
    std::string action;      // "opened", "closed", ... when the event has one
    std::string ref;         // for pushes: "refs/heads/<branch>"
    std::string repository;  // "owner/name"
    std::string sender;      // login
    nlohmann::json payload;  // the whole delivery

    static WebhookEvent fromJson(const std::string& event, const nlohmann::json& payload);
    nlohmann::json toJson() const;
};

}  // namespace vostra::git
