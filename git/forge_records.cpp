#include "git/forge_records.h"

#include <array>
#include <charconv>
#include <utility>

#include "common/base64.h"
#include "common/json_fields.h"

namespace vostra::git {

using nlohmann::json;

namespace {

constexpr std::array<std::pair<ForgeType, std::string_view>, 5> kTypeNames{{
    {ForgeType::Gitea, "gitea"},
    {ForgeType::GitLab, "gitlab"},
    {ForgeType::GitHub, "github"},
    {ForgeType::Bitbucket, "bitbucket"},
    {ForgeType::Unknown, "unknown"},
}};

// nlohmann converts a boolean to a number without complaint; a timeout of
// `true` is a mistake worth refusing, with the library's own message.
void readNumberField(const json& object, const char* key, int& field) {
    auto it = object.find(key);
    if (it == object.end()) return;
    if (!it->is_number())
        throw json::type_error::create(
            302, std::string("type must be number, but is ") + it->type_name(), &*it);
    field = it->get<int>();
}

// Forge answers are full of nulls ("body": null) and differ between
// versions, so a key of another type is treated as absent rather than
// failing the whole answer.
void take(const json& object, const char* key, std::string& field) {
    auto it = object.find(key);
    if (it != object.end() && it->is_string()) field = it->get<std::string>();
}
void take(const json& object, const char* key, int64_t& field) {
    auto it = object.find(key);
    if (it != object.end() && it->is_number()) field = it->get<int64_t>();
}
void take(const json& object, const char* key, bool& field) {
    auto it = object.find(key);
    if (it != object.end() && it->is_boolean()) field = it->get<bool>();
}

const json& member(const json& object, const char* key) {
    static const json kNull;
    auto it = object.find(key);
    return it == object.end() ? kNull : *it;
}

// A login from a user object ("login", or "username" on Gitea and GitLab)
// or a plain name.
std::string loginOf(const json& user) {
    if (user.is_string()) return user.get<std::string>();
    std::string login;
    take(user, "username", login);
    take(user, "login", login);
    return login;
}

// Names from a list of strings or of objects carrying `key`.
std::vector<std::string> namesOf(const json& list, const char* key) {
    std::vector<std::string> names;
    if (!list.is_array()) return names;
    for (const json& item : list) {
        if (item.is_string()) {
            names.push_back(item.get<std::string>());
        } else if (std::string name; take(item, key, name), !name.empty()) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

std::vector<std::string> loginsOf(const json& list) {
    std::vector<std::string> logins;
    if (!list.is_array()) return logins;
    for (const json& user : list)
        if (std::string login = loginOf(user); !login.empty()) logins.push_back(std::move(login));
    return logins;
}

}  // namespace

std::string answerText(const json& answer, const char* key, const char* inner) {
    if (!answer.is_object()) return {};
    auto it = answer.find(key);
    if (it == answer.end()) return {};
    if (inner) return answerText(*it, inner);
    return it->is_string() ? it->get<std::string>() : std::string();
}

json answerList(const json& answer, const char* key) {
    if (!answer.is_object()) return json::array();
    auto it = answer.find(key);
    return it != answer.end() && it->is_array() ? *it : json::array();
}

int64_t answerNumber(const json& answer, const char* key) {
    if (!answer.is_object()) return 0;
    auto it = answer.find(key);
    if (it == answer.end()) return 0;
    if (it->is_number()) return it->get<int64_t>();
    // GitLab sends some counts as text ("changes_count": "12").
    if (it->is_string()) {
        const std::string& text = it->get_ref<const std::string&>();
        int64_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() ? value : 0;
    }
    return 0;
}

bool answerFlag(const json& answer, const char* key) {
    if (!answer.is_object()) return false;
    auto it = answer.find(key);
    return it != answer.end() && it->is_boolean() && it->get<bool>();
}

ForgeType forgeTypeFromName(std::string_view name) {
    for (const auto& [type, text] : kTypeNames)
        if (text == name) return type;
    return ForgeType::Unknown;
}

std::string forgeTypeName(ForgeType type) {
    for (const auto& [known, text] : kTypeNames)
        if (known == type) return std::string(text);
    return "unknown";
}

ForgeAuth ForgeAuth::fromJson(const json& j) {
    ForgeAuth auth;
    readField(j, "type", auth.type);
    readField(j, "token", auth.token);
    readField(j, "username", auth.username);
    readField(j, "password", auth.password);
    readField(j, "ssh_key_path", auth.ssh_key_path);
    readField(j, "ssh_passphrase", auth.ssh_passphrase);
    readField(j, "oauth_client_id", auth.oauth_client_id);
    readField(j, "oauth_client_secret", auth.oauth_client_secret);
    readField(j, "oauth_refresh_token", auth.oauth_refresh_token);
    return auth;
}

json ForgeAuth::toJson() const {
    json j = {{"type", type}};
    if ((type == "token" || type == "basic") && !username.empty()) j["username"] = username;
    if (type == "ssh" && !ssh_key_path.empty()) j["ssh_key_path"] = ssh_key_path;
    if (type == "oauth" && !oauth_client_id.empty()) j["oauth_client_id"] = oauth_client_id;
    return j;
}

json ForgeAuth::toStoredJson() const {
    json j = {{"type", type}};
    const std::pair<const char*, const std::string*> fields[] = {
        {"token", &token},
        {"username", &username},
        {"password", &password},
        {"ssh_key_path", &ssh_key_path},
        {"ssh_passphrase", &ssh_passphrase},
        {"oauth_client_id", &oauth_client_id},
        {"oauth_client_secret", &oauth_client_secret},
        {"oauth_refresh_token", &oauth_refresh_token},
    };
    for (const auto& [key, value] : fields)
        if (!value->empty()) j[key] = *value;
    return j;
}

ForgeConfig ForgeConfig::fromJson(const json& j) {
    ForgeConfig config;
    readField(j, "id", config.id);
    readField(j, "name", config.name);
    if (auto it = j.find("type"); it != j.end())
        config.type = forgeTypeFromName(it->get<std::string>());
    readField(j, "url", config.url);
    readField(j, "api_url", config.api_url);
    readField(j, "alias", config.alias);
    if (auto it = j.find("auth"); it != j.end()) config.auth = ForgeAuth::fromJson(*it);
    readField(j, "default_protocol", config.default_protocol);
    readField(j, "verify_ssl", config.verify_ssl);
    readNumberField(j, "timeout_seconds", config.timeout_seconds);
    readField(j, "labels", config.labels);
    return config;
}

json ForgeConfig::toJson() const {
    json j = {
        {"id", id},
        {"name", name},
        {"type", forgeTypeName(type)},
        {"url", url},
        {"api_url", api_url},
        {"alias", alias},
        {"auth", auth.toJson()},
        {"default_protocol", default_protocol},
        {"verify_ssl", verify_ssl},
        {"timeout_seconds", timeout_seconds},
    };
    if (!labels.is_null()) j["labels"] = labels;
    return j;
}

json ForgeConfig::toStoredJson() const {
    json j = toJson();
    j["auth"] = auth.toStoredJson();
    return j;
}

RepoOwner RepoOwner::fromJson(const json& j) {
    RepoOwner owner;
    take(j, "id", owner.id);
    owner.login = loginOf(j);
    take(j, "name", owner.name);
    take(j, "email", owner.email);
    take(j, "type", owner.type);
    take(j, "avatar_url", owner.avatar_url);
    take(j, "html_url", owner.html_url);
    return owner;
}

json RepoOwner::toJson() const {
    return {{"id", id},       {"login", login},           {"name", name},        {"email", email},
            {"type", type},   {"avatar_url", avatar_url}, {"html_url", html_url}};
}

Repository Repository::fromJson(const json& j) {
    Repository repo;
    take(j, "id", repo.id);
    take(j, "name", repo.name);
    take(j, "full_name", repo.full_name);
    if (const json& owner = member(j, "owner"); owner.is_object())
        repo.owner = RepoOwner::fromJson(owner);
    take(j, "description", repo.description);
    take(j, "private", repo.is_private);
    take(j, "fork", repo.fork);
    take(j, "archived", repo.archived);
    take(j, "visibility", repo.visibility);
    take(j, "html_url", repo.html_url);
    take(j, "clone_url", repo.clone_url);
    take(j, "ssh_url", repo.ssh_url);
    take(j, "default_branch", repo.default_branch);
    take(j, "stars_count", repo.stargazers_count);
    take(j, "stargazers_count", repo.stargazers_count);
    take(j, "forks_count", repo.forks_count);
    take(j, "open_issues_count", repo.open_issues_count);
    repo.topics = namesOf(member(j, "topics"), "name");
    return repo;
}

json Repository::toJson() const {
    return {{"id", id},
            {"name", name},
            {"full_name", full_name},
            {"owner", owner.toJson()},
            {"description", description},
            {"private", is_private},
            {"fork", fork},
            {"archived", archived},
            {"visibility", visibility},
            {"html_url", html_url},
            {"clone_url", clone_url},
            {"ssh_url", ssh_url},
            {"default_branch", default_branch},
            {"stargazers_count", stargazers_count},
            {"forks_count", forks_count},
            {"open_issues_count", open_issues_count},
            {"topics", topics}};
}

Issue Issue::fromJson(const json& j) {
    Issue issue;
    take(j, "number", issue.number);
    take(j, "title", issue.title);
    take(j, "body", issue.body);
    take(j, "state", issue.state);
    take(j, "comments", issue.comments);
    issue.user = loginOf(member(j, "user"));
    issue.labels = namesOf(member(j, "labels"), "name");
    issue.assignees = loginsOf(member(j, "assignees"));
    take(j, "html_url", issue.html_url);
    take(j, "created_at", issue.created_at);
    take(j, "updated_at", issue.updated_at);
    return issue;
}

json Issue::toJson() const {
    return {{"number", number},     {"title", title},         {"body", body},
            {"state", state},       {"comments", comments},   {"user", user},
            {"labels", labels},     {"assignees", assignees}, {"html_url", html_url},
            {"created_at", created_at}, {"updated_at", updated_at}};
}

PullRequest PullRequest::fromJson(const json& j) {
    PullRequest pr;
    static_cast<Issue&>(pr) = Issue::fromJson(j);
    take(j, "mergeable", pr.mergeable);
    take(j, "merged", pr.merged);
    take(j, "draft", pr.draft);
    take(j, "diff_url", pr.diff_url);
    take(j, "changed_files", pr.changed_files);
    take(member(j, "head"), "ref", pr.head_ref);
    take(member(j, "head"), "sha", pr.head_sha);
    take(member(j, "base"), "ref", pr.base_ref);
    take(member(j, "base"), "sha", pr.base_sha);
    return pr;
}

json PullRequest::toJson() const {
    json j = Issue::toJson();
    j["mergeable"] = mergeable;
    j["merged"] = merged;
    j["draft"] = draft;
    j["diff_url"] = diff_url;
    j["changed_files"] = changed_files;
    j["head"] = {{"ref", head_ref}, {"sha", head_sha}};
    j["base"] = {{"ref", base_ref}, {"sha", base_sha}};
    return j;
}

Commit Commit::fromJson(const json& j) {
    Commit commit;
    take(j, "sha", commit.sha);
    take(j, "html_url", commit.html_url);
    const json& details = member(j, "commit");
    take(details, "message", commit.message);
    take(member(details, "author"), "name", commit.author_name);
    take(member(details, "author"), "email", commit.author_email);
    take(member(details, "author"), "date", commit.author_date);
    take(member(details, "committer"), "name", commit.committer_name);
    take(member(details, "committer"), "email", commit.committer_email);
    take(member(j, "stats"), "additions", commit.additions);
    take(member(j, "stats"), "deletions", commit.deletions);
    commit.files = namesOf(member(j, "files"), "filename");
    return commit;
}

json Commit::toJson() const {
    json files_json = json::array();
    for (const std::string& file : files) files_json.push_back({{"filename", file}});
    return {{"sha", sha},
            {"html_url", html_url},
            {"commit",
             {{"message", message},
              {"author", {{"name", author_name}, {"email", author_email}, {"date", author_date}}},
              {"committer", {{"name", committer_name}, {"email", committer_email}}}}},
            {"stats", {{"additions", additions}, {"deletions", deletions}}},
            {"files", files_json}};
}

Branch Branch::fromJson(const json& j) {
    Branch branch;
    take(j, "name", branch.name);
    take(j, "protected", branch.is_protected);
    take(member(j, "commit"), "id", branch.commit_sha);
    take(member(j, "commit"), "sha", branch.commit_sha);
    return branch;
}

json Branch::toJson() const {
    return {{"name", name}, {"protected", is_protected}, {"commit", {{"sha", commit_sha}}}};
}

Label Label::fromJson(const json& j) {
    Label label;
    take(j, "name", label.name);
    take(j, "color", label.color);
    take(j, "description", label.description);
    return label;
}

json Label::toJson() const {
    return {{"name", name}, {"color", color}, {"description", description}};
}

std::optional<std::string> FileContent::decoded() const {
    if (encoding != "base64") return content;
    std::string bytes = content;
    if (!decodeBase64InPlace(bytes)) return std::nullopt;
    return bytes;
}

FileContent FileContent::fromJson(const json& j) {
    FileContent file;
    take(j, "type", file.type);
    take(j, "name", file.name);
    take(j, "path", file.path);
    take(j, "sha", file.sha);
    take(j, "size", file.size);
    take(j, "encoding", file.encoding);
    take(j, "content", file.content);
    take(j, "download_url", file.download_url);
    return file;
}

json FileContent::toJson() const {
    return {{"type", type},         {"name", name},         {"path", path},
            {"sha", sha},           {"size", size},         {"encoding", encoding},
            {"content", content},   {"download_url", download_url}};
}

std::vector<std::string> WebhookConfig::defaultEvents() {
    return {"push", "pull_request", "issues", "issue_comment", "create", "delete", "release"};
}

WebhookConfig WebhookConfig::fromJson(const json& j) {
    WebhookConfig hook;
    take(j, "id", hook.id);
    const json& config = member(j, "config");
    take(config, "url", hook.url);
    take(config, "content_type", hook.content_type);
    take(config, "secret", hook.secret);
    hook.events = namesOf(member(j, "events"), "name");
    take(j, "active", hook.active);
    return hook;
}

json WebhookConfig::toJson() const {
    return {{"id", id},
            {"config", {{"url", url}, {"content_type", content_type}}},
            {"events", events},
            {"active", active}};
}

WebhookEvent WebhookEvent::fromJson(const std::string& event, const json& payload) {
    WebhookEvent delivery;
    delivery.event = event;
    take(payload, "action", delivery.action);
    take(payload, "ref", delivery.ref);
    take(member(payload, "repository"), "full_name", delivery.repository);
    delivery.sender = loginOf(member(payload, "sender"));
    delivery.payload = payload;
    return delivery;
}

json WebhookEvent::toJson() const {
    return {{"event", event},           {"action", action}, {"ref", ref},
            {"repository", repository}, {"sender", sender}, {"payload", payload}};
}

}  // namespace vostra::git
