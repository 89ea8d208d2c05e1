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
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <thread>

#include "daemon/client_threads.h"
#include "daemon/data_daemon_config.h"

namespace vostra::data {

struct HttpRequest;

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

    nlohmann::json getHealth() const;
    nlohmann::json getInfo() const;
    nlohmann::json getMetrics() const;

private:
    DataDaemon() = default;

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

    uint64_t uptimeSeconds() const;

    DataDaemonConfig config_;
    std::string daemon_id_;
    std::string machine_id_;
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

    // Daemon-wide statement counters of the data API.
    std::atomic<uint64_t> total_queries_{0};
    std::atomic<uint64_t> total_executes_{0};
    std::atomic<uint64_t> total_errors_{0};
};

}  // namespace vostra::data
