// The vector API under "/api/v1/vector": settings, health and metrics,
// namespaces, documents and sources of a tenant, similarity and text
// searches, embeddings and text ingestion. Handlers parse, call
// VectorStorageService and map its results to statuses; the rules live in
// the service. Only the settings route works while the service is off, and
// only it may create or destroy the service.
#include <nlohmann/json.hpp>
#include <optional>

#include "common/json_fields.h"
#include "connectors/sanitize_utf8.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/request_context.h"
#include "vector/vector_storage_service.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr std::string_view kConfigPath = "/api/v1/vector/config";
constexpr const char* kNotEnabled =
    "Vector storage service not enabled. Enable it via /api/v1/vector/config or dashboard.";
constexpr const char* kNotFound = "Vector endpoint not found";
constexpr const char* kMethodNotAllowed = "Method not allowed";
constexpr const char* kNamespaceNotFound = "Namespace not found";
constexpr const char* kUpdateFailed = "Failed to update configuration";
constexpr int32_t kDefaultTextSearchLimit = 10;

// The body as a JSON object (an empty body is an empty one), or nothing
// after answering 400 for a body that is not a JSON object.
std::optional<json> parseBody(const HttpRequest& request) {
    if (request.body.find_first_not_of(" \t\r\n") == std::string::npos) return json::object();
    json body = json::parse(request.body, nullptr, /*allow_exceptions=*/false);
    if (body.is_discarded() || !body.is_object()) {
        sendError(request.fd, 400, "Request body must be a JSON object");
        return std::nullopt;
    }
    return body;
}

// True when `key` is present; otherwise answers 400 "Missing '<key>' field".
bool require(const HttpRequest& request, const json& body, const char* key) {
    if (body.contains(key)) return true;
    sendError(request.fd, 400, std::string("Missing '") + key + "' field");
    return false;
}

template <typename T>
T field(const json& body, const char* key, T fallback) {
    readField(body, key, fallback);
    return fallback;
}

// The path after `prefix` cut at "/" into at most `limit` parts, the last
// keeping any further "/". Path bytes go into answers, so they are cleaned.
std::vector<std::string> segments(std::string_view path, std::string_view prefix,
                                  std::size_t limit) {
    std::vector<std::string> parts;
    std::string_view rest = path.substr(prefix.size());
    while (!rest.empty()) {
        const std::size_t slash =
            parts.size() + 1 < limit ? rest.find('/') : std::string_view::npos;
        parts.push_back(sanitize_utf8(std::string(rest.substr(0, slash))));
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    return parts;
}

// The request's tenant, from its headers: raw bytes, cleaned like the path.
std::string requestTenant() {
    return sanitize_utf8(currentTenant().tenant_id);
}

// Body routes act for the tenant of the request unless the body names one.
std::string tenantFrom(const json& body) {
    return field(body, "tenant_id", requestTenant());
}

void handleNamespaces(VectorStorageService& service, const HttpRequest& request) {
    const int fd = request.fd;
    std::vector<std::string> parts = segments(request.path, "/api/v1/vector/namespaces", 4);
    // "/namespaces" and "/namespaces/" both mean the request's own tenant.
    if (!parts.empty() && parts.front().empty()) parts.erase(parts.begin());
    if (parts.size() > 2) {
        sendError(fd, 404, kNotFound);
        return;
    }
    const std::string tenant = parts.empty() ? requestTenant() : parts[0];
    const std::string& method = request.method;

    if (parts.size() < 2 && method == "GET") {
        json list = json::array();
        for (const VectorNamespace& record : service.listNamespaces(tenant))
            list.push_back(record.toJson());
        sendJson(fd, 200, {{"tenant_id", tenant}, {"namespaces", list}, {"count", list.size()}});
        return;
    }
    if (method == "POST") {
        const auto body = parseBody(request);
        if (!body || (parts.size() < 2 && !require(request, *body, "namespace_id"))) return;
        const std::string ns =
            parts.size() == 2 ? parts[1] : field(*body, "namespace_id", std::string());
        if (!service.createNamespace(tenant, ns, field(*body, "name", std::string()),
                                     field(*body, "description", std::string()))) {
            sendError(fd, 400, "Failed to create namespace");
            return;
        }
        json answer = {{"status", "created"}};
        if (auto record = service.getNamespace(tenant, ns)) answer["namespace"] = record->toJson();
        sendJson(fd, 201, answer);
        return;
    }
    if (parts.size() == 2 && method == "GET") {
        if (auto record = service.getNamespace(tenant, parts[1]))
            sendJson(fd, 200, record->toJson());
        else
            sendError(fd, 404, kNamespaceNotFound);
        return;
    }
    if (parts.size() == 2 && method == "DELETE") {
        if (service.deleteNamespace(tenant, parts[1]))
            sendJson(fd, 200, {{"status", "deleted"}});
        else
            sendError(fd, 404, kNamespaceNotFound);
        return;
    }
    sendError(fd, 405, kMethodNotAllowed);
}

void handleDocuments(VectorStorageService& service, const HttpRequest& request) {
    const int fd = request.fd;
    // Ids are the client's and may hold "/": everything after the namespace.
    const std::vector<std::string> parts = segments(request.path, "/api/v1/vector/documents/", 3);
    if (parts.size() < 2) {
        sendError(fd, 404, kNotFound);
        return;
    }
    const std::string& tenant = parts[0];
    const std::string& ns = parts[1];
    const std::string id = parts.size() == 3 ? parts[2] : "";
    const std::string& method = request.method;

    if (method == "GET" && !id.empty()) {
        if (auto document = service.getDocument(tenant, ns, id))
            sendJson(fd, 200, document->toJson());
        else
            sendError(fd, 404, "Document not found");
        return;
    }
    if (method == "POST" && id.empty()) {
        const auto body = parseBody(request);
        if (!body) return;
        VectorAddRequest add = VectorAddRequest::fromJson(*body);
        add.tenant_id = tenant;
        add.namespace_id = ns;
        const VectorAddResponse result = service.addDocuments(add);
        sendJson(fd, result.success ? 201 : 400, result.toJson());
        return;
    }
    if (method == "DELETE") {
        std::vector<std::string> ids;
        if (!id.empty()) {
            ids.push_back(id);
        } else {
            const auto body = parseBody(request);
            if (!body || !require(request, *body, "ids")) return;
            readField(*body, "ids", ids);
        }
        sendJson(fd, 200, {{"deleted_count", service.deleteDocuments(tenant, ns, ids)}});
        return;
    }
    sendError(fd, 405, kMethodNotAllowed);
}

void handleSources(VectorStorageService& service, const HttpRequest& request) {
    const int fd = request.fd;
    const std::vector<std::string> parts = segments(request.path, "/api/v1/vector/sources/", 3);
    if (parts.size() != 2) {
        sendError(fd, 404, kNotFound);
        return;
    }
    if (request.method == "GET") {
        json sources = json::array();
        for (const std::string& source : service.listSources(parts[0], parts[1]))
            sources.push_back(sanitize_utf8(source));
        sendJson(fd, 200, {{"sources", sources}, {"count", sources.size()}});
        return;
    }
    if (request.method == "DELETE") {
        const auto body = parseBody(request);
        if (!body || !require(request, *body, "source")) return;
        const std::string source = field(*body, "source", std::string());
        sendJson(fd, 200, {{"deleted_count", service.deleteBySource(parts[0], parts[1], source)}});
        return;
    }
    sendError(fd, 405, kMethodNotAllowed);
}

void sendSearch(int fd, const VectorSearchResponse& response) {
    sendJson(fd, response.success ? 200 : (response.refused ? 400 : 500), response.toJson());
}

void handleSearch(VectorStorageService& service, const HttpRequest& request) {
    const auto body = parseBody(request);
    if (!body) return;
    VectorSearchRequest search = VectorSearchRequest::fromJson(*body);
    search.tenant_id = tenantFrom(*body);
    if (search.query.empty() && search.query_embedding.empty()) {
        sendError(request.fd, 400, "Missing 'query' field");
        return;
    }
    sendSearch(request.fd, service.search(search));
}

void handleTextSearch(VectorStorageService& service, const HttpRequest& request) {
    const auto parsed = parseBody(request);
    if (!parsed) return;
    const json& body = *parsed;
    const std::string query = field(body, "query", std::string());
    if (query.empty()) {
        sendError(request.fd, 400, "Missing 'query' field");
        return;
    }
    sendSearch(request.fd, service.textSearch(tenantFrom(body),
                                              field(body, "namespace_id", std::string("default")),
                                              query, field(body, "limit", kDefaultTextSearchLimit),
                                              field(body, "field", std::string())));
}

void handleEmbed(VectorStorageService& service, const HttpRequest& request) {
    const auto parsed = parseBody(request);
    if (!parsed) return;
    const json& body = *parsed;
    const bool single = body.contains("text");
    if (!single && !body.contains("texts")) {
        sendError(request.fd, 400, "Missing 'text' or 'texts' field");
        return;
    }
    const std::vector<std::string> texts =
        single ? std::vector<std::string>{field(body, "text", std::string())}
               : field(body, "texts", std::vector<std::string>());
    const auto vectors = service.generateEmbeddings(texts);
    if (!vectors) {
        sendError(request.fd, 500, "No embedding provider configured");
        return;
    }
    const std::size_t dimension = vectors->empty() ? 0 : vectors->front().size();
    json answer = {{"dimension", dimension}, {"count", vectors->size()}};
    if (single)
        answer["embedding"] = vectors->empty() ? json::array() : json(vectors->front());
    else
        answer["embeddings"] = *vectors;
    sendJson(request.fd, 200, answer);
}

void handleIngest(VectorStorageService& service, const HttpRequest& request) {
    const auto parsed = parseBody(request);
    if (!parsed || !require(request, *parsed, "source")) return;
    const json& body = *parsed;
    const VectorAddResponse result =
        service.addText(tenantFrom(body), field(body, "namespace_id", std::string("default")),
                        field(body, "text", std::string()), field(body, "source", std::string()),
                        field(body, "metadata", std::map<std::string, std::string>()));
    sendJson(request.fd, result.success ? 201 : 400, result.toJson());
}

// Routes that answer one fixed path; each serves one method.
struct FixedRoute {
    std::string_view path;
    const char* method;
    void (*handler)(VectorStorageService&, const HttpRequest&);
};

void routeRequest(VectorStorageService& service, const HttpRequest& request) {
    static constexpr FixedRoute kFixed[] = {
        {"/api/v1/vector/health", "GET",
         [](VectorStorageService& s, const HttpRequest& r) { sendJson(r.fd, 200, s.getHealth()); }},
        {"/api/v1/vector/metrics", "GET",
         [](VectorStorageService& s, const HttpRequest& r) {
             sendJson(r.fd, 200, s.getMetrics());
         }},
        {"/api/v1/vector/search", "POST", handleSearch},
        {"/api/v1/vector/text-search", "POST", handleTextSearch},
        {"/api/v1/vector/embed", "POST", handleEmbed},
        {"/api/v1/vector/ingest", "POST", handleIngest},
    };
    const std::string_view path = request.path;
    for (const FixedRoute& route : kFixed) {
        if (path != route.path) continue;
        if (request.method == route.method)
            route.handler(service, request);
        else
            sendError(request.fd, 405, kMethodNotAllowed);
        return;
    }
    if (path == "/api/v1/vector/namespaces" || path.starts_with("/api/v1/vector/namespaces/"))
        handleNamespaces(service, request);
    else if (path.starts_with("/api/v1/vector/documents/"))
        handleDocuments(service, request);
    else if (path.starts_with("/api/v1/vector/sources/"))
        handleSources(service, request);
    else
        sendError(request.fd, 404, kNotFound);
}

}  // namespace

void DataDaemon::handleVectorApi(const HttpRequest& request) {
    if (request.path == kConfigPath) {
        handleVectorConfig(request);
        return;
    }
    // Shared for the whole request: the config route cannot destroy the
    // service under it, and requests never wait for each other.
    std::shared_lock lock(vector_mutex_);
    if (!vector_) {
        sendError(request.fd, 503, kNotEnabled);
        return;
    }
    try {
        routeRequest(*vector_, request);
    } catch (const json::exception& error) {
        // A key of the wrong type, as the typed reads report it.
        sendError(request.fd, 400, error.what());
    }
}

void DataDaemon::handleVectorConfig(const HttpRequest& request) {
    const int fd = request.fd;
    if (request.method == "GET") {
        std::shared_lock lock(vector_mutex_);
        sendJson(fd, 200, (vector_ ? vector_->getConfig() : *vector_config_).toJson());
        return;
    }
    if (request.method != "PUT") {
        sendError(fd, 405, kMethodNotAllowed);
        return;
    }

    using Action = VectorStorageService::ConfigChange::Action;
    std::unique_lock lock(vector_mutex_);
    const VectorStorageConfig current = vector_ ? vector_->getConfig() : *vector_config_;
    VectorStorageService::ConfigChange change =
        VectorStorageService::planConfigChange(current, vector_ != nullptr, request.body);
    if (!change.error.empty()) {
        sendJson(fd, 400, {{"error", kUpdateFailed}, {"detail", change.error}});
        return;
    }

    json answer = {{"status", change.changed ? "updated" : "unchanged"}};
    bool saved = true;
    switch (change.action) {
        case Action::Start:
        case Action::Restart: {
            if (vector_) vector_->shutdown();
            vector_.reset();
            auto service = std::make_unique<VectorStorageService>();
            if (!service->initialize(change.config)) {
                change.config.enabled = false;
                *vector_config_ = change.config;
                const char* failed = "Failed to initialize vector storage";
                sendJson(fd, 500, {{"error", failed}, {"message", failed}});
                return;
            }
            vector_ = std::move(service);
            answer["message"] = change.action == Action::Start ? "Vector storage service started"
                                                               : "Vector storage service restarted";
            break;
        }
        case Action::Stop:
            vector_->shutdown();
            vector_.reset();
            saved = VectorStorageService::saveConfigFile(change.config);
            answer["message"] = "Vector storage service stopped";
            break;
        case Action::Reconfigure:
        case Action::None:
            saved = vector_ ? vector_->updateConfig(change.config)
                            : VectorStorageService::saveConfigFile(change.config);
            break;
    }
    *vector_config_ = change.config;
    if (!saved) {
        sendError(fd, 500, kUpdateFailed);
        return;
    }
    answer["config"] = change.config.toJson();
    sendJson(fd, 200, answer);
}

}  // namespace vostra::data
