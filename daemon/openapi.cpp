// "/api/v1/openapi.json": an OpenAPI 3.1 description made from the route
// tables themselves (every listed row, plus the endpoints the index of areas
// serves directly), so it cannot drift from what the daemon answers.
#include <map>
#include <nlohmann/json.hpp>

#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/route_table.h"
#include "daemon/command_line.h"

namespace vostra::data {
namespace {

using nlohmann::json;

// Endpoints served by the index of areas, or by rows that are member
// functions, which the tables above do not list.
const ListedRoute kDirectRoutes[] = {
    {"GET", "/health", "core"},
    {"GET", "/api/v1/health", "core"},
    {"GET", "/info", "core"},
    {"GET", "/api/v1/info", "core"},
    {"GET", "/metrics", "core"},
    {"GET", "/api/v1/metrics", "core"},
    {"GET", "/api/v1/metrics/prometheus", "core"},
    {"GET", "/api/v1/openapi.json", "core"},
    {"GET", "/api/v1/data/cluster-resources", "cluster"},
    {"GET", "/api/v1/vector/config", "vector"},
    {"PUT", "/api/v1/vector/config", "vector"},
    {"GET", "/", "dashboard"},
    {"GET", "/dashboard", "dashboard"},
    {"GET", "/dashboard/{page}", "dashboard"},
};

// "{path*}" and "{name+}" hold slashes; OpenAPI names them plainly.
std::string openApiPath(const std::string& pattern, std::vector<std::string>& names) {
    std::string out;
    for (std::size_t i = 0; i < pattern.size();) {
        if (pattern[i] != '{') {
            out.push_back(pattern[i++]);
            continue;
        }
        const std::size_t close = pattern.find('}', i);
        std::string name = pattern.substr(i + 1, close - i - 1);
        if (!name.empty() && (name.back() == '*' || name.back() == '+')) name.pop_back();
        names.push_back(name);
        out += "{" + name + "}";
        i = close + 1;
    }
    return out;
}

json operation(const ListedRoute& route, const std::vector<std::string>& names, int index) {
    std::string method = route.method;
    for (char& c : method) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    json parameters = json::array();
    for (const std::string& name : names)
        parameters.push_back({{"name", name},
                              {"in", "path"},
                              {"required", true},
                              {"description", name == "path" ? "A path inside the area; may hold \"/\"" : "Percent-encoded"},
                              {"schema", {{"type", "string"}}}});
    json responses = {
        {"2XX", {{"description", "Success"}, {"content", {{"application/json", json::object()}}}}},
        {"4XX", {{"$ref", "#/components/responses/Error"}}},
        {"5XX", {{"$ref", "#/components/responses/Error"}}},
    };
    if (route.area == "dashboard") {
        responses["2XX"] = {{"description", "A dashboard page"}, {"content", {{"text/html", json::object()}}}};
        if (route.pattern == "/") responses = {{"302", {{"description", "To /dashboard"}}}};
    }
    if (route.pattern == "/api/v1/metrics/prometheus")
        responses["2XX"] = {{"description", "Prometheus text format 0.0.4"}, {"content", {{"text/plain", json::object()}}}};
    json op = {{"operationId", method + "_" + route.area + "_" + std::to_string(index)},
               {"tags", {route.area}},
               {"responses", responses}};
    if (!parameters.empty()) op["parameters"] = parameters;
    if (route.method == "POST" || route.method == "PUT")
    {
        json content = json::object();
        content["application/json"]["schema"]["type"] = "object";
        content["text/plain"]["schema"]["type"] = "string";
        op["requestBody"] = {{"required", false}, {"content", content}};
    }
    const bool open = route.area == "dashboard" || route.pattern == "/health" || route.pattern == "/api/v1/health";
    if (open) op["security"] = json::array();
    return op;
}

}  // namespace

nlohmann::json DataDaemon::openApiDocument() {
    std::vector<ListedRoute> routes(std::begin(kDirectRoutes), std::end(kDirectRoutes));
    routes.insert(routes.end(), listedRoutes().begin(), listedRoutes().end());
    json paths = json::object();
    int index = 0;
    for (const ListedRoute& route : routes) {
        std::vector<std::string> names;
        const std::string path = openApiPath(route.pattern, names);
        std::string method = route.method;
        for (char& c : method) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        json& item = paths[path];
        if (item.contains(method)) continue;  // the same row listed twice
        item[method] = operation(route, names, index++);
    }
    const json error_schema = {{"type", "object"},
                               {"required", {"error"}},
                               {"properties", {{"error", {{"type", "string"}}}, {"detail", {{"type", "string"}}}}}};
    return {
        {"openapi", "3.1.0"},
        {"info",
         {{"title", "vostra-datad"},
          {"version", kProgramVersion},
          {"description",
           "The data worker's JSON API. Failures answer {\"error\": text}. In \"keys\" mode every operation but "
           "health and the dashboard pages needs an API key (X-API-Key or a Bearer token)."}}},
        {"servers", {{{"url", "/"}}}},
        {"paths", paths},
        {"components",
         {{"schemas", {{"Error", error_schema}}},
          {"responses",
           {{"Error",
             {{"description", "The failure, as {\"error\": text}"},
              {"content", {{"application/json", {{"schema", {{"$ref", "#/components/schemas/Error"}}}}}}}}}}},
          {"securitySchemes",
           {{"apiKey", {{"type", "apiKey"}, {"in", "header"}, {"name", "X-API-Key"}}},
            {"bearer", {{"type", "http"}, {"scheme", "bearer"}}}}}}},
        {"security", {{{"apiKey", json::array()}}, {{"bearer", json::array()}}}},
    };
}

void DataDaemon::handleOpenApi(const HttpRequest& request) {
    sendJson(request.fd, 200, openApiDocument());
}

}  // namespace vostra::data
