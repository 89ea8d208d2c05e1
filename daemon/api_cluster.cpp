// Cluster membership: the bodies this worker sends the controller, the
// heartbeat and resource sync of the heartbeat loop, and the
// cluster-resources route.
#include <nlohmann/json.hpp>

#include "cluster/cluster_discovery.h"
#include "cluster/controller_client.h"
#include "common/json_fields.h"
#include "common/log.h"
#include "connectors/data_source_registry.h"
#include "daemon/command_line.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/identity.h"
#include "storage/storage_service.h"
#include "vector/embedding_config.h"
#include "vector/vector_storage_service.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");

}  // namespace

nlohmann::json DataDaemon::capabilities() const {
    nlohmann::json list = {"databases"};
    if (config_.storage_enabled) list.push_back("storage");
    if (config_.nfs_enabled) list.push_back("nfs");
    if (config_.agent_storage_enabled) list.push_back("agent-storage");
    return list;
}

nlohmann::json DataDaemon::registrationBody() const {
    return {
        {"daemon_id", daemon_id_},
        {"daemon_name", config_.daemon_name},
        {"node_type", "DataWorker"},
        {"worker_type", "data"},
        {"hostname", hostname_},
        {"ip_address", ip_address_},
        {"port", config_.port},
        {"machine_id", machine_id_},
        {"labels", config_.labels},
        {"storage_path", config_.storage_path},
        {"nfs_enabled", config_.nfs_enabled},
        {"nfs_port", config_.nfs_port},
        {"capabilities", capabilities()},
        {"storage_capacity_bytes", getStorageCapacityBytes(config_.storage_path)},
    };
}

nlohmann::json DataDaemon::heartbeatBody() const {
    const StorageService::Figures storage =
        storage_.with([](StorageService& s) { return s.figures(); }, StorageService::Figures{});
    const RegistryCounters& counters = registry_->counters();

    return {
        {"daemon_id", daemon_id_},
        {"daemon_name", config_.daemon_name},
        {"hostname", hostname_},
        {"status", running_.load() ? "online" : "offline"},
        {"version", kProgramVersion},
        {"sources", toJsonArray(registry_->listDataSources())},
        {"total_queries", counters.queries.load()},
        {"total_errors", counters.errors.load()},
        {"capabilities", capabilities()},
        {"storage_path", config_.storage_path},
        {"nfs_enabled", config_.nfs_enabled},
        {"nfs_port", config_.nfs_port},
        {"url", "http://" + ip_address_ + ":" + std::to_string(config_.port)},
        {"storage_capacity_bytes", getStorageCapacityBytes(config_.storage_path)},
        {"storage_used_bytes", static_cast<uint64_t>(std::max<int64_t>(0, storage.bytes_written))},
        {"tenant_count", storage.tenant_count},
    };
}

bool DataDaemon::registerWithController() {
    return controller_ && controller_->registerWorker(registrationBody());
}

bool DataDaemon::sendHeartbeat() {
    if (!controller_) return false;
    return controller_->heartbeat(daemon_id_, heartbeatBody(),
                                  [this] { return registrationBody(); });
}

void DataDaemon::deregisterFromController() {
    if (controller_) controller_->deregister(daemon_id_);
}

void DataDaemon::syncClusterResources() {
    if (!discovery_->isConfigured() || !discovery_->sync()) return;

    vector_.with(
        [&](VectorStorageService& vector) {
            EmbeddingConfig embedding = vector.getConfig().embedding;
            // Only a store still pointed at the built-in local address is
            // redirected; one an operator configured keeps its provider.
            if (!embedding.url.empty() && embedding.url != EmbeddingConfig{}.url) return;
            const std::string url = discovery_->getBestEmbeddingUrl();
            if (url.empty() || url == embedding.url) return;

            const std::vector<std::string> models = discovery_->getEmbeddingModels(url);
            embedding.url = url;
            embedding.model = models.empty() ? EmbeddingConfig{}.model : models.front();
            kLog.info("Auto-discovered embedding provider: ", url, " (model: ", embedding.model,
                      ")");
            // The store keeps its path and documents; only the provider changes.
            vector.updateEmbeddingConfig(embedding);
        },
        [] {});
}

void DataDaemon::handleClusterResources(const HttpRequest& request) {
    nlohmann::json body = discovery_->getResources();
    body["configured"] = discovery_->isConfigured();
    body["synced"] = discovery_->isSynced();
    sendJson(request.fd, 200, body);
}

}  // namespace vostra::data
