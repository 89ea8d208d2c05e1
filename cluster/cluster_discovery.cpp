#include "cluster/cluster_discovery.h"

#include "common/http_client.h"

namespace vostra::discovery {
namespace {

constexpr const char* kResourcesPath = "/api/v1/cluster/resources";

std::string textOf(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool looksAlive(const nlohmann::json& provider) {
    const std::string status = textOf(provider, "status");
    auto healthy = provider.find("healthy");
    return status == "online" || status == "healthy" ||
           (healthy != provider.end() && healthy->is_boolean() && healthy->get<bool>());
}

}  // namespace

const std::vector<std::string>& ClusterDiscovery::resourceKeys() {
    static const std::vector<std::string> kKeys = {
        "inference_workers", "cloud_workers",       "data_workers", "media_workers",
        "agent_workers",     "embedding_providers", "models"};
    return kKeys;
}

void ClusterDiscovery::configure(const std::string& controller_url, int heartbeat_interval_ms) {
    std::lock_guard lock(mutex_);
    controller_url_ = controller_url;
    heartbeat_interval_ms_ = heartbeat_interval_ms;
}

bool ClusterDiscovery::isConfigured() const {
    std::lock_guard lock(mutex_);
    return !controller_url_.empty();
}

bool ClusterDiscovery::isSynced() const {
    std::lock_guard lock(mutex_);
    return synced_;
}

bool ClusterDiscovery::sync() {
    std::string url;
    {
        std::lock_guard lock(mutex_);
        if (controller_url_.empty()) return false;
        url = controller_url_ + kResourcesPath;
    }
    // The fetch runs without the lock: readers keep the previous lists meanwhile.
    nlohmann::json answer;
    if (!vostra::httpGet(url, answer) || !answer.is_object()) return false;

    nlohmann::json fresh = nlohmann::json::object();
    for (const std::string& key : resourceKeys()) {
        auto it = answer.find(key);
        fresh[key] = it != answer.end() && it->is_array() ? *it : nlohmann::json::array();
    }
    std::lock_guard lock(mutex_);
    resources_ = std::move(fresh);
    synced_ = true;
    return true;
}

std::string ClusterDiscovery::getBestEmbeddingUrl() const {
    std::lock_guard lock(mutex_);
    auto providers = resources_.find("embedding_providers");
    if (providers == resources_.end()) return {};
    std::string fallback;
    for (const auto& provider : *providers) {
        if (!provider.is_object()) continue;
        const std::string url = textOf(provider, "url");
        if (url.empty()) continue;
        if (looksAlive(provider)) return url;
        if (fallback.empty()) fallback = url;
    }
    return fallback;
}

std::vector<std::string> ClusterDiscovery::getEmbeddingModels(const std::string& url) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    auto providers = resources_.find("embedding_providers");
    if (providers == resources_.end()) return names;
    for (const auto& provider : *providers) {
        if (!provider.is_object() || textOf(provider, "url") != url) continue;
        auto models = provider.find("models");
        if (models == provider.end() || !models->is_array()) break;
        for (const auto& model : *models) {
            if (model.is_string()) names.push_back(model.get<std::string>());
            else if (model.is_object() && !textOf(model, "name").empty())
                names.push_back(textOf(model, "name"));
        }
        break;
    }
    return names;
}

nlohmann::json ClusterDiscovery::getResources() const {
    std::lock_guard lock(mutex_);
    nlohmann::json out = nlohmann::json::object();
    for (const std::string& key : resourceKeys()) {
        auto it = resources_.find(key);
        out[key] = it != resources_.end() ? *it : nlohmann::json::array();
    }
    return out;
}

}  // namespace vostra::discovery
