// The vector API under "/api/v1/vector": settings, health and metrics,
// namespaces, documents and sources of a tenant, similarity and text
// searches, embeddings and text ingestion; and the start function of the
// vector service. Handlers parse, call VectorStorageService and map its
// results to statuses; the rules live in the service. Only the settings
// route works while the service is off, and only it (besides start-up and
// stop()) may start or stop the service.
#include <nlohmann/json.hpp>
#include <optional>

#include "common/json_fields.h"
#include "common/log.h"
#include "common/sanitize_utf8.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/request_context.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "vector/vector_storage_service.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr const char* kNotEnabled =
    "Vector storage service not enabled. Enable it via /api/v1/vector/config or dashboard.";
constexpr const char* kNotFound = "Vector endpoint not found";
constexpr const char* kNamespaceNotFound = "Namespace not found";
constexpr const char* kUpdateFailed = "Failed to update configuration";
constexpr int32_t kDefaultTextSearchLimit = 10;

// Searches fail with 500 unless the request itself was at fault.
constexpr KindStatus kSearchStatuses[] = {{ErrorKind::Invalid, 400}};
constexpr KindStatus kNamespaceStatuses[] = {
    {ErrorKind::NotFound, 404},
    {ErrorKind::Internal, 500},
};

// The body as a JSON object holding `key`; otherwise answers 400 (for a
// missing key "Missing '<key>' field") and yields nothing.
std::optional<json> readBodyWith(const HttpRequest& request, const char* key) {
    std::optional<json> body = readJsonObject(request);
    if (body && !body->contains(key)) {
        sendError(request.fd, 400, std::string("Missing '") + key + "' field");
        return std::nullopt;
    }
    return body;
}

template <typename T>
T field(const json& body, const char* key, T fallback) {
    readField(body, key, fallback);
    return fallback;
}

// A part of the path: raw bytes that go into answers, so they are cleaned.
std::string param(const RouteParams& params, std::string_view name) {
    return sanitize_utf8(params.get(name));
}

// The request's tenant, from its headers: raw bytes, cleaned like the path.
std::string requestTenant() {
    return sanitize_utf8(currentTenant().tenant_id);
}

// Body routes act for the tenant of the request unless the body names one.
std::string tenantFrom(const json& body) {
    return field(body, "tenant_id", requestTenant());
}

// "/namespaces" and "/namespaces/" both mean the request's own tenant.
std::string namespacesTenant(const RouteParams& params) {
    const std::string tenant = param(params, "tenant");
    return tenant.empty() ? requestTenant() : tenant;
}

void getHealth(VectorStorageService& service, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, service.getHealth());
}

void getMetrics(VectorStorageService& service, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, service.getMetrics());
}

void listNamespaces(VectorStorageService& service, const HttpRequest& request,
                    const RouteParams& params) {
    const std::string tenant = namespacesTenant(params);
    const json list = toJsonArray(service.listNamespaces(tenant));
    sendJson(request.fd, 200, {{"tenant_id", tenant}, {"namespaces", list}, {"count", list.size()}});
}

void createNamespaceIn(VectorStorageService& service, const HttpRequest& request,
                       const std::string& tenant, const std::string& ns, const json& body) {
    if (const Status created = service.tryCreateNamespace(
            tenant, ns, field(body, "name", std::string()), field(body, "description", std::string()));
        !created) {
        sendError(request.fd, statusFor(kNamespaceStatuses, created.kind, 400), created.message);
        return;
    }
    json answer = {{"status", "created"}};
    if (auto record = service.getNamespace(tenant, ns)) answer["namespace"] = record->toJson();
    sendJson(request.fd, 201, answer);
}

// The namespace id comes from the body.
void createNamespace(VectorStorageService& service, const HttpRequest& request,
                     const RouteParams& params) {
    const auto body = readBodyWith(request, "namespace_id");
    if (!body) return;
    createNamespaceIn(service, request, namespacesTenant(params),
                      field(*body, "namespace_id", std::string()), *body);
}

// The namespace id comes from the path.
void createNamedNamespace(VectorStorageService& service, const HttpRequest& request,
                          const RouteParams& params) {
    const auto body = readJsonObject(request);
    if (!body) return;
    createNamespaceIn(service, request, param(params, "tenant"), param(params, "namespace"),
                      *body);
}

void getNamespace(VectorStorageService& service, const HttpRequest& request,
                  const RouteParams& params) {
    if (auto record = service.getNamespace(param(params, "tenant"), param(params, "namespace")))
        sendJson(request.fd, 200, record->toJson());
    else
        sendError(request.fd, 404, kNamespaceNotFound);
}

void deleteNamespace(VectorStorageService& service, const HttpRequest& request,
                     const RouteParams& params) {
    if (const Status deleted =
            service.tryDeleteNamespace(param(params, "tenant"), param(params, "namespace"));
        !deleted)
        sendError(request.fd, statusFor(kNamespaceStatuses, deleted.kind, 400), deleted.message);
    else
        sendJson(request.fd, 200, {{"status", "deleted"}});
}

void getDocument(VectorStorageService& service, const HttpRequest& request,
                 const RouteParams& params) {
    if (auto document = service.getDocument(param(params, "tenant"), param(params, "namespace"),
                                            param(params, "id")))
        sendJson(request.fd, 200, document->toJson());
    else
        sendError(request.fd, 404, "Document not found");
}

void addDocuments(VectorStorageService& service, const HttpRequest& request,
                  const RouteParams& params) {
    const auto body = readJsonObject(request);
    if (!body) return;
    VectorAddRequest add = VectorAddRequest::fromJson(*body);
    add.tenant_id = param(params, "tenant");
    add.namespace_id = param(params, "namespace");
    const VectorAddResponse result = service.addDocuments(add);
    sendJson(request.fd, result.success ? 201 : 400, result.toJson());
}

void sendDeleted(int fd, int64_t count) {
    sendJson(fd, 200, {{"deleted_count", count}});
}

// Ids are the client's and may hold "/": everything after the namespace.
void deleteDocument(VectorStorageService& service, const HttpRequest& request,
                    const RouteParams& params) {
    sendDeleted(request.fd, service.deleteDocuments(param(params, "tenant"),
                                                    param(params, "namespace"),
                                                    {param(params, "id")}));
}

void deleteDocuments(VectorStorageService& service, const HttpRequest& request,
                     const RouteParams& params) {
    if (const auto body = readBodyWith(request, "ids"))
        sendDeleted(request.fd,
                    service.deleteDocuments(param(params, "tenant"), param(params, "namespace"),
                                            field(*body, "ids", std::vector<std::string>())));
}

void listSources(VectorStorageService& service, const HttpRequest& request,
                 const RouteParams& params) {
    json sources = json::array();
    for (const std::string& source :
         service.listSources(param(params, "tenant"), param(params, "namespace")))
        sources.push_back(sanitize_utf8(source));
    sendJson(request.fd, 200, {{"sources", sources}, {"count", sources.size()}});
}

void deleteSource(VectorStorageService& service, const HttpRequest& request,
                  const RouteParams& params) {
    if (const auto body = readBodyWith(request, "source"))
        sendDeleted(request.fd,
                    service.deleteBySource(param(params, "tenant"), param(params, "namespace"),
                                           field(*body, "source", std::string())));
}

void sendSearch(int fd, const VectorSearchResponse& response) {
    sendJson(fd, response.success ? 200 : statusFor(kSearchStatuses, response.kind, 500),
             response.toJson());
}

void search(VectorStorageService& service, const HttpRequest& request, const RouteParams&) {
    const auto body = readJsonObject(request);
    if (!body) return;
    VectorSearchRequest query = VectorSearchRequest::fromJson(*body);
    query.tenant_id = tenantFrom(*body);
    if (query.query.empty() && query.query_embedding.empty()) {
        sendError(request.fd, 400, "Missing 'query' field");
        return;
    }
    sendSearch(request.fd, service.search(query));
}

void textSearch(VectorStorageService& service, const HttpRequest& request, const RouteParams&) {
    const auto parsed = readJsonObject(request);
    if (!parsed) return;
    const json& body = *parsed;
    // No query matches every document, up to the limit.
    const std::string query = field(body, "query", std::string());
    sendSearch(request.fd, service.textSearch(tenantFrom(body),
                                              field(body, "namespace_id", std::string("default")),
                                              query, field(body, "limit", kDefaultTextSearchLimit),
                                              field(body, "field", std::string())));
}

void embed(VectorStorageService& service, const HttpRequest& request, const RouteParams&) {
    const auto parsed = readJsonObject(request);
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

void ingest(VectorStorageService& service, const HttpRequest& request, const RouteParams&) {
    const auto parsed = readBodyWith(request, "source");
    if (!parsed) return;
    const json& body = *parsed;
    const VectorAddResponse result =
        service.addText(tenantFrom(body), field(body, "namespace_id", std::string("default")),
                        field(body, "text", std::string()), field(body, "source", std::string()),
                        field(body, "metadata", std::map<std::string, std::string>()));
    sendJson(request.fd, result.success ? 201 : 400, result.toJson());
}

constexpr ServiceRoute<VectorStorageService> kVectorRoutes[] = {
    {"GET", "/api/v1/vector/health", getHealth},
    {"GET", "/api/v1/vector/metrics", getMetrics},
    {"POST", "/api/v1/vector/search", search},
    {"POST", "/api/v1/vector/text-search", textSearch},
    {"POST", "/api/v1/vector/embed", embed},
    {"POST", "/api/v1/vector/ingest", ingest},
    {"GET", "/api/v1/vector/namespaces", listNamespaces},
    {"POST", "/api/v1/vector/namespaces", createNamespace},
    {"GET", "/api/v1/vector/namespaces/{tenant}", listNamespaces},
    {"POST", "/api/v1/vector/namespaces/{tenant}", createNamespace},
    {"GET", "/api/v1/vector/namespaces/{tenant}/{namespace}", getNamespace},
    {"POST", "/api/v1/vector/namespaces/{tenant}/{namespace}", createNamedNamespace},
    {"DELETE", "/api/v1/vector/namespaces/{tenant}/{namespace}", deleteNamespace},
    // Without an id (with or without a trailing "/"): the body says what.
    {"POST", "/api/v1/vector/documents/{tenant}/{namespace}", addDocuments},
    {"POST", "/api/v1/vector/documents/{tenant}/{namespace}/", addDocuments},
    {"DELETE", "/api/v1/vector/documents/{tenant}/{namespace}", deleteDocuments},
    {"DELETE", "/api/v1/vector/documents/{tenant}/{namespace}/", deleteDocuments},
    {"GET", "/api/v1/vector/documents/{tenant}/{namespace}/{id+}", getDocument},
    {"DELETE", "/api/v1/vector/documents/{tenant}/{namespace}/{id+}", deleteDocument},
    {"GET", "/api/v1/vector/sources/{tenant}/{namespace}", listSources},
    {"DELETE", "/api/v1/vector/sources/{tenant}/{namespace}", deleteSource},
};

using ConfigRoute = Route<void (DataDaemon::*)(const HttpRequest&, const RouteParams&)>;

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("vector", kVectorRoutes);

}  // namespace

std::unique_ptr<VectorStorageService> DataDaemon::makeVectorService(
    const VectorStorageConfig& config) {
    auto service = std::make_unique<VectorStorageService>();
    if (service->initialize(config)) return service;
    kLog.error("Failed to initialize vector storage");
    return nullptr;
}

void DataDaemon::startVector() {
    EmbeddingConfig embedding;
    embedding.url = config_.embedding_url;
    embedding.model = config_.embedding_model;
    embedding.dimension = config_.embedding_dimension;
    bool from_file = false;
    VectorStorageConfig settings = VectorStorageService::startupConfig(
        config_.vector_path, embedding, config_.vector_enabled, from_file);
    if (settings.enabled) {
        if (from_file && !config_.vector_enabled)
            kLog.info("Auto-enabling vector storage from persisted config (embedding: ",
                      settings.embedding.url, ", model: ", settings.embedding.model, ")");
        auto service = makeVectorService(settings);
        settings.enabled = service != nullptr;
        vector_.replace(std::move(service));
    }
    std::lock_guard lock(vector_config_mutex_);
    *vector_config_ = settings;
}

void DataDaemon::handleVectorApi(const HttpRequest& request) {
    // Shared for the whole request: the settings route cannot stop the
    // service under it, and requests never wait for each other.
    serveRoutesIn(vector_, kVectorRoutes, request, kNotFound, kNotEnabled);
}

void DataDaemon::handleVectorConfig(const HttpRequest& request) {
    static constexpr ConfigRoute kConfigRoutes[] = {
        {"GET", "/api/v1/vector/config", &DataDaemon::getVectorConfig},
        {"PUT", "/api/v1/vector/config", &DataDaemon::putVectorConfig},
    };
    serveRoutes(*this, kConfigRoutes, request, kNotFound);
}

void DataDaemon::getVectorConfig(const HttpRequest& request, const RouteParams&) {
    std::lock_guard lock(vector_config_mutex_);
    const VectorStorageConfig settings = vector_.with(
        [](VectorStorageService& service) { return service.getConfig(); }, *vector_config_);
    sendJson(request.fd, 200, VectorStorageService::publicJson(settings));
}

void DataDaemon::putVectorConfig(const HttpRequest& request, const RouteParams&) {
    using Action = VectorStorageService::ConfigChange::Action;
    const int fd = request.fd;
    std::lock_guard lock(vector_config_mutex_);
    const std::optional<VectorStorageConfig> running = vector_.with(
        [](VectorStorageService& service) -> std::optional<VectorStorageConfig> {
            return service.getConfig();
        },
        std::nullopt);
    VectorStorageService::ConfigChange change = VectorStorageService::planConfigChange(
        running.value_or(*vector_config_), running.has_value(), request.body);
    if (!change.error.empty()) {
        sendJson(fd, 400, {{"error", kUpdateFailed}, {"detail", change.error}});
        return;
    }

    json answer = {{"status", change.changed ? "updated" : "unchanged"}};
    bool saved = true;
    switch (change.action) {
        case Action::Start:
        case Action::Restart: {
            bool started = false;
            // The old service stops before the new one opens its files.
            vector_.replace([&] {
                auto service = makeVectorService(change.config);
                started = service != nullptr;
                return service;
            });
            if (!started) {
                change.config.enabled = false;
                *vector_config_ = change.config;
                const char* failed = "Failed to initialize vector storage";
                sendJson(fd, 500, {{"error", failed}, {"message", failed}});
                return;
            }
            answer["message"] = change.action == Action::Start ? "Vector storage service started"
                                                               : "Vector storage service restarted";
            break;
        }
        case Action::Stop:
            vector_.reset();
            saved = VectorStorageService::saveConfigFile(change.config);
            answer["message"] = "Vector storage service stopped";
            break;
        case Action::Reconfigure:
        case Action::None:
            saved = vector_.with(
                [&](VectorStorageService& service) { return service.updateConfig(change.config); },
                [&] { return VectorStorageService::saveConfigFile(change.config); });
            break;
    }
    *vector_config_ = change.config;
    if (!saved) {
        sendError(fd, 500, kUpdateFailed);
        return;
    }
    answer["config"] = VectorStorageService::publicJson(change.config);
    sendJson(fd, 200, answer);
}

}  // namespace vostra::data
