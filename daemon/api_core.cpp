// Core endpoints: health, info, metrics and the root redirect. They answer
// any method.
#include <nlohmann/json.hpp>

#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/identity.h"

namespace vostra::data {

nlohmann::json DataDaemon::getHealth() const {
    return {
        {"status", running_.load() ? "healthy" : "stopped"},
        {"daemon_id", daemon_id_},
        {"uptime_seconds", uptimeSeconds()},
        {"total_sources", 0},
        {"healthy_sources", 0},
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
        {"hostname", getHostname()},
        {"ip_address", getLocalIP()},
        {"available_connectors", nlohmann::json::array()},
    };
}

nlohmann::json DataDaemon::getMetrics() const {
    return {
        {"daemon_id", daemon_id_},
        {"total_queries", total_queries_.load()},
        {"total_executes", total_executes_.load()},
        {"total_errors", total_errors_.load()},
        {"sources", nlohmann::json::array()},
    };
}

void DataDaemon::handleHealth(const HttpRequest& request) {
    sendResponse(request.fd, 200, getHealth().dump());
}

void DataDaemon::handleInfo(const HttpRequest& request) {
    sendResponse(request.fd, 200, getInfo().dump());
}

void DataDaemon::handleMetrics(const HttpRequest& request) {
    sendResponse(request.fd, 200, getMetrics().dump());
}

void DataDaemon::handleRootRedirect(const HttpRequest& request) {
    sendDashboardRedirect(request.fd);
}

}  // namespace vostra::data
