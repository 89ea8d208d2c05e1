// Core endpoints: health, info, metrics and the root redirect. They answer
// any method.
#include <nlohmann/json.hpp>

#include "common/json_fields.h"
#include "connectors/data_connector_factory.h"
#include "connectors/data_source_registry.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "cluster/controller_client.h"
#include "daemon/connection_reader.h"
#include "daemon/identity.h"
#include "daemon/request_metrics.h"
#include "storage/storage_service.h"
#include "vector/vector_storage_service.h"

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

std::string DataDaemon::getPrometheusMetrics() const {
    PrometheusText text;
    request_metrics_.write(text);
    text.family("vostra_http_active_connections", "gauge", "Connections being answered.");
    text.sample("vostra_http_active_connections", active_clients_.load());
    text.family("vostra_http_waiting_connections", "gauge", "Connections still sending their request.");
    text.sample("vostra_http_waiting_connections", reader_ ? static_cast<double>(reader_->waiting()) : 0.0);
    text.family("vostra_uptime_seconds", "gauge", "Seconds since the daemon started.");
    text.sample("vostra_uptime_seconds", static_cast<double>(uptimeSeconds()));

    const RegistryCounters& counters = registry_->counters();
    text.family("vostra_data_queries_total", "counter", "Queries run through /api/v1/data/query.");
    text.sample("vostra_data_queries_total", static_cast<double>(counters.queries.load()));
    text.family("vostra_data_statements_total", "counter", "Statements run through /api/v1/data/execute.");
    text.sample("vostra_data_statements_total", static_cast<double>(counters.executes.load()));
    text.family("vostra_data_errors_total", "counter", "Data requests that failed before a statement ran.");
    text.sample("vostra_data_errors_total", static_cast<double>(counters.errors.load()));
    const std::vector<DataSourceStatusInfo> sources = registry_->listDataSources();
    struct SourceFigure {
        const char* name;
        const char* type;
        const char* help;
        double (*value)(const DataSourceStatusInfo&);
    };
    static constexpr SourceFigure kSourceFigures[] = {
        {"vostra_datasource_pool_connections", "gauge", "Connections a source's pool holds.",
         [](const DataSourceStatusInfo& s) { return static_cast<double>(s.pool_size); }},
        {"vostra_datasource_pool_in_use", "gauge", "Pooled connections lent out.",
         [](const DataSourceStatusInfo& s) { return static_cast<double>(s.pool_in_use); }},
        {"vostra_datasource_pool_available", "gauge", "Pooled connections ready to lend.",
         [](const DataSourceStatusInfo& s) { return static_cast<double>(s.pool_available); }},
        {"vostra_datasource_statements_total", "counter", "Statements a source ran.",
         [](const DataSourceStatusInfo& s) { return static_cast<double>(s.queries_executed); }},
        {"vostra_datasource_statement_failures_total", "counter", "Statements of a source that failed.",
         [](const DataSourceStatusInfo& s) { return static_cast<double>(s.queries_failed); }},
    };
    for (const SourceFigure& figure : kSourceFigures) {
        text.family(figure.name, figure.type, figure.help);
        for (const DataSourceStatusInfo& source : sources) text.sample(figure.name, {{"source", source.id}}, figure.value(source));
    }

    storage_.with(
        [&](const StorageService& storage) {
            const nlohmann::json m = storage.getMetrics();
            text.family("vostra_storage_operations_total", "counter", "Storage operations, by kind.");
            for (const char* kind : {"read", "write", "delete"})
                text.sample("vostra_storage_operations_total", {{"operation", kind}},
                            m.value(std::string("total_") + kind + "s", 0.0));
            text.family("vostra_storage_bytes_total", "counter", "Bytes read from and written to storage.");
            text.sample("vostra_storage_bytes_total", {{"direction", "read"}}, m.value("bytes_read", 0.0));
            text.sample("vostra_storage_bytes_total", {{"direction", "written"}}, m.value("bytes_written", 0.0));
            text.family("vostra_storage_tenants", "gauge", "Tenants in the tenant table.");
            text.sample("vostra_storage_tenants", m.value("tenant_count", 0.0));
        },
        [] {});
    vector_.with(
        [&](const VectorStorageService& vector) {
            const nlohmann::json m = vector.getMetrics();
            text.family("vostra_vector_documents_added_total", "counter", "Vector documents stored.");
            text.sample("vostra_vector_documents_added_total", m.value("total_documents_added", 0.0));
            text.family("vostra_vector_namespaces", "gauge", "Vector namespaces known.");
            text.sample("vostra_vector_namespaces", m.value("namespace_count", 0.0));
            text.family("vostra_vector_search_seconds", "summary", "Time spent in vector searches.");
            text.sample("vostra_vector_search_seconds_sum", m.value("total_search_time_ms", 0.0) / 1000.0);
            text.sample("vostra_vector_search_seconds_count", m.value("total_searches", 0.0));
        },
        [] {});
    const nlohmann::json nfs = getNFSMetrics()["metrics"];
    text.family("vostra_nfs_active_connections", "gauge", "NFS clients connected to the built-in responder.");
    text.sample("vostra_nfs_active_connections", nfs.value("active_connections", 0.0));
    struct NfsFigure {
        const char* name;
        const char* key;
        const char* help;
    };
    static constexpr NfsFigure kNfsFigures[] = {
        {"vostra_nfs_connections_total", "total_connections", "NFS connections accepted."},
        {"vostra_nfs_reads_total", "total_reads", "NFS reads served."},
        {"vostra_nfs_writes_total", "total_writes", "NFS writes served."},
        {"vostra_nfs_read_bytes_total", "bytes_read", "Bytes NFS clients read."},
        {"vostra_nfs_written_bytes_total", "bytes_written", "Bytes NFS clients wrote."},
        {"vostra_nfs_errors_total", "errors", "NFS calls that failed."},
    };
    for (const NfsFigure& figure : kNfsFigures) {
        text.family(figure.name, "counter", figure.help);
        text.sample(figure.name, nfs.value(figure.key, 0.0));
    }
    text.family("vostra_heartbeat_consecutive_failures", "gauge",
                "Heartbeats to the controller that failed in a row (0 when standalone or healthy).");
    text.sample("vostra_heartbeat_consecutive_failures", controller_ ? controller_->consecutiveFailures() : 0);
    return text.text();
}

void DataDaemon::handlePrometheusMetrics(const HttpRequest& request) {
    sendResponse(request.fd, 200, getPrometheusMetrics(), "text/plain; version=0.0.4; charset=utf-8");
}

void DataDaemon::handleRootRedirect(const HttpRequest& request) {
    sendDashboardRedirect(request.fd);
}

}  // namespace vostra::data
