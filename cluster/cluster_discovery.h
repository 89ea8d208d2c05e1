// What the cluster offers beyond this worker: the lists of workers, embedding
// providers and models that the controller publishes at
// GET <controller>/api/v1/cluster/resources. Owned by DataDaemon, refreshed
// after every heartbeat period; the lists are kept as the controller sent them.
// Thread-safety: every method may be called from any thread.
#pragma once

#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::discovery {

class ClusterDiscovery {
public:
    // The list keys of the controller's answer, in the order they are reported.
    static const std::vector<std::string>& resourceKeys();

    // Points discovery at a controller; sync() does nothing before this.
    void configure(const std::string& controller_url, int heartbeat_interval_ms);
    bool isConfigured() const;
    // At least one sync succeeded.
    bool isSynced() const;

    // Fetches the resource lists. False (keeping the previous lists) when the
    // controller cannot be reached or answers something other than an object.
    bool sync();

    // The URL of the embedding provider to use: the first one marked online
    // or healthy, else the first one with a URL; empty when none is known.
    std::string getBestEmbeddingUrl() const;
    // Model names the provider at `url` offers, in its order; empty if unknown.
    std::vector<std::string> getEmbeddingModels(const std::string& url) const;

    // {"<key>": [...]} for every resource key; empty arrays before a sync.
    nlohmann::json getResources() const;

private:
    mutable std::mutex mutex_;
    std::string controller_url_;
    int heartbeat_interval_ms_ = 0;
    bool synced_ = false;
    nlohmann::json resources_ = nlohmann::json::object();
};

}  // namespace vostra::discovery
