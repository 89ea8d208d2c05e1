// Agent definitions over the agent store: managed under
// "/api/v1/data/agents" (create, replace, delete, seed, sync from a
// folder) and read by the cluster's agent workers under "/api/v1/agents".
// Without the agent store (--agent-storage) every route answers 503.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "agents/agent_definitions.h"
#include "connectors/agent_storage.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr const char* kNotEnabled = "Agent storage not enabled";
constexpr const char* kNotFound = "Agent not found";
constexpr const char* kAgentsFolder = "agents";

constexpr KindStatus kAgentStatuses[] = {
    {ErrorKind::Invalid, 400}, {ErrorKind::NotFound, 404}, {ErrorKind::Conflict, 409}};

struct AgentsCall {
    AgentDefinitions definitions;
    const std::string& folder;  // where sync reads definition files
};

void sendFailure(int fd, const Status& status) {
    sendError(fd, statusFor(kAgentStatuses, status.kind, 500), status.message);
}

json toJsonList(const std::vector<AgentDefinition>& definitions) {
    json list = json::array();
    for (const AgentDefinition& definition : definitions) list.push_back(definition.toJson());
    return list;
}

void listAgents(AgentsCall& call, const HttpRequest& request, const RouteParams&) {
    const json agents = toJsonList(call.definitions.list());
    sendJson(request.fd, 200, {{"agents", agents}, {"count", agents.size()}});
}

void getAgent(AgentsCall& call, const HttpRequest& request, const RouteParams& params) {
    const auto definition = call.definitions.get(params.get("id"));
    if (!definition) return sendError(request.fd, 404, kNotFound);
    sendJson(request.fd, 200, definition->toJson());
}

void createAgent(AgentsCall& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    AgentDefinition definition;
    Status status = AgentDefinition::fromJson(*body, definition);
    if (status) status = call.definitions.create(definition);
    if (!status) return sendFailure(request.fd, status);
    sendJson(request.fd, 201, definition.toJson());
}

void replaceAgent(AgentsCall& call, const HttpRequest& request, const RouteParams& params) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    AgentDefinition definition;
    json whole = *body;
    whole.erase("id");  // the path names the record
    Status status = AgentDefinition::fromJson(whole, definition);
    if (status) status = call.definitions.update(params.get("id"), definition);
    if (!status) return sendFailure(request.fd, status);
    sendJson(request.fd, 200, definition.toJson());
}

void deleteAgent(AgentsCall& call, const HttpRequest& request, const RouteParams& params) {
    if (Status status = call.definitions.remove(params.get("id")); !status)
        return sendFailure(request.fd, status);
    sendJson(request.fd, 200, {{"status", "deleted"}, {"id", params.get("id")}});
}

void seedAgents(AgentsCall& call, const HttpRequest& request, const RouteParams&) {
    const auto [added, skipped] = call.definitions.seed();
    sendJson(request.fd, 200, {{"added", added}, {"skipped", skipped}});
}

void syncAgents(AgentsCall& call, const HttpRequest& request, const RouteParams&) {
    if (call.folder.empty())
        return sendError(request.fd, 400, "agent_definitions_dir is not set (and no data_dir)");
    json report = call.definitions.syncFolder(call.folder).toJson();
    report["folder"] = call.folder;
    sendJson(request.fd, 200, report);
}

constexpr ServiceRoute<AgentsCall> kDataAgentRoutes[] = {
    {"GET", "/api/v1/data/agents", listAgents},
    {"POST", "/api/v1/data/agents", createAgent},
    {"POST", "/api/v1/data/agents/seed", seedAgents},
    {"POST", "/api/v1/data/agents/sync", syncAgents},
    {"GET", "/api/v1/data/agents/{id}", getAgent},
    {"PUT", "/api/v1/data/agents/{id}", replaceAgent},
    {"DELETE", "/api/v1/data/agents/{id}", deleteAgent},
};

// The agent workers' read-only view.
constexpr ServiceRoute<AgentsCall> kAgentRoutes[] = {
    {"GET", "/api/v1/agents", listAgents},
    {"GET", "/api/v1/agents/{id}", getAgent},
};

// Where sync reads definition files: the setting, else "agents" in the
// data folder, else nowhere.
std::string definitionsFolder(const DataDaemonConfig& config) {
    if (!config.agent_definitions_dir.empty()) return config.agent_definitions_dir;
    if (config.data_dir.empty()) return {};
    return (std::filesystem::path(config.data_dir) / kAgentsFolder).string();
}

template <std::size_t N>
void serveAgents(AgentStorage& store, const std::string& folder, const HttpRequest& request,
                 const ServiceRoute<AgentsCall> (&routes)[N]) {
    if (!store.isOpen()) return sendError(request.fd, 503, kNotEnabled);
    AgentsCall call{AgentDefinitions(store), folder};
    serveRoutes(call, routes, request, "Not found");
}

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("data", kDataAgentRoutes);
[[maybe_unused]] const bool kListed1 = listRoutes("agents", kAgentRoutes);

}  // namespace

void DataDaemon::handleDataAgents(const HttpRequest& request) {
    serveAgents(*agent_storage_, definitionsFolder(config_), request, kDataAgentRoutes);
}

void DataDaemon::handleAgentsApi(const HttpRequest& request) {
    serveAgents(*agent_storage_, definitionsFolder(config_), request, kAgentRoutes);
}

}  // namespace vostra::data
