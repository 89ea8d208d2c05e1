// Who may do what: the check every request passes before its area sees it
// (in "keys" mode), the admin routes that issue, list and revoke tenant keys
// ("/api/v1/auth/"), the refusal of SQLite sources outside their folders or
// on the daemon's own state, and HTTPS.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "connectors/agent_storage.h"
#include "connectors/data_source_registry.h"
#include "daemon/access_policy.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/request_context.h"
#include "daemon/route_table.h"
#include "daemon/tls_relay.h"
#include "security/api_key_store.h"
#include "security/failure_limiter.h"
#include "security/sqlite_roots.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using security::ApiKeyStore;

constexpr Log kLog("[Auth] ");
constexpr const char* kTenantKeysFile = "tenant_keys.json";
constexpr const char* kDefaultStateDir = "/var/lib/vostra";
constexpr const char* kNotFound = "Not found";

void sendKeyFailure(int fd, const Status& status) {
    const int code = status.kind == ErrorKind::NotFound ? 404 : status.kind == ErrorKind::Invalid ? 400 : 500;
    sendError(fd, code, status.message);
}

void issueKey(ApiKeyStore& keys, const HttpRequest& request, const RouteParams& params) {
    security::IssuedKey issued;
    if (Status made = keys.issue(params.get("tenant"), issued); !made) return sendKeyFailure(request.fd, made);
    kLog.info("Issued key ", issued.id, " for tenant ", issued.tenant);
    sendJson(request.fd, 201, issued.toJson());
}

void listKeys(ApiKeyStore& keys, const HttpRequest& request, const RouteParams& params) {
    json listed = json::array();
    for (const security::IssuedKey& key : keys.list(params.get("tenant"))) listed.push_back(key.toJson());
    sendJson(request.fd, 200, {{"tenant_id", params.get("tenant")}, {"keys", listed}});
}

void revokeKey(ApiKeyStore& keys, const HttpRequest& request, const RouteParams& params) {
    if (Status revoked = keys.revoke(params.get("tenant"), params.get("id")); !revoked)
        return sendKeyFailure(request.fd, revoked);
    kLog.info("Revoked key ", params.get("id"), " of tenant ", params.get("tenant"));
    sendJson(request.fd, 200, {{"status", "revoked"}, {"id", params.get("id")}});
}

void whoAmI(ApiKeyStore& keys, const HttpRequest& request, const RouteParams&) {
    const security::Principal who = keys.authenticate(presentedKey(request.raw));
    json answer = {{"authenticated", who.known()}};
    if (who.admin()) answer["role"] = "admin";
    if (who.kind == security::Principal::Kind::Tenant) {
        answer["role"] = "tenant";
        answer["tenant_id"] = who.tenant;
    }
    sendJson(request.fd, 200, answer);
}

constexpr ServiceRoute<ApiKeyStore> kAuthRoutes[] = {
    {"GET", "/api/v1/auth/whoami", whoAmI},
    {"POST", "/api/v1/auth/tenants/{tenant}/keys", issueKey},
    {"GET", "/api/v1/auth/tenants/{tenant}/keys", listKeys},
    {"DELETE", "/api/v1/auth/tenants/{tenant}/keys/{id}", revokeKey},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("auth", kAuthRoutes);

}  // namespace

bool DataDaemon::startAuth() {
    std::string keys_file = config_.tenant_keys_file;
    if (keys_file.empty())
        keys_file = (fs::path(config_.data_dir.empty() ? kDefaultStateDir : config_.data_dir) / kTenantKeysFile).string();
    tenant_keys_file_ = keys_file;
    api_keys_ = std::make_unique<ApiKeyStore>(keys_file);
    auth_failures_ = std::make_unique<security::FailureLimiter>();
    keys_required_ = config_.auth_mode == "keys";
    if (Status loaded = api_keys_->load(); !loaded) {
        kLog.error(loaded.message);
        if (keys_required_) return false;
    }
    api_keys_->setAdminKeys(config_.admin_api_keys);
    if (!config_.admin_api_keys_file.empty()) {
        if (Status loaded = api_keys_->loadAdminKeyFile(config_.admin_api_keys_file); !loaded) {
            kLog.error(loaded.message);
            if (keys_required_) return false;
        }
    }
    if (keys_required_) {
        kLog.info("API keys required (", api_keys_->adminKeyCount(), " admin keys; tenant keys in ", keys_file, ")");
        if (api_keys_->adminKeyCount() == 0)
            kLog.error("No admin key is configured: only tenant keys issued earlier will be accepted");
    }

    if (!config_.tls_cert.empty()) {
        std::string problem;
        tls_ = TlsRelay::create(config_.tls_cert, config_.tls_key, config_.max_connections, problem);
        if (!tls_) {
            kLog.error(problem);
            return false;
        }
        kLog.info("Serving HTTPS with ", config_.tls_cert);
    }
    return true;
}

std::function<std::string(const DataSourceConfig&)> DataDaemon::sqliteAdmission() const {
    return [this](const DataSourceConfig& source) -> std::string {
        if (source.type != ConnectorType::SQLite) return "";
        security::SqlitePathRules rules;
        rules.roots = config_.sqlite_roots;
        if (rules.roots.empty() && keys_required_)
            rules.roots.push_back(config_.data_dir.empty() ? kDefaultStateDir : config_.data_dir);
        const fs::path agent_store = AgentStorage::defaultPath();
        rules.protected_paths = {
            agent_store.parent_path().string(),
            config_.data_dir.empty() ? "" : (fs::path(config_.data_dir) / "data_sources.json").string(),
            config_.storage_path + "/system",
            config_.vector_path,
            config_.git_path,
            config_.sandbox_path,
            forges_file_,
            tenant_keys_file_,
            config_.admin_api_keys_file,
            config_.science_keys_file,
            config_.science_providers_file,
            config_.models_registry_file,
            config_.tls_cert,
            config_.tls_key,
            "/etc/vostra",
        };
        return security::sqlitePathProblem(source.path, rules);
    };
}

bool DataDaemon::admitRequest(const HttpRequest& request) {
    if (!keys_required_ || isOpenRequest(request.method, request.path)) return true;
    const std::string address = TlsRelay::clientAddress(request.fd);
    const std::string_view route = pathWithoutQuery(request.path);
    if (auth_failures_->blocked(address)) {
        sendError(request.fd, 429, "Too many failed authentications");
        return false;
    }
    const std::string key = presentedKey(request.raw);
    const security::Principal who = api_keys_->authenticate(key);
    if (!who.known()) {
        // Only a wrong key counts towards the block: a request without one
        // is a client that has not logged in yet, not a guess.
        if (!key.empty() && auth_failures_->recordFailure(address))
            kLog.error("Blocking ", address, " for a minute after repeated failed authentications");
        kLog.error("Authentication ", key.empty() ? "missing" : "failed", " from ", address, " for ",
                   request.method, " ", route);
        sendError(request.fd, 401, "Authentication required");
        return false;
    }
    if (who.admin()) return true;
    if (!tenantMayReach(who.tenant, request.method, request.path, headerValue(request.raw, "X-Tenant-Id"),
                        request.body)) {
        kLog.error("Forbidden for tenant ", who.tenant, " from ", address, ": ", request.method, " ", route);
        sendError(request.fd, 403, "Forbidden");
        return false;
    }
    currentTenant().tenant_id = who.tenant;
    return true;
}

void DataDaemon::handleAuthApi(const HttpRequest& request) {
    const HttpRequest routed = withoutQuery(request);
    serveRoutes(*api_keys_, kAuthRoutes, routed, kNotFound);
}

}  // namespace vostra::data
