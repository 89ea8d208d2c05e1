// The data API: registered sources, their catalogs, queries and statements,
// and the agent store. Handlers parse, call the registry and map its results
// to statuses; the rules live in DataSourceRegistry.
#include <nlohmann/json.hpp>

#include "connectors/agent_storage.h"
#include "connectors/data_source_registry.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/route_paths.h"

namespace vostra::data {
namespace {

constexpr std::string_view kSourcesPrefix = "/api/v1/data/sources/";

// Reads the body into a record with its fromJson. A body that is not JSON,
// or a key of the wrong type, is answered 400 with the parser's message.
template <typename Record>
bool parseRecord(const HttpRequest& request, Record& out) {
    try {
        out = Record::fromJson(nlohmann::json::parse(request.body));
        return true;
    } catch (const nlohmann::json::exception& error) {
        sendError(request.fd, 400, error.what());
        return false;
    }
}

void sendResult(int fd, const QueryResult& result) {
    sendJson(fd, result.success ? 200 : 500, result.toJson());
}

}  // namespace

bool DataDaemon::addDataSource(const DataSourceConfig& config) {
    return registry_->addDataSource(config);
}
bool DataDaemon::removeDataSource(const std::string& id) { return registry_->removeDataSource(id); }
std::vector<DataSourceStatusInfo> DataDaemon::listDataSources() const {
    return registry_->listDataSources();
}
DataSourceStatusInfo DataDaemon::getDataSourceStatus(const std::string& id) const {
    return registry_->getDataSourceStatus(id);
}
bool DataDaemon::testDataSource(const std::string& id) { return registry_->testDataSource(id); }
std::vector<std::string> DataDaemon::getTables(const std::string& id) {
    return registry_->getTables(id);
}
SchemaInfo DataDaemon::getSchema(const std::string& id) { return registry_->getSchema(id); }
QueryResult DataDaemon::executeQuery(const QueryRequest& request) {
    return registry_->executeQuery(request);
}
QueryResult DataDaemon::executeStatement(const ExecuteRequest& request) {
    return registry_->executeStatement(request);
}

bool DataDaemon::initAgentStorage() { return agent_storage_->open(AgentStorage::defaultPath()); }
std::vector<std::map<std::string, std::string>> DataDaemon::agentStorageQuery(
    const std::string& sql, const std::vector<std::string>& params) {
    return agent_storage_->query(sql, params);
}
bool DataDaemon::agentStorageExecute(const std::string& sql,
                                     const std::vector<std::string>& params) {
    return agent_storage_->execute(sql, params);
}

void DataDaemon::handleSources(const HttpRequest& request) {
    if (request.method == "GET") {
        nlohmann::json all = nlohmann::json::array();
        for (const auto& status : listDataSources()) all.push_back(status.toJson());
        sendJson(request.fd, 200, all);
        return;
    }
    if (request.method != "POST") {
        sendError(request.fd, 405, "Method not allowed");
        return;
    }
    DataSourceConfig config;
    if (!parseRecord(request, config)) return;
    if (!addDataSource(config)) {
        sendError(request.fd, 400, "Failed to add data source");
        return;
    }
    sendJson(request.fd, 201, {{"status", "created"}, {"id", config.id}});
}

void DataDaemon::handleSourceById(const HttpRequest& request) {
    const auto [id, sub_path] = splitIdAndSubPath(request.path, kSourcesPrefix);
    const int fd = request.fd;

    if (request.method == "GET") {
        if (sub_path.empty()) {
            if (!registry_->hasDataSource(id)) {
                sendError(fd, 404, "Data source not found");
                return;
            }
            sendJson(fd, 200, getDataSourceStatus(id).toJson());
        } else if (sub_path == "/schema") {
            sendJson(fd, 200, getSchema(id).toJson());
        } else if (sub_path == "/tables") {
            sendJson(fd, 200, getTables(id));
        } else {
            sendError(fd, 404, "Not found");
        }
        return;
    }
    if (request.method == "DELETE" && sub_path.empty()) {
        if (removeDataSource(id))
            sendJson(fd, 200, {{"status", "deleted"}});
        else
            sendError(fd, 404, "Data source not found");
        return;
    }
    if (request.method == "POST" && sub_path == "/test") {
        sendJson(fd, 200, {{"status", testDataSource(id) ? "ok" : "failed"}});
        return;
    }
    sendError(fd, 405, "Method not allowed");
}

void DataDaemon::handleQuery(const HttpRequest& request) {
    if (request.method != "POST") {
        sendError(request.fd, 405, "Method not allowed");
        return;
    }
    QueryRequest query;
    if (parseRecord(request, query)) sendResult(request.fd, executeQuery(query));
}

void DataDaemon::handleExecute(const HttpRequest& request) {
    if (request.method != "POST") {
        sendError(request.fd, 405, "Method not allowed");
        return;
    }
    ExecuteRequest statement;
    if (parseRecord(request, statement)) sendResult(request.fd, executeStatement(statement));
}

}  // namespace vostra::data
