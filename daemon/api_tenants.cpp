// The tenant API: "/api/v1/tenants" lists and creates tenants,
// "/api/v1/tenants/<id>" reads, replaces and deletes one, and
// "/api/v1/tenants/<id>/usage" reports its storage use. Handlers parse and
// map results to statuses; the table and its rules live in StorageService.
#include <nlohmann/json.hpp>

#include "common/json_fields.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/route_paths.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

constexpr std::string_view kTenantsPrefix = "/api/v1/tenants/";

// A body that is not JSON, or a key of the wrong type, is answered 400 with
// the parser's message.
bool parseTenant(const HttpRequest& request, TenantConfig& out) {
    try {
        out = TenantConfig::fromJson(nlohmann::json::parse(request.body));
        return true;
    } catch (const nlohmann::json::exception& error) {
        sendError(request.fd, 400, error.what());
        return false;
    }
}

}  // namespace

bool DataDaemon::createTenant(const TenantConfig& tenant) {
    std::shared_lock lock(storage_mutex_);
    return storage_ && storage_->createTenant(tenant);
}

bool DataDaemon::updateTenant(const TenantConfig& tenant) {
    std::shared_lock lock(storage_mutex_);
    return storage_ && storage_->updateTenant(tenant);
}

bool DataDaemon::deleteTenant(const std::string& id, bool force) {
    std::shared_lock lock(storage_mutex_);
    return storage_ && storage_->deleteTenant(id, force);
}

std::optional<TenantConfig> DataDaemon::getTenant(const std::string& id) const {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->getTenant(id) : std::nullopt;
}

std::vector<TenantConfig> DataDaemon::listTenants() const {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->listTenants() : std::vector<TenantConfig>{};
}

TenantUsage DataDaemon::getTenantUsage(const std::string& id) const {
    std::shared_lock lock(storage_mutex_);
    if (storage_) return storage_->getTenantUsage(id);
    TenantUsage empty;
    empty.tenant_id = id;
    return empty;
}

void DataDaemon::handleTenants(const HttpRequest& request) {
    const int fd = request.fd;
    if (!hasStorage()) {
        sendError(fd, 503, StorageService::kNotAvailable);
        return;
    }
    if (request.method == "GET") {
        nlohmann::json all = nlohmann::json::array();
        for (const TenantConfig& tenant : listTenants())
            all.push_back(tenant.toJson());
        sendJson(fd, 200, all);
        return;
    }
    if (request.method != "POST") {
        sendError(fd, 405, "Method not allowed");
        return;
    }
    TenantConfig tenant;
    if (!parseTenant(request, tenant)) return;
    // The id names a directory under the storage root; one that could climb
    // out of it gets its own answer rather than "may already exist".
    if (const std::string problem = StorageService::tenantIdProblem(tenant.id); !problem.empty()) {
        sendError(fd, 400, problem);
        return;
    }
    if (!createTenant(tenant)) {
        sendError(fd, 400, "Failed to create tenant (may already exist)");
        return;
    }
    sendJson(fd, 201, {{"status", "created"}, {"id", tenant.id}});
}

void DataDaemon::handleTenantById(const HttpRequest& request) {
    const int fd = request.fd;
    if (!hasStorage()) {
        sendError(fd, 503, StorageService::kNotAvailable);
        return;
    }
    const auto [id, sub_path] = splitIdAndSubPath(request.path, kTenantsPrefix);

    if (request.method == "GET") {
        if (sub_path.empty()) {
            if (auto tenant = getTenant(id))
                sendJson(fd, 200, tenant->toJson());
            else
                sendError(fd, 404, "Tenant not found");
        } else if (sub_path == "/usage") {
            if (const std::string problem = StorageService::tenantIdProblem(id); !problem.empty())
                sendError(fd, 400, problem);
            else
                sendJson(fd, 200, getTenantUsage(id).toJson());
        } else {
            sendError(fd, 404, "Not found");
        }
        return;
    }
    if (request.method == "PUT" && sub_path.empty()) {
        TenantConfig tenant;
        if (!parseTenant(request, tenant)) return;
        // The URL names the tenant; an id in the body cannot redirect the
        // update to another one.
        tenant.id = id;
        if (updateTenant(tenant))
            sendJson(fd, 200, {{"status", "updated"}, {"id", id}});
        else
            sendError(fd, 404, "Tenant not found");
        return;
    }
    if (request.method == "DELETE" && sub_path.empty()) {
        bool force = false;
        if (!request.body.empty()) {
            try {
                const nlohmann::json body = nlohmann::json::parse(request.body);
                if (body.is_object()) vostra::readField(body, "force", force);
            } catch (const nlohmann::json::exception& error) {
                sendError(fd, 400, error.what());
                return;
            }
        }
        if (deleteTenant(id, force))
            sendJson(fd, 200, {{"status", "deleted"}, {"id", id}});
        else
            sendError(fd, 404, "Tenant not found");
        return;
    }
    sendError(fd, 405, "Method not allowed");
}

}  // namespace vostra::data
