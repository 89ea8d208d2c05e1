// The connections of one data source: a set of connected DataConnectors that
// the pool owns, lends out one caller at a time, takes back, checks in the
// background and keeps between a minimum and a maximum. The registry owns one
// pool per source; callers borrow through PooledConnectionGuard.
//
// Thread-safety: every public method may be called from any thread. A pool
// must outlive the connectors it lends out.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "common/status.h"
#include "connectors/data_connector.h"
#include "connectors/data_source_config.h"

namespace vostra::data {

// An idle connector with its times. Made afresh on every return to the pool.
struct PooledConnection {
    std::unique_ptr<DataConnector> connection;
    std::chrono::steady_clock::time_point created_at;
    std::chrono::steady_clock::time_point last_used;
    uint64_t use_count = 0;
    bool valid = true;
};

struct PoolStats {
    uint32_t total = 0;      // connectors that exist, idle or lent out
    uint32_t available = 0;  // total minus active
    uint32_t active = 0;     // lent out
    uint64_t total_acquired = 0;
    uint64_t total_released = 0;
    uint64_t acquire_timeouts = 0;
    uint64_t connections_created = 0;
    uint64_t connections_destroyed = 0;
    uint64_t health_checks_passed = 0;
    uint64_t health_checks_failed = 0;
};

class ConnectionPool {
public:
    // Makes an unconnected connector for a type; DataConnectorFactory::create
    // unless a test supplies its own.
    using ConnectorMaker = std::function<std::unique_ptr<DataConnector>(ConnectorType)>;

    // Copies `config`; opens nothing until initialize().
    explicit ConnectionPool(const DataSourceConfig& config);
    ConnectionPool(const DataSourceConfig& config, ConnectorMaker make_connector);
    // Shuts down; connectors still lent out must come back before this.
    ~ConnectionPool();
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    // Checks the pool sizes (PoolConfig::check), opens min_connections
    // connections and starts the health-check thread. Succeeds when at least
    // one connection opened (at once if already running). Fails with the
    // sizes' reason (Invalid) before opening anything; with the driver's last
    // reason, password masked, when nothing opened (Unavailable), so a
    // min_connections of 0 always fails: a source must prove it can connect
    // before it is registered; or when no thread can be started (Internal).
    // A failed pool holds no connections and no thread.
    Status initialize();

    // Lends out a connector: an idle one (first in, first out), else a new
    // one while fewer than max_connections exist, else the next one returned
    // within `timeout_ms` (negative: connection_timeout_ms). Idle connectors
    // that fail validation or rested longer than max_lifetime_ms are replaced
    // first. nullptr on time-out or when the pool is not running.
    std::unique_ptr<DataConnector> acquire(int timeout_ms = -1);

    // Takes a lent connector back and wakes one waiting acquire(). A
    // transaction it left open is rolled back first; one that cannot be left,
    // and every connector after shutdown(), is closed instead. nullptr is
    // ignored.
    void release(std::unique_ptr<DataConnector> connector);

    // Stops the health check, wakes every waiter with nullptr and closes the
    // idle connectors. Idempotent; initialize() may start the pool again.
    void shutdown();

    // Lock-free snapshot; figures may be mutually a moment apart.
    PoolStats getStats() const;
    // Running with at least one connection.
    bool isHealthy() const;
    // Idle connectors right now.
    std::size_t getAvailableCount() const;
    const DataSourceConfig& getConfig() const { return config_; }

    // One pass of the background check: closes connectors idle longer than
    // idle_timeout_ms (keeping min_connections) or failing validation, then
    // tops up to min_connections. Holds the pool lock throughout; does
    // nothing when the pool is not running.
    void checkHealth();

private:
    void healthCheckLoop();
    // shutdown() for a caller holding lifecycle_mutex_.
    void stopAndClose();
    // A connected connector, or nullptr with the reason logged and, when
    // `reason` is given, stored there.
    std::unique_ptr<DataConnector> createConnection(std::string* reason = nullptr);
    static bool validateConnection(DataConnector& connector);
    // Disconnects and deletes, counting it in connections_destroyed.
    void destroyConnection(std::unique_ptr<DataConnector> connector);
    static PooledConnection wrap(std::unique_ptr<DataConnector> connector);

    const DataSourceConfig config_;
    const ConnectorMaker make_connector_;

    std::atomic<bool> running_{false};
    std::atomic<bool> initialized_{false};

    // Serialises initialize() and shutdown(), which start and join the thread.
    std::mutex lifecycle_mutex_;
    mutable std::mutex mutex_;  // guards idle_, opening_ and decisions on them
    std::condition_variable available_cv_;
    std::condition_variable health_cv_;  // cuts the health check's sleep short
    std::deque<PooledConnection> idle_;
    // Connections acquire() is opening outside the lock; they count against
    // max_connections so concurrent callers cannot overshoot it.
    int32_t opening_ = 0;
    int32_t waiters_ = 0;  // acquire() calls asleep on available_cv_

    std::atomic<int32_t> total_connections_{0};
    std::atomic<int32_t> active_connections_{0};
    std::atomic<uint64_t> total_acquired_{0};
    std::atomic<uint64_t> total_released_{0};
    std::atomic<uint64_t> acquire_timeouts_{0};
    std::atomic<uint64_t> connections_created_{0};
    std::atomic<uint64_t> connections_destroyed_{0};
    std::atomic<uint64_t> health_checks_passed_{0};
    std::atomic<uint64_t> health_checks_failed_{0};

    std::thread health_thread_;
};

}  // namespace vostra::data
