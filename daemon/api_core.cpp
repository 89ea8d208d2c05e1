// Core endpoints: health, info, metrics and the root redirect. They answer
// any method.
#include <nlohmann/json.hpp>

#include "common/json_fields.h"
#include "connectors/data_connector_factory.h"
#include "connectors/data_source_registry.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/identity.h"

namespace vostra::data {

nlohmann::json DataDaemon::getHealth() const {
    const auto [total, healthy] = registry_->countSources();
    return {
        {"status", running_.load() ? "healthy" : "stopped"},
        {"daemon_id", daemon_id_},
        {"uptime_seconds", uptimeSeconds()},
        {"total_sources", total},
        {"healthy_sources", healthy},
    };
}

nlohmann::json DataDaemon::getInfo() const {
    return {
        {"daemon_id", daemon_id_},
        {"daemon_name", config_.daemon_name},
        // The API version, deliberately not the program version of the banner.
        {"version", "1.0.0"},
        {"port", config_.port},
        {"bind_address", config_.bind_address},
        {"hostname", hostname_},
        {"ip_address", ip_address_},
        {"available_connectors", DataConnectorFactory::getAvailableTypeNames()},
    };
}

nlohmann::json DataDaemon::getMetrics() const {
    const RegistryCounters& counters = registry_->counters();
    return {
        {"daemon_id", daemon_id_},
        {"total_queries", counters.queries.load()},
        {"total_executes", counters.executes.load()},
        {"total_errors", counters.errors.load()},
        {"sources", toJsonArray(registry_->listDataSources())},
    };
}

void DataDaemon::handleHealth(const HttpRequest& request) {
    sendJson(request.fd, 200, getHealth());
}

void DataDaemon::handleInfo(const HttpRequest& request) {
    sendJson(request.fd, 200, getInfo());
}

void DataDaemon::handleMetrics(const HttpRequest& request) {
    sendJson(request.fd, 200, getMetrics());
}

void DataDaemon::handleRootRedirect(const HttpRequest& request) {
    sendDashboardRedirect(request.fd);
}

}  // namespace vostra::data
