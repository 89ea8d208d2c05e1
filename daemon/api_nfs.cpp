// The NFS API under "/api/v1/nfs": the NFS-Ganesha configuration (whole,
// exports, mounts of other workers), the generated "ganesha.conf", applying
// it to the host's Ganesha, and status and metrics. The configuration lives
// in the daemon's memory under one mutex and exists whether or not the
// built-in NFS responder runs; changes reach Ganesha only through apply.
#include <charconv>
#include <nlohmann/json.hpp>

#include "common/atomic_file.h"
#include "common/json_fields.h"
#include "common/log.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/route_table.h"
#include "nfs/ganesha_config_generator.h"
#include "nfs/nfs_server.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr const char* kNotFound = "NFS endpoint not found";

void getStatus(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    json status = {{"enabled", daemon.isNFSEnabled()}, {"running", daemon.isNFSRunning()}};
    if (GaneshaConfigGenerator::isGaneshaInstalled())
        status["ganesha_version"] = GaneshaConfigGenerator::getGaneshaVersion();
    sendJson(request.fd, 200, status);
}

void getConfig(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, daemon.getNFSConfiguration().toJson());
}

void putConfig(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    auto config = readJsonBody<NFSConfiguration>(request);
    if (!config) return;
    daemon.updateNFSConfiguration(std::move(*config));
    sendJson(request.fd, 200, {{"status", "updated"}});
}

void listExports(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, toJsonArray(daemon.getNFSConfiguration().exports));
}

void addExport(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    const auto added = readJsonBody<GaneshaExportConfig>(request);
    if (!added) return;
    if (!daemon.addNFSExport(*added)) {
        sendError(request.fd, 400, "Export ID already exists");
        return;
    }
    sendJson(request.fd, 201, {{"status", "created"}, {"export_id", added->export_id}});
}

// The id as a whole decimal number; anything else names no export.
std::optional<int32_t> exportId(const std::string& text) {
    int32_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return id;
}

void deleteExport(DataDaemon& daemon, const HttpRequest& request, const RouteParams& params) {
    const auto id = exportId(params.get("id"));
    if (!id || !daemon.removeNFSExport(*id)) {
        sendError(request.fd, 404, "Export not found");
        return;
    }
    sendJson(request.fd, 200, {{"status", "deleted"}});
}

// Replaces the exports with a root export of the tenants folder and one
// per tenant, each with the client rules of the body's "clients".
void exportTenants(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    const auto body = readJsonObject(request);
    if (!body) return;
    std::vector<GaneshaClientConfig> clients;
    if (auto it = body->find("clients"); it != body->end())
        for (const json& rule : it->get<std::vector<json>>())
            clients.push_back(GaneshaClientConfig::fromJson(rule));
    const auto exports = daemon.deriveNFSExportsFromTenants(clients);
    if (!exports) {
        sendError(request.fd, 503, StorageService::kNotAvailable);
        return;
    }
    sendJson(request.fd, 200, toJsonArray(*exports));
}

void listMounts(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, toJsonArray(daemon.getNFSConfiguration().remote_mounts));
}

void addMount(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    const auto added = readJsonBody<RemoteDataWorkerMount>(request);
    if (!added) return;
    if (!daemon.addRemoteMount(*added)) {
        sendError(request.fd, 400, "Mount ID already exists");
        return;
    }
    sendJson(request.fd, 201, {{"status", "created"}, {"id", added->id}});
}

void getMountUnit(DataDaemon& daemon, const HttpRequest& request, const RouteParams& params) {
    const std::string id = params.get("id");
    for (const RemoteDataWorkerMount& mount : daemon.getNFSConfiguration().remote_mounts) {
        if (mount.id == id) {
            sendJson(request.fd, 200, {{"unit", mount.generateMountUnit()}});
            return;
        }
    }
    sendError(request.fd, 404, "Mount not found");
}

void deleteMount(DataDaemon& daemon, const HttpRequest& request, const RouteParams& params) {
    if (!daemon.removeRemoteMount(params.get("id"))) {
        sendError(request.fd, 404, "Mount not found");
        return;
    }
    sendJson(request.fd, 200, {{"status", "deleted"}});
}

void getGaneshaConf(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, {{"config", daemon.generateGaneshaConf()}});
}

void apply(DataDaemon& daemon, const HttpRequest& request, const RouteParams&) {
    if (const Status applied = daemon.applyNFSConfiguration(); !applied) {
        sendJson(request.fd, 500,
                 {{"error", "Failed to apply configuration"}, {"detail", applied.message}});
        return;
    }
    sendJson(request.fd, 200, {{"status", "applied"}});
}

constexpr ServiceRoute<DataDaemon> kNfsRoutes[] = {
    {"GET", "/api/v1/nfs/status", getStatus},
    {"GET", "/api/v1/nfs/config", getConfig},
    {"PUT", "/api/v1/nfs/config", putConfig},
    {"GET", "/api/v1/nfs/exports", listExports},
    {"POST", "/api/v1/nfs/exports", addExport},
    {"POST", "/api/v1/nfs/exports/tenants", exportTenants},
    {"DELETE", "/api/v1/nfs/exports/{id}", deleteExport},
    {"GET", "/api/v1/nfs/mounts", listMounts},
    {"POST", "/api/v1/nfs/mounts", addMount},
    {"GET", "/api/v1/nfs/mounts/{id+}", getMountUnit},
    {"DELETE", "/api/v1/nfs/mounts/{id+}", deleteMount},
    {"GET", "/api/v1/nfs/ganesha-conf", getGaneshaConf},
    {"POST", "/api/v1/nfs/apply", apply},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("nfs", kNfsRoutes);

}  // namespace

void DataDaemon::startNFS() {
    NFSServerConfig nfs;
    nfs.port = config_.nfs_port;
    nfs.bind_address = config_.nfs_bind_address;
    nfs.export_path = config_.nfs_export_path;
    nfs.allowed_networks = config_.nfs_allowed_networks;
    nfs.read_only = config_.nfs_read_only;
    nfs.root_squash = config_.nfs_root_squash;
    nfs.anonymous_uid = static_cast<uint32_t>(config_.nfs_anonymous_uid);
    nfs.anonymous_gid = static_cast<uint32_t>(config_.nfs_anonymous_gid);
    nfs.max_connections = config_.nfs_max_connections;
    // The storage service lives until stop(), which stops this server first.
    const StorageService* storage = nullptr;
    storage_.with([&](StorageService& service) { storage = &service; }, [] {});
    auto server = std::make_unique<NFSServer>(storage, config_.storage_path);
    if (!server->initialize(nfs)) {
        kLog.error("Failed to initialize NFS server");
        return;
    }
    nfs_server_ = std::move(server);
}

bool DataDaemon::isNFSRunning() const { return nfs_server_ && nfs_server_->isRunning(); }

NFSConfiguration DataDaemon::getNFSConfiguration() const {
    std::lock_guard lock(nfs_mutex_);
    return nfs_config_;
}

void DataDaemon::updateNFSConfiguration(NFSConfiguration config) {
    std::lock_guard lock(nfs_mutex_);
    nfs_config_ = std::move(config);
}

bool DataDaemon::addNFSExport(const GaneshaExportConfig& export_config) {
    std::lock_guard lock(nfs_mutex_);
    for (const GaneshaExportConfig& existing : nfs_config_.exports)
        if (existing.export_id == export_config.export_id) return false;
    nfs_config_.exports.push_back(export_config);
    return true;
}

bool DataDaemon::removeNFSExport(int32_t export_id) {
    std::lock_guard lock(nfs_mutex_);
    return std::erase_if(nfs_config_.exports, [&](const GaneshaExportConfig& e) {
               return e.export_id == export_id;
           }) > 0;
}

bool DataDaemon::addRemoteMount(const RemoteDataWorkerMount& mount) {
    std::lock_guard lock(nfs_mutex_);
    for (const RemoteDataWorkerMount& existing : nfs_config_.remote_mounts)
        if (existing.id == mount.id) return false;
    nfs_config_.remote_mounts.push_back(mount);
    return true;
}

bool DataDaemon::removeRemoteMount(const std::string& id) {
    std::lock_guard lock(nfs_mutex_);
    return std::erase_if(nfs_config_.remote_mounts,
                         [&](const RemoteDataWorkerMount& m) { return m.id == id; }) > 0;
}

std::optional<std::vector<GaneshaExportConfig>> DataDaemon::deriveNFSExportsFromTenants(
    const std::vector<GaneshaClientConfig>& clients) {
    std::optional<std::vector<GaneshaExportConfig>> exports;
    // The folders where the tenants' files really are.
    storage_.with(
        [&](StorageService& storage) {
            exports = GaneshaConfigGenerator::generateExportsFromTenants(
                storage, config_.storage_path + "/tenants", clients);
        },
        [] {});
    if (!exports) return exports;
    std::lock_guard lock(nfs_mutex_);
    nfs_config_.exports = *exports;
    return exports;
}

std::string DataDaemon::generateGaneshaConf() const {
    std::lock_guard lock(nfs_mutex_);
    return GaneshaConfigGenerator::generateGaneshaConf(nfs_config_);
}

Status DataDaemon::applyNFSConfiguration() {
    std::string text;
    {
        // Held only to read: the file and the reload come after.
        std::lock_guard lock(nfs_mutex_);
        std::string problem;
        if (!GaneshaConfigGenerator::validateConfig(nfs_config_, problem))
            return Status::failure(ErrorKind::Invalid, problem);
        text = GaneshaConfigGenerator::generateGaneshaConf(nfs_config_);
    }
    const std::string& path = config_.ganesha_conf_path;
    // Whole or not at all: Ganesha may reread the file at any moment.
    if (const Status written = writeFileAtomically(path, text, 0644); !written) {
        kLog.error("Cannot write to ", path);
        return Status::failure(ErrorKind::Internal, "Cannot write to " + path + ": " + written.message);
    }
    if (!GaneshaConfigGenerator::reloadConfig())
        return Status::failure(ErrorKind::Unavailable,
                               "Configuration written to " + path + ", but Ganesha could not be reloaded");
    return Status::success();
}

nlohmann::json DataDaemon::getNFSMetrics() const {
    json metrics = nfs_server_ ? nfs_server_->metricsJson()
                               : json{{"active_connections", 0}, {"total_connections", 0},
                                      {"total_reads", 0},        {"total_writes", 0},
                                      {"bytes_read", 0},         {"bytes_written", 0},
                                      {"bytes_read_gb", 0.0},    {"bytes_written_gb", 0.0},
                                      {"errors", 0}};
    return {{"enabled", isNFSEnabled()}, {"running", isNFSRunning()}, {"metrics", metrics}};
}

std::string DataDaemon::generateNFSExports() const {
    return nfs_server_ ? nfs_server_->generateExportsFile() : "# NFS server not initialized\n";
}

std::string DataDaemon::generateNFSMountUnit(const std::string& host,
                                             const std::string& mount_point) const {
    return nfs_server_ ? nfs_server_->generateMountUnit(host, mount_point) : std::string();
}

void DataDaemon::handleNFSApi(const HttpRequest& request) {
    serveRoutes(*this, kNfsRoutes, request, kNotFound);
}

}  // namespace vostra::data
