#include "git/git_forge_manager.h"

#include <algorithm>

#include "common/log.h"
#include "git/forges_config.h"
#include "git/git_forge_factory.h"

namespace vostra::git {

namespace {

constexpr vostra::Log kLog("[GitForge] ");

// The path of a URL after its host: "/owner/repo" of
// "https://host:8443/owner/repo?tab=1" and of "git@host:owner/repo".
std::string urlPath(const std::string& url) {
    std::string path;
    if (const std::size_t scheme = url.find("://"); scheme != std::string::npos) {
        const std::size_t start = url.find('/', scheme + 3);
        if (start != std::string::npos) path = url.substr(start);
    } else if (const std::size_t colon = url.find(':'); colon != std::string::npos) {
        path = "/" + url.substr(colon + 1);
    }
    return path.substr(0, path.find_first_of("?#"));
}

std::vector<std::string> segmentsOf(const std::string& path) {
    std::vector<std::string> segments;
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) segments.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return segments;
}

std::string joinedSegments(const std::vector<std::string>& segments, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += (i ? "/" : "") + segments[i];
    return text;
}

}  // namespace

bool GitForgeManager::addEntry(std::vector<Entry>& entries, ForgeConfig config,
                               std::string& why) {
    if (config.id.empty()) config.id = config.alias;
    if (config.alias.empty()) config.alias = config.id;
    if (config.id.empty()) {
        why = "Forge has neither id nor alias";
        return false;
    }
    for (const Entry& entry : entries) {
        for (const std::string* name : {&config.id, &config.alias}) {
            if (*name == entry.config.id || *name == entry.config.alias) {
                why = "Forge name already in use: " + *name;
                return false;
            }
        }
    }
    std::unique_ptr<GitForge> forge = GitForgeFactory::create(config.type);
    if (!forge) {
        why = "Unsupported forge type: " + forgeTypeName(config.type);
        return false;
    }
    if (const ForgeStatus started = forge->initialize(config); !started) {
        why = started.error;
        return false;
    }
    entries.push_back({std::move(config), std::move(forge)});
    return true;
}

const GitForgeManager::Entry* GitForgeManager::findLocked(const std::string& id_or_alias) const {
    for (const Entry& entry : entries_)
        if (entry.config.id == id_or_alias) return &entry;
    for (const Entry& entry : entries_)
        if (entry.config.alias == id_or_alias) return &entry;
    return nullptr;
}

bool GitForgeManager::addForge(const ForgeConfig& config) {
    std::string why;
    bool added;
    {
        std::lock_guard lock(mutex_);
        added = addEntry(entries_, config, why);
    }
    if (!added) kLog.error("Refused forge ", config.id.empty() ? config.alias : config.id, ": ", why);
    return added;
}

bool GitForgeManager::removeForge(const std::string& id_or_alias) {
    std::shared_ptr<GitForge> removed;  // released after the lock
    std::lock_guard lock(mutex_);
    const Entry* entry = findLocked(id_or_alias);
    if (!entry) return false;
    if (entry->config.id == default_id_) default_id_.clear();
    removed = entry->forge;
    entries_.erase(entries_.begin() + (entry - entries_.data()));
    return true;
}

std::shared_ptr<GitForge> GitForgeManager::getForge(const std::string& id) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = findLocked(id);
    return entry ? entry->forge : nullptr;
}

std::shared_ptr<GitForge> GitForgeManager::getForgeByAlias(const std::string& alias) const {
    std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_)
        if (entry.config.alias == alias) return entry.forge;
    return nullptr;
}

std::shared_ptr<GitForge> GitForgeManager::getDefaultForge() const {
    std::lock_guard lock(mutex_);
    if (const Entry* entry = default_id_.empty() ? nullptr : findLocked(default_id_))
        return entry->forge;
    return entries_.empty() ? nullptr : entries_.front().forge;
}

bool GitForgeManager::setDefaultForge(const std::string& id) {
    std::lock_guard lock(mutex_);
    const Entry* entry = findLocked(id);
    if (!entry) return false;
    default_id_ = entry->config.id;
    return true;
}

std::string GitForgeManager::defaultForgeId() const {
    std::lock_guard lock(mutex_);
    return default_id_;
}

std::vector<ForgeConfig> GitForgeManager::listForges() const {
    std::lock_guard lock(mutex_);
    std::vector<ForgeConfig> configs;
    configs.reserve(entries_.size());
    for (const Entry& entry : entries_) configs.push_back(entry.config);
    return configs;
}

std::optional<ResolvedRepo> GitForgeManager::resolveUrl(const std::string& text) const {
    if (const std::optional<ShortRepoName> name = GitForge::parseShortUrl(text)) {
        if (std::shared_ptr<GitForge> forge = getForge(name->alias))
            return ResolvedRepo{std::move(forge), name->owner, name->repo};
    }
    // Not a short name of ours: "host:owner/repo" is git's own SSH form.
    std::shared_ptr<GitForge> forge = forgeForUrl(text);
    if (!forge) return std::nullopt;
    // Below the forge's own path, when it is served under one.
    std::vector<std::string> segments = segmentsOf(urlPath(text));
    const std::vector<std::string> base = segmentsOf(urlPath(forge->getConfig().url));
    if (segments.size() >= base.size() &&
        std::equal(base.begin(), base.end(), segments.begin()))
        segments.erase(segments.begin(), segments.begin() + base.size());

    std::size_t count = segments.size();
    if (forge->getType() == ForgeType::GitLab) {
        const auto marker = std::find(segments.begin(), segments.end(), "-");
        count = marker - segments.begin();
    } else {
        count = std::min<std::size_t>(count, 2);
    }
    if (count < 2) return std::nullopt;
    std::string repo = segments[count - 1];
    if (repo.size() > 4 && repo.ends_with(".git")) repo.resize(repo.size() - 4);
    return ResolvedRepo{std::move(forge), joinedSegments(segments, count - 1), repo};
}

std::shared_ptr<GitForge> GitForgeManager::forgeForUrl(const std::string& url) const {
    const std::string host = urlHost(url);
    if (host.empty()) return nullptr;
    std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_)
        if (urlHost(entry.config.url) == host) return entry.forge;
    return nullptr;
}

bool GitForgeManager::loadConfig(const std::string& path) {
    ForgesConfig file;
    const Status read = file.loadFromFile(path);
    if (!read && read.kind != ErrorKind::NotFound) {
        kLog.error(read.message);
        return false;
    }
    std::vector<Entry> entries;
    bool all_added = true;
    for (const ForgeConfig& config : file.forges) {
        std::string why;
        if (!addEntry(entries, config, why)) {
            kLog.error("Refused forge ", config.id.empty() ? config.alias : config.id, ": ", why);
            all_added = false;
        }
    }
    std::vector<Entry> replaced;  // released after the lock
    std::lock_guard lock(mutex_);
    replaced.swap(entries_);
    entries_ = std::move(entries);
    default_id_.clear();
    if (const Entry* entry = findLocked(file.default_forge_id)) default_id_ = entry->config.id;
    return all_added;
}

Status GitForgeManager::saveConfig(const std::string& path) const {
    ForgesConfig file;
    {
        std::lock_guard lock(mutex_);
        for (const Entry& entry : entries_) file.forges.push_back(entry.config);
        file.default_forge_id = default_id_;
    }
    return file.saveToFile(path);
}

}  // namespace vostra::git
