// The storage API: files of a tenant under "/api/v1/storage/<tenant>/<path>",
// the tenant taken from the URL (not from the tenant headers), and the start
// function of the storage service. Handlers map service results to
// statuses; every rule (access, quota, path safety) lives in StorageService
// and its backends.
#include <nlohmann/json.hpp>
#include <optional>

#include "common/log.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr const char* kRawContentType = "application/octet-stream";

// Kinds whose status is the same on every route; the rest take the route's.
constexpr KindStatus kStorageStatuses[] = {
    {ErrorKind::Invalid, 400},
    {ErrorKind::Refused, 400},
    {ErrorKind::Unavailable, 503},
};

int failureStatus(const StorageResult& result, int route_failure) {
    return statusFor(kStorageStatuses, result.kind, route_failure);
}

void sendResult(int fd, const StorageResult& result, int success_status, int failure_status) {
    const int status = result.success ? success_status : failureStatus(result, failure_status);
    sendJson(fd, status, result.toJson());
}

// What the storage rows are handed: the service, and the place for a file
// to stream once its lock is released, so that a slow reader never holds
// up stop().
struct StorageCall {
    StorageService& storage;
    std::optional<OpenedFile> download;
    std::string content_type;
};

// A path that names a file is read; an empty one, or one ending in "/",
// lists a folder.
void getFile(StorageCall& call, const HttpRequest& request, const RouteParams& params) {
    const std::string tenant = params.get("tenant");
    const std::string path = params.get("path");
    if (path.empty() || path.ends_with('/')) {
        StorageListRequest list;
        list.tenant_id = tenant;
        list.path = path;
        sendResult(request.fd, call.storage.list(list), 200, 404);
        return;
    }
    StorageReadRequest read;
    read.tenant_id = tenant;
    read.path = path;
    read.include_metadata = true;
    OpenedFile file;
    const StorageResult result = call.storage.openFile(read, file);
    if (!result.success) {
        sendError(request.fd, failureStatus(result, 404), result.error);
        return;
    }
    // The stored type is sent even when empty; only a result without an
    // entry falls back to raw bytes.
    std::string content_type = result.entry ? result.entry->content_type : kRawContentType;
    if (file.fd() < 0) {
        sendResponse(request.fd, 200, result.data, content_type);
        return;
    }
    call.download = std::move(file);
    call.content_type = std::move(content_type);
}

void putFile(StorageCall& call, const HttpRequest& request, const RouteParams& params) {
    StorageWriteRequest write;
    write.tenant_id = params.get("tenant");
    write.path = params.get("path");
    // The body moves on: a large upload is held once, not once per layer.
    if (std::string problem = write.readBody(std::move(request.body)); !problem.empty()) {
        sendResult(request.fd, StorageResult::failure(ErrorKind::Invalid, std::move(problem)), 201,
                   400);
        return;
    }
    sendResult(request.fd, call.storage.write(write), 201, 400);
}

void deleteFile(StorageCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.storage.remove(params.get("tenant"), params.get("path"), true),
               200, 404);
}

constexpr ServiceRoute<StorageCall> kStorageRoutes[] = {
    {"GET", "/api/v1/storage/{tenant}/{path*}", getFile},
    {"PUT", "/api/v1/storage/{tenant}/{path*}", putFile},
    {"POST", "/api/v1/storage/{tenant}/{path*}", putFile},
    {"DELETE", "/api/v1/storage/{tenant}/{path*}", deleteFile},
};

StorageResult notAvailable() {
    return StorageResult::failure(ErrorKind::Unavailable, StorageService::kNotAvailable);
}

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("storage", kStorageRoutes);

}  // namespace

void DataDaemon::startStorage() {
    StorageServiceConfig storage_config;
    storage_config.backend_type = storageBackendTypeFromName(config_.storage_backend);
    storage_config.base_path = config_.storage_path;
    storage_config.fsync = config_.storage_fsync;
    const DataDaemonConfig s3 = withS3Environment(config_);
    storage_config.s3_endpoint = s3.s3_endpoint;
    storage_config.s3_bucket = s3.s3_bucket;
    if (!s3.s3_region.empty()) storage_config.s3_region = s3.s3_region;
    storage_config.s3_access_key = s3.s3_access_key;
    storage_config.s3_secret_key = s3.s3_secret_key;
    storage_config.nfs_enabled = config_.nfs_enabled;
    storage_config.nfs_port = config_.nfs_port;
    auto storage = std::make_unique<StorageService>();
    if (storage->initialize(storage_config))
        storage_.replace(std::move(storage));
    else
        kLog.error("Failed to initialize storage service");
}

void DataDaemon::handleStorage(const HttpRequest& request) {
    std::optional<OpenedFile> download;
    std::string content_type;
    storage_.with(
        [&](StorageService& storage) {
            StorageCall call{storage, std::nullopt, {}};
            serveRoutes(call, kStorageRoutes, request, "Not found");
            download = std::move(call.download);
            content_type = std::move(call.content_type);
        },
        [&] { sendError(request.fd, 503, StorageService::kNotAvailable); });
    if (download) sendFileResponse(request.fd, content_type, download->fd(), download->size());
}

StorageResult DataDaemon::storageRead(const StorageReadRequest& request) {
    return storage_.with([&](StorageService& s) { return s.read(request); }, notAvailable);
}

StorageResult DataDaemon::storageWrite(const StorageWriteRequest& request) {
    return storage_.with([&](StorageService& s) { return s.write(request); }, notAvailable);
}

StorageResult DataDaemon::storageDelete(const std::string& tenant, const std::string& path,
                                        bool recursive) {
    return storage_.with([&](StorageService& s) { return s.remove(tenant, path, recursive); },
                         notAvailable);
}

StorageResult DataDaemon::storageList(const StorageListRequest& request) {
    return storage_.with([&](StorageService& s) { return s.list(request); }, notAvailable);
}

StorageResult DataDaemon::storageStat(const std::string& tenant, const std::string& path) {
    return storage_.with([&](StorageService& s) { return s.stat(tenant, path); }, notAvailable);
}

StorageResult DataDaemon::storageMkdir(const std::string& tenant, const std::string& path) {
    return storage_.with([&](StorageService& s) { return s.mkdir(tenant, path); }, notAvailable);
}

}  // namespace vostra::data
