#include "daemon/data_daemon.h"

#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "cluster/cluster_discovery.h"
#include "cluster/controller_client.h"
#include "common/log.h"
#include "connectors/agent_storage.h"
#include "connectors/data_source_registry.h"
#include "daemon/connection_reader.h"
#include "daemon/identity.h"
#include "git/git_forge_manager.h"
#include "git/repo_records.h"
#include "models/model_registry.h"
#include "nfs/nfs_server.h"
#include "daemon/tls_relay.h"
#include "sandbox/sandbox_service.h"
#include "security/api_key_store.h"
#include "security/failure_limiter.h"
#include "science/scientific_connector.h"
#include "storage/storage_service.h"
#include "vector/vector_storage_service.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
// Loops notice stop() within one slice.
constexpr int64_t kSliceMs = 500;
constexpr int64_t kModelScanPeriodMs = 60 * 1000;
constexpr const char* kSourcesFile = "data_sources.json";
constexpr const char* kForgesFile = "forges.json";

void joinIfJoinable(std::thread& thread) {
    if (thread.joinable()) thread.join();
}

}  // namespace

DataDaemon& DataDaemon::getInstance() {
    static DataDaemon* instance = new DataDaemon();
    return *instance;
}

DataDaemon::DataDaemon()
    : registry_(std::make_unique<DataSourceRegistry>()),
      discovery_(std::make_unique<discovery::ClusterDiscovery>()),
      agent_storage_(std::make_unique<AgentStorage>()),
      forges_(std::make_shared<git::GitForgeManager>()),
      vector_config_(std::make_unique<VectorStorageConfig>()) {
    reader_ = std::make_unique<ConnectionReader>(
        ConnectionReader::Limits{}, [this](HttpRequest&& request) { serveAdopted(std::move(request)); });
}

DataDaemon::~DataDaemon() { stop(); }

bool DataDaemon::initialize(const DataDaemonConfig& config) {
    config_ = config;
    daemon_id_ = config_.daemon_id.empty() ? generateDaemonId() : config_.daemon_id;
    machine_id_ = generateMachineId();
    hostname_ = getHostname();
    ip_address_ = getLocalIP();

    if (!startAuth()) return false;
    registry_->setAdmission(sqliteAdmission());
    if (config_.storage_enabled) startStorage();
    if (config_.nfs_enabled) startNFS();
    startVector();

    if (!config_.data_dir.empty()) {
        std::error_code error;
        std::filesystem::create_directories(config_.data_dir, error);
        if (error) {
            kLog.error("Cannot create data directory ", config_.data_dir, ": ", error.message());
            return false;
        }
        registry_ = std::make_unique<DataSourceRegistry>(
            (std::filesystem::path(config_.data_dir) / kSourcesFile).string());
        registry_->setAdmission(sqliteAdmission());
        const std::size_t restored = registry_->load();
        if (restored > 0) kLog.info("Restored ", restored, " data sources from ", config_.data_dir);
    }
    if (config_.agent_storage_enabled) initAgentStorage();

    forges_file_ = !config_.forges_file.empty() ? config_.forges_file
                   : !config_.data_dir.empty()
                       ? (std::filesystem::path(config_.data_dir) / kForgesFile).string()
                       : (std::filesystem::path(config_.git_path) / kForgesFile).string();
    if (!forges_->loadConfig(forges_file_))
        kLog.error("Cannot read forge accounts from ", forges_file_);
    if (config_.git_enabled) startGit();
    startModels();
    if (config_.science_enabled) startScience();
    if (config_.sandboxes_enabled) startSandboxes();

    // The back-off before a re-registration ends early when the daemon stops.
    controller_ = std::make_unique<ControllerClient>(
        config_.controller_url, [this](int seconds) { return sleepWhileRunning(seconds * 1000LL); });
    if (!config_.controller_url.empty()) {
        discovery_->configure(config_.controller_url, config_.heartbeat_interval_ms);
        kLog.info("Cluster discovery configured for: ", config_.controller_url);
    }
    kLog.info("Initialized with ID: ", daemon_id_);
    initialized_ = true;
    return true;
}

bool DataDaemon::start() {
    if (!initialized_) {
        kLog.error("Not initialized");
        return false;
    }
    if (running_.load()) return true;

    running_.store(true);
    http_running_.store(true);
    start_time_ = std::chrono::steady_clock::now();

    if (!config_.controller_url.empty() && config_.auto_register && !registerWithController())
        kLog.error("Failed to register with controller");

    heartbeat_thread_ = std::thread(&DataDaemon::heartbeatLoop, this);
    metrics_thread_ = std::thread(&DataDaemon::metricsLoop, this);
    command_thread_ = std::thread(&DataDaemon::commandLoop, this);
    http_thread_ = std::thread(&DataDaemon::httpServerLoop, this);
    model_scan_thread_ = std::thread(&DataDaemon::modelScanLoop, this);
    if (nfs_server_) {
        if (nfs_server_->start())
            kLog.info("NFS server started on port ", nfs_server_->port());
        else
            kLog.error("Failed to start NFS server");
    }

    kLog.info("Started on ", config_.bind_address, ":", config_.port);
    return true;
}

void DataDaemon::stop() {
    if (!running_.load()) return;
    kLog.info("Stopping...");
    running_.exchange(false);
    http_running_.exchange(false);
    {
        // Taking the lock orders the notify after any waiter's predicate check.
        std::lock_guard lock(wake_mutex_);
    }
    wake_.notify_all();

    // close() alone does not wake a thread blocked in accept() on Linux;
    // shutdown() does. The accept thread closes the socket itself on its way
    // out, so the descriptor is never closed while that thread may still use it.
    const int fd = listen_fd_.load();
    if (fd >= 0) shutdown(fd, SHUT_RDWR);

    deregisterFromController();

    joinIfJoinable(heartbeat_thread_);
    joinIfJoinable(metrics_thread_);
    joinIfJoinable(command_thread_);
    joinIfJoinable(http_thread_);
    joinIfJoinable(model_scan_thread_);

    const int left_open = listen_fd_.exchange(-1);
    if (left_open >= 0) close(left_open);
    client_threads_.releaseIdle();

    if (nfs_server_) nfs_server_->stop();
    // Requests still running finish first: a slot waits for them.
    stopSandboxes();
    vector_.reset();
    git_.reset();
    science_.reset();
    storage_.reset();

    registry_->clear();

    kLog.info("Stopped");
}

bool DataDaemon::sleepWhileRunning(int64_t ms) {
    // Waiting on a condition variable in 500 ms slices keeps the polling
    // contract while letting stop() end the wait at once.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    std::unique_lock lock(wake_mutex_);
    while (running_.load()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) break;
        const auto slice = std::min<std::chrono::steady_clock::duration>(
            deadline - now, std::chrono::milliseconds(kSliceMs));
        wake_.wait_for(lock, slice, [this] { return !running_.load(); });
    }
    return running_.load();
}

void DataDaemon::heartbeatLoop() {
    while (running_.load()) {
        // A non-positive period would spin a core; one slice is the floor.
        if (!sleepWhileRunning(config_.heartbeat_interval_ms > 0 ? config_.heartbeat_interval_ms
                                                                 : kSliceMs))
            break;
        if (!config_.controller_url.empty()) sendHeartbeat();
        syncClusterResources();
    }
}

void DataDaemon::metricsLoop() {
    // Metrics are computed on demand; the loop only keeps its period.
    while (running_.load()) sleepWhileRunning(config_.metrics_interval_ms > 0
                                                  ? config_.metrics_interval_ms
                                                  : kSliceMs);
}

void DataDaemon::commandLoop() {
    // Reserved for commands pushed by the controller.
    while (running_.load()) sleepWhileRunning(2 * kSliceMs);
}

void DataDaemon::modelScanLoop() {
    do {
        scanModelFiles();
    } while (sleepWhileRunning(kModelScanPeriodMs));
}

uint64_t DataDaemon::uptimeSeconds() const {
    if (!running_.load()) return 0;
    auto elapsed = std::chrono::steady_clock::now() - start_time_;
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count());
}

}  // namespace vostra::data
