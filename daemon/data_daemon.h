// DataDaemon: the object that owns every service of the data worker, its
// background loops and its HTTP server, from initialize() to stop(). The
// executable uses one process-wide instance (getInstance()); tests build
// their own and serve requests to it in process. Not copyable.
//
// Each optional service lives in a ServiceSlot beside its start function
// (startStorage(), startVector(), ...), which is defined next to the
// service's routes in api_<area>.cpp; this header and data_daemon.cpp keep
// only the start order and the threads.
//
// Thread-safety: initialize/start/stop are called from one thread; request
// handlers run concurrently on client threads and reach optional services
// only through their slots.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/service_slot.h"
#include "common/status.h"
#include "daemon/client_threads.h"
#include "daemon/data_daemon_config.h"
#include "daemon/request_metrics.h"
#include "nfs/ganesha_records.h"

namespace vostra::discovery {
class ClusterDiscovery;
}
namespace vostra::git {
class GitForgeManager;
}
namespace vostra::sandbox {
class SandboxService;
}
namespace vostra::security {
class ApiKeyStore;
class FailureLimiter;
}

namespace vostra::data {

struct HttpRequest;
class RouteParams;
class ConnectionReader;
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

class NFSServer;
class TlsRelay;
struct GitService;
class ModelRegistry;
class ScientificConnector;

class DataDaemon {
public:
    // The process-wide instance. It is never destroyed: detached client
    // threads may still be answering while the process exits.
    static DataDaemon& getInstance();

    // A daemon of its own, e.g. for a test. Destroy it only after stop()
    // and once no request is being served.
    DataDaemon();
    ~DataDaemon();

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

    // Git repositories and forge accounts are served by api_git.cpp alone.

    // One walk of the model folders (api_models.cpp); the model-scan loop
    // calls it every minute.
    void scanModelFiles();

    // NFS sharing (api_nfs.cpp). The configuration lives in memory under
    // one mutex; changes reach the host's Ganesha only through apply.
    bool isNFSEnabled() const { return config_.nfs_enabled; }
    bool isNFSRunning() const;
    NFSConfiguration getNFSConfiguration() const;
    // Replaces it whole, without validation.
    void updateNFSConfiguration(NFSConfiguration config);
    // False when the id is already there (add) or missing (remove).
    bool addNFSExport(const GaneshaExportConfig& export_config);
    bool removeNFSExport(int32_t export_id);
    // Replaces the exports with those of generateExportsFromTenants over
    // the storage's tenants folder; nothing without a storage service.
    std::optional<std::vector<GaneshaExportConfig>> deriveNFSExportsFromTenants(
        const std::vector<GaneshaClientConfig>& clients);
    bool addRemoteMount(const RemoteDataWorkerMount& mount);
    bool removeRemoteMount(const std::string& id);
    std::string generateGaneshaConf() const;
    // Validates, writes the generated file to `ganesha_conf_path` (whole or
    // not at all) and reloads Ganesha; the failure says which step failed.
    Status applyNFSConfiguration();
    // {"enabled", "running", "metrics"}.
    nlohmann::json getNFSMetrics() const;
    // The built-in responder's kernel-NFS exports file and mount unit.
    std::string generateNFSExports() const;
    std::string generateNFSMountUnit(const std::string& host, const std::string& mount_point) const;

    nlohmann::json getHealth() const;
    nlohmann::json getInfo() const;
    nlohmann::json getMetrics() const;
    // The figures for monitoring, in the Prometheus text format 0.0.4.
    std::string getPrometheusMetrics() const;
    // The OpenAPI 3.1 description of every route (openapi.cpp).
    static nlohmann::json openApiDocument();

    // Reads, parses and answers one request on a connected socket; the
    // caller closes `fd`. Never throws.
    void handleClient(int fd);

private:

    // Background loops; each returns soon after running_ is cleared.
    void heartbeatLoop();
    void metricsLoop();
    void commandLoop();
    void modelScanLoop();
    void httpServerLoop();

    // Waits `ms` milliseconds or until stop(), whichever comes first. Returns
    // true while the daemon is still running.
    bool sleepWhileRunning(int64_t ms);

    // Answers one complete request on the calling thread and counts it;
    // never throws.
    void serveRequest(HttpRequest& request);
    void serveCounted(HttpRequest& request);
    // Runs `serve` on a client thread within max_connections, else answers
    // 503 "Server busy"; `serve` returns whether the socket is done with (to
    // close) or was passed on.
    template <typename Serve>
    void dispatchRequest(int fd, Serve&& serve);
    // Reads a fresh connection's request without waiting: answers it when
    // it is all there, else passes the connection to the reader (false).
    bool serveFresh(int fd);
    // A request the reader finished, to answer on a client thread.
    void serveAdopted(HttpRequest&& request);
    void refuseBusy(int fd);
    // Hands the request to its area by the ordered prefix table (router.cpp).
    void dispatch(const HttpRequest& request);

    // Start functions of the optional services, called by initialize();
    // each fills its slot or prints why not.
    void startStorage();
    void startVector();
    void startNFS();
    void startGit();
    void startModels();
    void startScience();
    // Sandboxes stop before the storage and git services their runs use.
    void startSandboxes();
    void stopSandboxes();
    // Keys, the failure counter and TLS (api_auth.cpp); false when a key
    // file or the certificate cannot be used, which stops start-up.
    bool startAuth();
    // The rule for which files SQLite sources may open.
    std::function<std::string(const DataSourceConfig&)> sqliteAdmission() const;
    // In "keys" mode: answers 401, 403 or 429 and returns false for a
    // request that may not go on; a tenant key fixes the request's tenant.
    bool admitRequest(const HttpRequest& request);
    // A started vector service for `config`, or null after printing why not.
    static std::unique_ptr<VectorStorageService> makeVectorService(
        const VectorStorageConfig& config);

    // Areas: each serves its routes (api_<area>.cpp) with the service it is
    // handed. The core endpoints answer any method.
    void handleHealth(const HttpRequest& request);
    void handleInfo(const HttpRequest& request);
    void handleMetrics(const HttpRequest& request);
    void handlePrometheusMetrics(const HttpRequest& request);
    void handleOpenApi(const HttpRequest& request);
    void handleRootRedirect(const HttpRequest& request);
    void handleClusterResources(const HttpRequest& request);
    void handleDataApi(const HttpRequest& request);
    void handleTenants(const HttpRequest& request);
    void handleStorage(const HttpRequest& request);
    void handleVectorApi(const HttpRequest& request);
    void handleVectorConfig(const HttpRequest& request);
    void handleNFSApi(const HttpRequest& request);
    void handleGitApi(const HttpRequest& request);
    void handleModelsApi(const HttpRequest& request);
    // Agent definitions (api_agents.cpp) and what agents keep per tenant
    // (api_workspaces.cpp).
    void handleDataAgents(const HttpRequest& request);
    void handleAgentsApi(const HttpRequest& request);
    void handleSwarms(const HttpRequest& request);
    void handleWorkspacesApi(const HttpRequest& request);
    void handleOutputsApi(const HttpRequest& request);
    void handleSkillsApi(const HttpRequest& request);
    void handleAutomationsApi(const HttpRequest& request);
    void handleScienceApi(const HttpRequest& request);
    // Sandboxes, pipelines and triage (api_sandboxes.cpp).
    void handleSandboxesApi(const HttpRequest& request);
    void handleAuthApi(const HttpRequest& request);
    // The built-in HTML pages (api_dashboard.cpp).
    void handleDashboard(const HttpRequest& request);
    // The rows of the vector settings route, which works while the service
    // is off and alone starts and stops it.
    void getVectorConfig(const HttpRequest& request, const RouteParams& params);
    void putVectorConfig(const HttpRequest& request, const RouteParams& params);

    nlohmann::json capabilities() const;
    nlohmann::json registrationBody() const;
    nlohmann::json heartbeatBody() const;

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
    RequestMetrics request_metrics_;
    ClientThreads client_threads_;
    // Finishes reading requests from slow clients; runs beside the accept loop.
    std::unique_ptr<ConnectionReader> reader_;
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
    // Empty when storage is off or failed to start.
    vostra::ServiceSlot<StorageService> storage_;
    // Empty while vector storage is off; the settings route starts and stops
    // it at run time. The settings are kept apart, for that route to show
    // and change while the service is off; the mutex orders changes of
    // both, so two PUTs never interleave.
    vostra::ServiceSlot<VectorStorageService> vector_;
    mutable std::mutex nfs_mutex_;
    NFSConfiguration nfs_config_;
    // The built-in NFS responder, present when NFS is enabled; it borrows
    // the storage service, so it stops before storage does.
    std::unique_ptr<NFSServer> nfs_server_;
    // Forge accounts exist without git storage (clients of forges alone);
    // the file they are saved to is fixed at startGit().
    std::shared_ptr<git::GitForgeManager> forges_;
    std::string forges_file_;
    // Git working copies and the route records; empty when git is off or
    // its folder is unusable.
    vostra::ServiceSlot<GitService> git_;
    // The model files of the model folders; made at initialize() and kept
    // to the end (a scan and the routes use it from their own threads).
    std::unique_ptr<ModelRegistry> models_;
    // The gateway to public scientific services; empty when turned off.
    vostra::ServiceSlot<ScientificConnector> science_;
    // Runs commands only when the operator turned it on and the host can
    // make namespaces; otherwise empty, and the reason is answered.
    vostra::ServiceSlot<sandbox::SandboxService> sandboxes_;
    std::string sandboxes_unavailable_;
    // Admin and tenant keys; made at initialize() and kept to the end.
    std::unique_ptr<security::ApiKeyStore> api_keys_;
    std::unique_ptr<security::FailureLimiter> auth_failures_;
    std::string tenant_keys_file_;
    bool keys_required_ = false;
    // Present when the server speaks HTTPS.
    std::unique_ptr<TlsRelay> tls_;
    std::unique_ptr<VectorStorageConfig> vector_config_;
    std::mutex vector_config_mutex_;
};

}  // namespace vostra::data
