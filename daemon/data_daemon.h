// DataDaemon: the process-wide object that owns every service of the data
// worker, its background loops and its HTTP server, from initialize() to
// stop(). One instance per process (getInstance()); not copyable.
//
// Thread-safety: initialize/start/stop are called from the main thread;
// request handlers run concurrently on detached client threads and rely on
// the locks of the services they call.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/client_threads.h"
#include "daemon/data_daemon_config.h"

namespace vostra::discovery {
class ClusterDiscovery;
}

namespace vostra::data {

struct HttpRequest;
class ControllerClient;
struct DataSourceConfig;
struct DataSourceStatusInfo;
struct QueryRequest;
struct ExecuteRequest;
struct QueryResult;
struct SchemaInfo;
class DataSourceRegistry;
class AgentStorage;
class StorageService;
struct StorageResult;
struct StorageReadRequest;
struct StorageWriteRequest;
struct StorageListRequest;
struct TenantConfig;
struct TenantUsage;
class VectorStorageService;
struct VectorStorageConfig;

class DataDaemon {
public:
    // The process-wide instance. It is never destroyed: detached client
    // threads may still be answering while the process exits.
    static DataDaemon& getInstance();

    DataDaemon(const DataDaemon&) = delete;
    DataDaemon& operator=(const DataDaemon&) = delete;

    // Copies the configuration, fixes the daemon and machine ids and creates
    // the configured services. Failures of optional services are printed and
    // leave the daemon without them; returns false only when unusable.
    bool initialize(const DataDaemonConfig& config);

    // Starts the background loops and the HTTP server. False when not
    // initialised; true at once when already running.
    bool start();

    // Stops every loop, closes the listening socket and releases all
    // services. Safe to call more than once; returns within about half a second
    // plus the time services take to shut down.
    void stop();

    bool isRunning() const { return running_.load(); }
    const std::string& getDaemonId() const { return daemon_id_; }

    // Data sources (see DataSourceRegistry for the promises of each).
    bool addDataSource(const DataSourceConfig& config);
    bool removeDataSource(const std::string& id);
    std::vector<DataSourceStatusInfo> listDataSources() const;
    DataSourceStatusInfo getDataSourceStatus(const std::string& id) const;
    bool testDataSource(const std::string& id);
    std::vector<std::string> getTables(const std::string& id);
    SchemaInfo getSchema(const std::string& id);
    QueryResult executeQuery(const QueryRequest& request);
    QueryResult executeStatement(const ExecuteRequest& request);

    // The agent store under $HOME/.config/vostra (see AgentStorage).
    bool initAgentStorage();
    std::vector<std::map<std::string, std::string>> agentStorageQuery(
        const std::string& sql, const std::vector<std::string>& params);
    bool agentStorageExecute(const std::string& sql, const std::vector<std::string>& params);

    // File storage (see StorageService). Without the service the file
    // operations fail with "Storage service not available" and the tenant
    // operations answer false, nothing or an empty usage.
    StorageResult storageRead(const StorageReadRequest& request);
    StorageResult storageWrite(const StorageWriteRequest& request);
    StorageResult storageDelete(const std::string& tenant, const std::string& path, bool recursive);
    StorageResult storageList(const StorageListRequest& request);
    StorageResult storageStat(const std::string& tenant, const std::string& path);
    StorageResult storageMkdir(const std::string& tenant, const std::string& path);
    bool createTenant(const TenantConfig& tenant);
    bool updateTenant(const TenantConfig& tenant);
    bool deleteTenant(const std::string& id, bool force);
    std::optional<TenantConfig> getTenant(const std::string& id) const;
    std::vector<TenantConfig> listTenants() const;
    TenantUsage getTenantUsage(const std::string& id) const;

    // Controller protocol; each does nothing (false) without a controller URL.
    bool registerWithController();
    bool sendHeartbeat();
    void deregisterFromController();
    // Refreshes the cluster's resource lists (when discovery is configured)
    // and may adopt an embedding provider found there.
    void syncClusterResources();

    nlohmann::json getHealth() const;
    nlohmann::json getInfo() const;
    nlohmann::json getMetrics() const;

private:
    DataDaemon();
    ~DataDaemon();

    // Background loops; each returns soon after running_ is cleared.
    void heartbeatLoop();
    void metricsLoop();
    void commandLoop();
    void modelScanLoop();
    void httpServerLoop();

    // Waits `ms` milliseconds or until stop(), whichever comes first. Returns
    // true while the daemon is still running.
    bool sleepWhileRunning(int64_t ms);

    // Serves one accepted connection on a client thread and closes it.
    void serveConnection(int fd);
    // Reads, parses and answers one request; the caller closes `fd`.
    void handleClient(int fd);
    void dispatch(const HttpRequest& request);

    void handleHealth(const HttpRequest& request);
    void handleInfo(const HttpRequest& request);
    void handleMetrics(const HttpRequest& request);
    void handleRootRedirect(const HttpRequest& request);
    void handleClusterResources(const HttpRequest& request);
    nlohmann::json capabilities() const;
    nlohmann::json registrationBody() const;
    nlohmann::json heartbeatBody() const;
    void handleSources(const HttpRequest& request);
    void handleSourceById(const HttpRequest& request);
    void handleQuery(const HttpRequest& request);
    void handleExecute(const HttpRequest& request);
    void handleTenants(const HttpRequest& request);
    void handleTenantById(const HttpRequest& request);
    void handleStorage(const HttpRequest& request);
    bool hasStorage() const;
    void handleVectorApi(const HttpRequest& request);
    void handleVectorConfig(const HttpRequest& request);

    uint64_t uptimeSeconds() const;

    DataDaemonConfig config_;
    std::string daemon_id_;
    std::string machine_id_;
    // Looked up once: resolving the host name on every /info or heartbeat
    // would put a resolver round trip on those paths.
    std::string hostname_;
    std::string ip_address_;
    bool initialized_ = false;

    std::atomic<bool> running_{false};
    std::atomic<bool> http_running_{false};
    std::atomic<int> listen_fd_{-1};
    std::atomic<int> active_clients_{0};  // connections being served
    ClientThreads client_threads_{[this](int fd) { serveConnection(fd); }};
    std::chrono::steady_clock::time_point start_time_;

    std::mutex wake_mutex_;
    std::condition_variable wake_;

    std::thread heartbeat_thread_;
    std::thread metrics_thread_;
    std::thread command_thread_;
    std::thread http_thread_;
    std::thread model_scan_thread_;

    // Created empty so that handlers never meet a missing registry; its
    // state file is fixed at initialize().
    std::unique_ptr<DataSourceRegistry> registry_;
    std::unique_ptr<ControllerClient> controller_;
    std::unique_ptr<discovery::ClusterDiscovery> discovery_;
    std::unique_ptr<AgentStorage> agent_storage_;
    // Absent when storage is off or failed to start. Requests may still be
    // running when stop() destroys it: they use it under a shared lock.
    std::unique_ptr<StorageService> storage_;
    mutable std::shared_mutex storage_mutex_;
    // Absent while vector storage is off; the config route creates and
    // destroys it at run time, so requests use it under a shared lock and
    // only that route and stop() take the lock exclusively. The settings
    // are kept here too, for the config route to show and change while the
    // service is off.
    std::unique_ptr<VectorStorageService> vector_;
    std::unique_ptr<VectorStorageConfig> vector_config_;
    mutable std::shared_mutex vector_mutex_;
};

}  // namespace vostra::data
