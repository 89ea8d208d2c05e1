// The storage API: files of a tenant under "/api/v1/storage/<tenant>/<path>",
// the tenant taken from the URL (not from the tenant headers). Handlers map
// service results to statuses; every rule (access, quota, path safety)
// lives in StorageService and its backends.
#include <nlohmann/json.hpp>

#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/route_paths.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

constexpr std::string_view kStoragePrefix = "/api/v1/storage/";
constexpr const char* kRawContentType = "application/octet-stream";

// A refusal on safety grounds is the caller's fault whatever the route.
int failureStatus(const StorageResult& result, int otherwise) {
    return result.refused ? 400 : otherwise;
}

void sendResult(int fd, const StorageResult& result, int success_status, int failure_status) {
    const int status = result.success ? success_status : failureStatus(result, failure_status);
    sendJson(fd, status, result.toJson());
}

}  // namespace

bool DataDaemon::hasStorage() const {
    std::shared_lock lock(storage_mutex_);
    return storage_ != nullptr;
}

StorageResult DataDaemon::storageRead(const StorageReadRequest& request) {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->read(request)
                    : StorageResult::failure(StorageService::kNotAvailable);
}

StorageResult DataDaemon::storageWrite(const StorageWriteRequest& request) {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->write(request)
                    : StorageResult::failure(StorageService::kNotAvailable);
}

StorageResult DataDaemon::storageDelete(const std::string& tenant, const std::string& path,
                                        bool recursive) {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->remove(tenant, path, recursive)
                    : StorageResult::failure(StorageService::kNotAvailable);
}

StorageResult DataDaemon::storageList(const StorageListRequest& request) {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->list(request)
                    : StorageResult::failure(StorageService::kNotAvailable);
}

StorageResult DataDaemon::storageStat(const std::string& tenant, const std::string& path) {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->stat(tenant, path)
                    : StorageResult::failure(StorageService::kNotAvailable);
}

StorageResult DataDaemon::storageMkdir(const std::string& tenant, const std::string& path) {
    std::shared_lock lock(storage_mutex_);
    return storage_ ? storage_->mkdir(tenant, path)
                    : StorageResult::failure(StorageService::kNotAvailable);
}

void DataDaemon::handleStorage(const HttpRequest& request) {
    const int fd = request.fd;
    if (!hasStorage()) {
        sendError(fd, 503, StorageService::kNotAvailable);
        return;
    }
    const auto [tenant, path] = splitTenantAndPath(request.path, kStoragePrefix);
    const std::string& method = request.method;

    if (method == "GET" && !path.empty() && !path.ends_with('/')) {
        StorageReadRequest read;
        read.tenant_id = tenant;
        read.path = path;
        read.include_metadata = true;
        const StorageResult result = storageRead(read);
        if (!result.success) {
            sendError(fd, failureStatus(result, 404), result.error);
            return;
        }
        // The stored type is sent even when empty; only a result without an
        // entry falls back to raw bytes.
        sendResponse(fd, 200, result.data,
                     result.entry ? result.entry->content_type : kRawContentType);
        return;
    }
    if (method == "GET") {
        StorageListRequest list;
        list.tenant_id = tenant;
        list.path = path;
        sendResult(fd, storageList(list), 200, 404);
        return;
    }
    if (method == "PUT" || method == "POST") {
        StorageWriteRequest write;
        write.tenant_id = tenant;
        write.path = path;
        if (const std::string problem = write.readBody(request.body); !problem.empty()) {
            sendResult(fd, StorageResult::failure(problem), 201, 400);
            return;
        }
        sendResult(fd, storageWrite(write), 201, 400);
        return;
    }
    if (method == "DELETE") {
        sendResult(fd, storageDelete(tenant, path, true), 200, 404);
        return;
    }
    sendError(fd, 405, "Method not allowed");
}

}  // namespace vostra::data
