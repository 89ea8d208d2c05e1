// The index of areas: which area serves a path. Tests are made on the path as
// received, query string included, in table order; the first match wins.
// Each area then picks its own row by method and pattern (route_table.h).
#include <string_view>

#include "daemon/data_daemon.h"
#include "daemon/http_message.h"

namespace vostra::data {
namespace {

enum class Match { Exact, Prefix };

}  // namespace

void DataDaemon::dispatch(const HttpRequest& request) {
    using Handler = void (DataDaemon::*)(const HttpRequest&);
    struct Area {
        Match match;
        std::string_view pattern;
        Handler handler;
    };
    // Areas not built into this daemon have no row and answer as unmatched.
    static constexpr Area kAreas[] = {
        {Match::Exact, "/health", &DataDaemon::handleHealth},
        {Match::Exact, "/api/v1/health", &DataDaemon::handleHealth},
        {Match::Exact, "/metrics", &DataDaemon::handleMetrics},
        {Match::Exact, "/api/v1/metrics", &DataDaemon::handleMetrics},
        {Match::Exact, "/api/v1/metrics/prometheus", &DataDaemon::handlePrometheusMetrics},
        {Match::Exact, "/api/v1/openapi.json", &DataDaemon::handleOpenApi},
        {Match::Exact, "/info", &DataDaemon::handleInfo},
        {Match::Exact, "/api/v1/info", &DataDaemon::handleInfo},
        {Match::Exact, "/api/v1/data/sources", &DataDaemon::handleDataApi},
        {Match::Prefix, "/api/v1/data/sources/", &DataDaemon::handleDataApi},
        {Match::Exact, "/api/v1/data/agents", &DataDaemon::handleDataAgents},
        {Match::Prefix, "/api/v1/data/agents/", &DataDaemon::handleDataAgents},
        {Match::Exact, "/api/v1/data/query", &DataDaemon::handleDataApi},
        {Match::Exact, "/api/v1/data/execute", &DataDaemon::handleDataApi},
        {Match::Exact, "/api/v1/tenants", &DataDaemon::handleTenants},
        {Match::Prefix, "/api/v1/tenants/", &DataDaemon::handleTenants},
        {Match::Prefix, "/api/v1/storage/", &DataDaemon::handleStorage},
        {Match::Exact, "/api/v1/data/cluster-resources", &DataDaemon::handleClusterResources},
        {Match::Exact, "/api/v1/vector/config", &DataDaemon::handleVectorConfig},
        {Match::Prefix, "/api/v1/vector", &DataDaemon::handleVectorApi},
        {Match::Prefix, "/api/v1/science", &DataDaemon::handleScienceApi},
        {Match::Prefix, "/api/v1/nfs", &DataDaemon::handleNFSApi},
        {Match::Prefix, "/api/v1/git", &DataDaemon::handleGitApi},
        {Match::Prefix, "/api/v1/models", &DataDaemon::handleModelsApi},
        {Match::Prefix, "/api/v1/swarms/", &DataDaemon::handleSwarms},
        {Match::Exact, "/api/v1/workspaces", &DataDaemon::handleWorkspacesApi},
        {Match::Prefix, "/api/v1/workspaces/", &DataDaemon::handleWorkspacesApi},
        {Match::Exact, "/api/v1/outputs", &DataDaemon::handleOutputsApi},
        {Match::Prefix, "/api/v1/outputs/", &DataDaemon::handleOutputsApi},
        // "/api/v1/agents-..." is not an agents path and stays unmatched.
        {Match::Exact, "/api/v1/agents", &DataDaemon::handleAgentsApi},
        {Match::Prefix, "/api/v1/agents/", &DataDaemon::handleAgentsApi},
        {Match::Exact, "/api/v1/skills", &DataDaemon::handleSkillsApi},
        {Match::Prefix, "/api/v1/skills/", &DataDaemon::handleSkillsApi},
        {Match::Exact, "/api/v1/automations", &DataDaemon::handleAutomationsApi},
        {Match::Prefix, "/api/v1/automations/", &DataDaemon::handleAutomationsApi},
        // Lists take a query string; the area answers 404 for other paths.
        {Match::Prefix, "/api/v1/sandboxes", &DataDaemon::handleSandboxesApi},
        {Match::Prefix, "/api/v1/cicd", &DataDaemon::handleSandboxesApi},
        {Match::Prefix, "/api/v1/triage", &DataDaemon::handleSandboxesApi},
        {Match::Prefix, "/api/v1/auth/", &DataDaemon::handleAuthApi},
        {Match::Exact, "/dashboard", &DataDaemon::handleDashboard},
        {Match::Prefix, "/dashboard/", &DataDaemon::handleDashboard},
        {Match::Exact, "/", &DataDaemon::handleRootRedirect},
    };

    const std::string_view path = request.path;
    for (const Area& area : kAreas) {
        const bool hit = area.match == Match::Exact ? path == area.pattern
                                                    : path.starts_with(area.pattern);
        if (hit) {
            (this->*area.handler)(request);
            return;
        }
    }
    sendError(request.fd, 404, "Not found");
}

}  // namespace vostra::data
