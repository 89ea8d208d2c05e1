// StorageService: the daemon's tenant-scoped file store. It owns one storage
// backend (chosen once at initialize), the tenant table with its persisted
// copy, the usage counters and the change subscriptions. Every file
// operation names a tenant and a path inside it; the service checks that the
// tenant may use the API, checks the quota before anything that adds bytes,
// forwards to the backend, counts the call and tells subscribers. DataDaemon
// owns the one instance; knows nothing of HTTP.
//
// Thread-safety: every method may be called from any thread once
// initialize() has returned. The tenant table has one mutex, held for
// look-ups and copies and never across a backend call; the subscription
// table has another, held while callbacks run. Counters are atomic.
// Failures are returned as values, never thrown.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "storage/opened_file.h"
#include "storage/storage_requests.h"
#include "storage/storage_result.h"
#include "storage/storage_service_config.h"
#include "storage/tenant_config.h"
#include "storage/tenant_usage.h"

namespace vostra::data {

class StorageBackend;

class StorageService {
public:
    // (tenant, path, operation): operation is "write", "delete", "mkdir",
    // "move" or "copy"; the path is sanitised (for move and copy, the target).
    using ChangeCallback =
        std::function<void(const std::string&, const std::string&, const std::string&)>;

    // What callers answer when the daemon runs without a storage service.
    static constexpr const char* kNotAvailable = "Storage service not available";

    // An empty service without a backend: every file operation fails until
    // initialize() succeeds.
    StorageService();
    ~StorageService();
    StorageService(const StorageService&) = delete;
    StorageService& operator=(const StorageService&) = delete;

    // Creates and starts the backend, creates the default tenant and loads
    // the persisted tenants. False (and still uninitialised) when the
    // backend cannot be started; a second call is a no-op returning true.
    // Call before sharing the service between threads.
    bool initialize(const StorageServiceConfig& config);
    // Releases the backend (the memory backend forgets every file). Call only
    // once no request can reach the service any more.
    void shutdown();

    // File operations. Each fails with "Tenant not found or access denied: "
    // + tenant unless the tenant exists, is enabled and has API access; write
    // and copy fail with "Storage quota exceeded for tenant: " + tenant when
    // used + added bytes would pass the quota. Backend messages pass through.
    // A write whose content type holds control characters is refused: the
    // type is sent back as a response header when the file is read.
    StorageResult read(const StorageReadRequest& request);
    // The whole file of `request` for streaming (see StorageBackend::openFile):
    // `file` is opened when the backend keeps it on a local disk, else the
    // result carries the bytes. Access rules and counters as read().
    StorageResult openFile(const StorageReadRequest& request, OpenedFile& file);
    StorageResult write(const StorageWriteRequest& request);
    StorageResult list(const StorageListRequest& request);
    StorageResult stat(const std::string& tenant, const std::string& path);
    StorageResult remove(const std::string& tenant, const std::string& path, bool recursive);
    StorageResult mkdir(const std::string& tenant, const std::string& path);
    StorageResult move(const std::string& tenant, const std::string& from, const std::string& to);
    StorageResult copy(const std::string& tenant, const std::string& from, const std::string& to);

    // True when the tenant exists, is enabled and has API access (never for
    // an id that tenantIdProblem refuses).
    bool validateTenantAccess(const std::string& tenant) const;
    // The backend's figures with the quota from the tenant table (0 for an
    // unknown tenant); all zero for an id that tenantIdProblem refuses.
    TenantUsage getTenantUsage(const std::string& tenant) const;
    // As getTenantUsage, but an unusable id fails (Invalid, with
    // tenantIdProblem's message) and leaves only the id in `usage`.
    Status tryGetTenantUsage(const std::string& tenant, TenantUsage& usage) const;
    // True when `additional_bytes` more would not pass the quota (equal to
    // it is still allowed). Without a backend only for 0 or fewer bytes.
    bool checkQuota(const std::string& tenant, int64_t additional_bytes) const;
    // The backend's location of (tenant, path); empty without a backend.
    std::string getAbsolutePath(const std::string& tenant, const std::string& path) const;

    // Registers `callback` for changes of `tenant` whose path begins with
    // `path_prefix` as plain text ("docs" also sees "docs2/b"); an empty
    // prefix or "/" sees all. Returns the id ("sub-" + 16 hex digits).
    // Callbacks run under the subscription lock: they must not (un)subscribe.
    // An exception from a callback is dropped.
    std::string subscribe(const std::string& tenant, const std::string& path_prefix,
                          ChangeCallback callback);
    void unsubscribe(const std::string& id);

    // The service's counters since initialize(), and its table sizes.
    struct Figures {
        int64_t total_writes = 0;
        int64_t total_reads = 0;
        int64_t total_deletes = 0;
        int64_t bytes_written = 0;
        int64_t bytes_read = 0;
        std::size_t tenant_count = 0;
        std::size_t subscription_count = 0;
    };
    Figures figures() const;
    // The figures as JSON, with the backend's name.
    nlohmann::json getMetrics() const;

    // A path whose last component no client may use: the backend's sidecars
    // (".meta") and new versions being written. Operations on one fail with
    // "Reserved file name: " + path (Invalid).
    static bool isReservedPath(std::string_view path);

    // Why `id` cannot name a tenant (it names a directory under the storage
    // root, so it must pass vostra::fileNameProblem), or empty when it can.
    static std::string tenantIdProblem(std::string_view id);

    // Tenants. tryCreateTenant refuses an unusable id (Invalid, with
    // tenantIdProblem's message) or an existing one (Conflict);
    // tryUpdateTenant replaces the whole record of an existing id (else
    // NotFound). tryDeleteTenant keeps the tenant's files unless `force`
    // (NotFound for an unknown id). Each change rewrites the persisted table;
    // when that fails the change is undone and the failure (Internal,
    // "Failed to save tenants: " + why) returned, so memory and disk agree.
    // The bool forms say only whether the change was made.
    Status tryCreateTenant(const TenantConfig& tenant);
    Status tryUpdateTenant(const TenantConfig& tenant);
    Status tryDeleteTenant(const std::string& id, bool force);
    bool createTenant(const TenantConfig& tenant);
    bool updateTenant(const TenantConfig& tenant);
    bool deleteTenant(const std::string& id, bool force);
    std::optional<TenantConfig> getTenant(const std::string& id) const;
    // Ascending id order.
    std::vector<TenantConfig> listTenants() const;

    // Writes the table to <base>/system/tenants.json (filesystem backend
    // only; others keep tenants in memory). Errors are printed, not returned.
    void saveTenantsToMetadata();
    // Adds the persisted tenants whose id is not yet in the table.
    void loadTenantsFromDisk();

    // Swarm documents, kept under "swarms/<swarm id>/" in the tenant.
    StorageResult storeSwarmGoal(const std::string& tenant, const std::string& swarm_id,
                                 const nlohmann::json& goal);
    StorageResult storeSwarmPlan(const std::string& tenant, const std::string& swarm_id,
                                 const nlohmann::json& plan);
    StorageResult storeSwarmResult(const std::string& tenant, const std::string& swarm_id,
                                   const nlohmann::json& result);
    StorageResult getSwarmResult(const std::string& tenant, const std::string& swarm_id);
    StorageResult storeTaskOutput(const std::string& tenant, const std::string& swarm_id,
                                  const std::string& task_id, const nlohmann::json& output);
    StorageResult storeArtifact(const std::string& tenant, const std::string& swarm_id,
                                const std::string& name, const std::string& data,
                                const std::string& content_type = "");
    StorageResult listSwarms(const std::string& tenant);
    StorageResult deleteSwarm(const std::string& tenant, const std::string& swarm_id);

private:
    struct Subscription {
        std::string tenant;
        std::string prefix;
        ChangeCallback callback;
    };

    // The failed result every file operation starts from, or nothing when
    // the tenant may proceed with `paths`.
    std::optional<StorageResult> refuseAccess(const std::string& tenant,
                                              std::initializer_list<std::string_view> paths) const;
    std::optional<StorageResult> refuseQuota(const std::string& tenant,
                                             int64_t additional_bytes) const;
    // Inserts without persisting; fails for an unusable or existing id.
    Status insertTenant(const TenantConfig& tenant);
    std::string tenantsFile() const;
    // saveTenantsToMetadata with persist_mutex_ held by the caller; the
    // failure (Internal) says why.
    Status saveTenantsLocked();
    StorageResult storeJson(const std::string& tenant, const std::string& path,
                            const nlohmann::json& document);
    void notifySubscribers(const std::string& tenant, const std::string& path,
                           const std::string& operation);

    StorageServiceConfig config_;
    std::unique_ptr<StorageBackend> backend_;
    bool initialized_ = false;

    mutable std::mutex tenants_mutex_;
    std::map<std::string, TenantConfig> tenants_;
    std::mutex persist_mutex_;  // orders writers of the tenants file

    mutable std::mutex subscriptions_mutex_;
    std::map<std::string, Subscription> subscriptions_;

    std::atomic<int64_t> total_writes_{0};
    std::atomic<int64_t> total_reads_{0};
    std::atomic<int64_t> total_deletes_{0};
    std::atomic<int64_t> bytes_written_{0};
    std::atomic<int64_t> bytes_read_{0};
};

}  // namespace vostra::data
