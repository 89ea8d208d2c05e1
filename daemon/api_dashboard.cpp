// The dashboard's pages ("/dashboard" and under "/dashboard/"), which hold
// no data: the browser fills them from the JSON API.
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "dashboard/datad_dashboard.h"

namespace vostra::data {

void DataDaemon::handleDashboard(const HttpRequest& request) {
    if (std::optional<std::string> page = DatadDashboard::pageFor(request.path))
        sendResponse(request.fd, 200, *page, "text/html");
    else
        sendError(request.fd, 404, "Dashboard page not found");
}

}  // namespace vostra::data
