// The route table: which handler serves a path. Tests are made on the path as
// received, query string included, in table order; the first match wins.
#include <string_view>

#include "daemon/data_daemon.h"
#include "daemon/http_message.h"

namespace vostra::data {
namespace {

enum class Match { Exact, Prefix };

}  // namespace

void DataDaemon::dispatch(const HttpRequest& request) {
    using Handler = void (DataDaemon::*)(const HttpRequest&);
    struct Route {
        Match match;
        std::string_view pattern;
        Handler handler;
    };
    // Areas not built into this daemon have no row and answer as unmatched.
    static constexpr Route kRoutes[] = {
        {Match::Exact, "/health", &DataDaemon::handleHealth},
        {Match::Exact, "/api/v1/health", &DataDaemon::handleHealth},
        {Match::Exact, "/metrics", &DataDaemon::handleMetrics},
        {Match::Exact, "/api/v1/metrics", &DataDaemon::handleMetrics},
        {Match::Exact, "/info", &DataDaemon::handleInfo},
        {Match::Exact, "/api/v1/info", &DataDaemon::handleInfo},
        {Match::Exact, "/api/v1/data/sources", &DataDaemon::handleSources},
        {Match::Prefix, "/api/v1/data/sources/", &DataDaemon::handleSourceById},
        {Match::Exact, "/api/v1/data/query", &DataDaemon::handleQuery},
        {Match::Exact, "/api/v1/data/execute", &DataDaemon::handleExecute},
        {Match::Exact, "/api/v1/tenants", &DataDaemon::handleTenants},
        {Match::Prefix, "/api/v1/tenants/", &DataDaemon::handleTenantById},
        {Match::Prefix, "/api/v1/storage/", &DataDaemon::handleStorage},
        {Match::Exact, "/api/v1/data/cluster-resources", &DataDaemon::handleClusterResources},
        {Match::Prefix, "/api/v1/vector", &DataDaemon::handleVectorApi},
        {Match::Exact, "/", &DataDaemon::handleRootRedirect},
    };

    const std::string_view path = request.path;
    for (const Route& route : kRoutes) {
        const bool hit = route.match == Match::Exact ? path == route.pattern
                                                     : path.starts_with(route.pattern);
        if (hit) {
            (this->*route.handler)(request);
            return;
        }
    }
    sendError(request.fd, 404, "Not found");
}

}  // namespace vostra::data
