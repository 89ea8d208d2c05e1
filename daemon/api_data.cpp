// The data API: registered sources, their catalogs, queries and statements,
// and the agent store. Handlers parse, call the registry and map its results
// to statuses; the rules live in DataSourceRegistry.
#include <nlohmann/json.hpp>

#include "common/json_fields.h"
#include "common/status.h"
#include "connectors/agent_storage.h"
#include "connectors/data_source_registry.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/route_table.h"

namespace vostra::data {
namespace {

constexpr const char* kSourceNotFound = "Data source not found";
constexpr const char* kAddFailed = "Failed to add data source";

// Written straight from the result's rows: a document of millions of rows
// built first would cost many times the answer's size.
void sendResult(int fd, const QueryResult& result) {
    sendResponse(fd, result.success ? 200 : 500, result.toJsonText());
}

void listSources(DataSourceRegistry& registry, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, toJsonArray(registry.listDataSources()));
}

void addSource(DataSourceRegistry& registry, const HttpRequest& request, const RouteParams&) {
    const auto config = readJsonBody<DataSourceConfig>(request);
    if (!config) return;
    if (const Status added = registry.addDataSource(*config); !added) {
        // Refusals are the client's to fix (sizes, an id, a database that
        // does not answer): 400, "detail" saying which; a disk that failed
        // the daemon is 500.
        sendJson(request.fd, added.kind == ErrorKind::Internal ? 500 : 400,
                 {{"error", kAddFailed}, {"detail", added.message}});
        return;
    }
    sendJson(request.fd, 201, {{"status", "created"}, {"id", config->id}});
}

void getSource(DataSourceRegistry& registry, const HttpRequest& request,
               const RouteParams& params) {
    const std::string id = params.get("id");
    if (!registry.hasDataSource(id))
        sendError(request.fd, 404, kSourceNotFound);
    else
        sendJson(request.fd, 200, registry.getDataSourceStatus(id).toJson());
}

void deleteSource(DataSourceRegistry& registry, const HttpRequest& request,
                  const RouteParams& params) {
    const Status removed = registry.tryRemoveDataSource(params.get("id"));
    if (removed)
        sendJson(request.fd, 200, {{"status", "deleted"}});
    else if (removed.kind == ErrorKind::NotFound)
        sendError(request.fd, 404, kSourceNotFound);
    else
        sendError(request.fd, 500, removed.message);
}

void getSchema(DataSourceRegistry& registry, const HttpRequest& request,
               const RouteParams& params) {
    sendJson(request.fd, 200, registry.getSchema(params.get("id")).toJson());
}

void getTables(DataSourceRegistry& registry, const HttpRequest& request,
               const RouteParams& params) {
    sendJson(request.fd, 200, registry.getTables(params.get("id")));
}

void testSource(DataSourceRegistry& registry, const HttpRequest& request,
                const RouteParams& params) {
    sendJson(request.fd, 200,
             {{"status", registry.testDataSource(params.get("id")) ? "ok" : "failed"}});
}

void runQuery(DataSourceRegistry& registry, const HttpRequest& request, const RouteParams&) {
    if (const auto query = readJsonBody<QueryRequest>(request))
        sendResult(request.fd, registry.executeQuery(*query));
}

void runStatement(DataSourceRegistry& registry, const HttpRequest& request, const RouteParams&) {
    if (const auto statement = readJsonBody<ExecuteRequest>(request))
        sendResult(request.fd, registry.executeStatement(*statement));
}

constexpr ServiceRoute<DataSourceRegistry> kDataRoutes[] = {
    {"GET", "/api/v1/data/sources", listSources},
    {"POST", "/api/v1/data/sources", addSource},
    {"GET", "/api/v1/data/sources/{id}", getSource},
    {"DELETE", "/api/v1/data/sources/{id}", deleteSource},
    {"GET", "/api/v1/data/sources/{id}/schema", getSchema},
    {"GET", "/api/v1/data/sources/{id}/tables", getTables},
    {"POST", "/api/v1/data/sources/{id}/test", testSource},
    // Any other sub-path: "Not found" to a GET, "Method not allowed" otherwise.
    {"GET", "/api/v1/data/sources/{id}/{rest*}", nullptr},
    {"POST", "/api/v1/data/query", runQuery},
    {"POST", "/api/v1/data/execute", runStatement},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("data", kDataRoutes);

}  // namespace

void DataDaemon::handleDataApi(const HttpRequest& request) {
    serveRoutes(*registry_, kDataRoutes, request, "Not found");
}

bool DataDaemon::addDataSource(const DataSourceConfig& config) {
    return registry_->addDataSource(config).ok();
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

}  // namespace vostra::data
