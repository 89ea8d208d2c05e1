// The tenant API: "/api/v1/tenants" lists and creates tenants,
// "/api/v1/tenants/<id>" reads, replaces and deletes one, and
// "/api/v1/tenants/<id>/usage" reports its storage use. Handlers parse and
// map results to statuses; the table and its rules live in StorageService.
#include <nlohmann/json.hpp>

#include "common/json_fields.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

constexpr const char* kTenantNotFound = "Tenant not found";

constexpr KindStatus kTenantStatuses[] = {
    {ErrorKind::Invalid, 400},
    {ErrorKind::NotFound, 404},
    {ErrorKind::Internal, 500},
};

// An unknown tenant answers the fixed "Tenant not found"; any other failure
// its own message.
void sendFailure(int fd, const Status& failure) {
    sendError(fd, statusFor(kTenantStatuses, failure.kind, 500),
              failure.kind == ErrorKind::NotFound ? kTenantNotFound : failure.message);
}

// The optional body of a DELETE.
struct DeleteOptions {
    bool force = false;

    static DeleteOptions fromJson(const nlohmann::json& json) {
        DeleteOptions options;
        if (json.is_object()) readField(json, "force", options.force);
        return options;
    }
};

void listTenants(StorageService& storage, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, toJsonArray(storage.listTenants()));
}

// The body onto a usable tenant: keys it leaves out do not disable the
// tenant or give it no room.
std::optional<TenantConfig> readTenant(const HttpRequest& request) {
    const auto body = readRequiredJsonObject(request);
    if (!body) return std::nullopt;
    TenantConfig tenant = TenantConfig::usableDefaults();
    tenant.merge(*body);
    return tenant;
}

void createTenant(StorageService& storage, const HttpRequest& request, const RouteParams&) {
    const auto tenant = readTenant(request);
    if (!tenant) return;
    if (const Status created = storage.tryCreateTenant(*tenant); !created) {
        // An id that could climb out of the storage root gets its own answer
        // rather than "may already exist", and so does a disk that failed.
        if (created.kind == ErrorKind::Conflict)
            sendError(request.fd, 400, "Failed to create tenant (may already exist)");
        else
            sendError(request.fd, statusFor(kTenantStatuses, created.kind, 400), created.message);
        return;
    }
    sendJson(request.fd, 201, {{"status", "created"}, {"id", tenant->id}});
}

void getTenant(StorageService& storage, const HttpRequest& request, const RouteParams& params) {
    if (auto tenant = storage.getTenant(params.get("id")))
        sendJson(request.fd, 200, tenant->toJson());
    else
        sendError(request.fd, 404, kTenantNotFound);
}

void getUsage(StorageService& storage, const HttpRequest& request, const RouteParams& params) {
    TenantUsage usage;
    if (const Status found = storage.tryGetTenantUsage(params.get("id"), usage); !found)
        sendError(request.fd, 400, found.message);
    else
        sendJson(request.fd, 200, usage.toJson());
}

void updateTenant(StorageService& storage, const HttpRequest& request, const RouteParams& params) {
    auto tenant = readTenant(request);
    if (!tenant) return;
    // The URL names the tenant; an id in the body cannot redirect the update
    // to another one.
    tenant->id = params.get("id");
    if (const Status updated = storage.tryUpdateTenant(*tenant); !updated)
        sendFailure(request.fd, updated);
    else
        sendJson(request.fd, 200, {{"status", "updated"}, {"id", tenant->id}});
}

void deleteTenant(StorageService& storage, const HttpRequest& request, const RouteParams& params) {
    DeleteOptions options;
    if (!request.body.empty()) {
        const auto read = readJsonBody<DeleteOptions>(request);
        if (!read) return;
        options = *read;
    }
    const std::string id = params.get("id");
    if (const Status deleted = storage.tryDeleteTenant(id, options.force); !deleted)
        sendFailure(request.fd, deleted);
    else
        sendJson(request.fd, 200, {{"status", "deleted"}, {"id", id}});
}

constexpr ServiceRoute<StorageService> kTenantRoutes[] = {
    {"GET", "/api/v1/tenants", listTenants},
    {"POST", "/api/v1/tenants", createTenant},
    {"GET", "/api/v1/tenants/{id}", getTenant},
    {"PUT", "/api/v1/tenants/{id}", updateTenant},
    {"DELETE", "/api/v1/tenants/{id}", deleteTenant},
    {"GET", "/api/v1/tenants/{id}/usage", getUsage},
    // Any other sub-path: "Not found" to a GET, "Method not allowed" otherwise.
    {"GET", "/api/v1/tenants/{id}/{rest*}", nullptr},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("tenants", kTenantRoutes);

}  // namespace

void DataDaemon::handleTenants(const HttpRequest& request) {
    serveRoutesIn(storage_, kTenantRoutes, request, "Not found", StorageService::kNotAvailable);
}

bool DataDaemon::createTenant(const TenantConfig& tenant) {
    return storage_.with([&](StorageService& s) { return s.createTenant(tenant); }, false);
}

bool DataDaemon::updateTenant(const TenantConfig& tenant) {
    return storage_.with([&](StorageService& s) { return s.updateTenant(tenant); }, false);
}

bool DataDaemon::deleteTenant(const std::string& id, bool force) {
    return storage_.with([&](StorageService& s) { return s.deleteTenant(id, force); }, false);
}

std::optional<TenantConfig> DataDaemon::getTenant(const std::string& id) const {
    return storage_.with([&](StorageService& s) { return s.getTenant(id); }, std::nullopt);
}

std::vector<TenantConfig> DataDaemon::listTenants() const {
    return storage_.with([](StorageService& s) { return s.listTenants(); },
                         std::vector<TenantConfig>{});
}

TenantUsage DataDaemon::getTenantUsage(const std::string& id) const {
    return storage_.with([&](StorageService& s) { return s.getTenantUsage(id); },
                         [&] {
                             TenantUsage empty;
                             empty.tenant_id = id;
                             return empty;
                         });
}

}  // namespace vostra::data
