#include "connectors/connection_pool.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "common/log.h"
#include "connectors/data_connector_factory.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[ConnectionPool] ");

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Passwords this short match ordinary words in a message by chance; hiding
// them would garble the text and protect nothing.
constexpr std::size_t kShortestRedactedSecret = 4;

// `message` with every occurrence of `secret` masked. Drivers do not quote
// passwords back, but a message that travels to clients and logs must not
// depend on that.
std::string redacted(std::string message, const std::string& secret) {
    if (secret.size() < kShortestRedactedSecret) return message;
    for (std::size_t at = message.find(secret); at != std::string::npos;
         at = message.find(secret, at + 3)) {
        message.replace(at, secret.size(), "***");
    }
    return message;
}

}  // namespace

ConnectionPool::ConnectionPool(const DataSourceConfig& config)
    : ConnectionPool(config,
                     [](ConnectorType type) { return DataConnectorFactory::create(type); }) {}

ConnectionPool::ConnectionPool(const DataSourceConfig& config, ConnectorMaker make_connector)
    : config_(config), make_connector_(std::move(make_connector)) {}

ConnectionPool::~ConnectionPool() {
    shutdown();
}

Status ConnectionPool::initialize() {
    std::lock_guard lifecycle(lifecycle_mutex_);
    if (initialized_) return Status::success();
    // Sizes are refused before anything opens: a pool asked for a hundred
    // thousand connections would take every descriptor the daemon has.
    if (Status sizes = config_.pool_config.check(); !sizes) {
        kLog.error("Refusing pool for ", config_.id, ": ", sizes.message);
        return sizes;
    }

    int32_t opened = 0;
    std::string reason;
    {
        std::lock_guard lock(mutex_);
        for (int32_t i = 0; i < config_.pool_config.min_connections; ++i) {
            auto connector = createConnection(&reason);
            if (!connector) {
                kLog.error("Failed to create initial connection for ", config_.id);
                continue;
            }
            idle_.push_back(wrap(std::move(connector)));
            ++total_connections_;
            ++connections_created_;
            ++opened;
        }
    }
    if (opened == 0) {
        kLog.error("Could not create any connections for ", config_.id);
        std::string message = "Could not create any connections for " + config_.id;
        if (!reason.empty()) message += ": " + reason;
        return Status::failure(ErrorKind::Unavailable, std::move(message));
    }
    running_ = true;
    initialized_ = true;
    try {
        health_thread_ = std::thread(&ConnectionPool::healthCheckLoop, this);
    } catch (const std::exception& error) {
        // Out of threads (or memory for one): refuse the pool, but close
        // what it opened rather than leaving it behind.
        kLog.error("Could not start the health check for ", config_.id, ": ", error.what());
        stopAndClose();
        return Status::failure(ErrorKind::Internal, "Could not start the health check for " +
                                                        config_.id + ": " + error.what());
    }
    kLog.info("Initialized pool '", config_.id, "' with ", opened, " connections");
    return Status::success();
}

std::unique_ptr<DataConnector> ConnectionPool::acquire(int timeout_ms) {
    const int budget = timeout_ms < 0 ? config_.pool_config.connection_timeout_ms : timeout_ms;
    const int32_t max_connections = config_.pool_config.max_connections;

    // Each pass may end by retiring a stale idle connector; the next pass
    // then waits with the whole budget again.
    for (;;) {
        if (!running_) return nullptr;
        const auto deadline = Clock::now() + milliseconds(budget);
        std::unique_lock lock(mutex_);
        bool may_open = true;  // one failed open per pass: a dead server is not hammered
        while (idle_.empty()) {
            if (!running_) return nullptr;
            if (may_open && total_connections_ + opening_ < max_connections) {
                ++opening_;
                lock.unlock();
                auto fresh = createConnection();
                lock.lock();
                --opening_;
                if (fresh && running_) {
                    // Lent directly; a connection is parked only on return.
                    ++total_connections_;
                    ++connections_created_;
                    ++active_connections_;
                    ++total_acquired_;
                    return fresh;
                }
                if (fresh) return nullptr;  // shut down meanwhile; `fresh` closes itself
                may_open = false;
                continue;
            }
            ++waiters_;
            const bool ready = available_cv_.wait_until(lock, deadline, [&] {
                return !running_ || !idle_.empty() ||
                       (may_open && total_connections_ + opening_ < max_connections);
            });
            --waiters_;
            if (!ready) {
                ++acquire_timeouts_;
                kLog.error("Acquire timeout for ", config_.id);
                return nullptr;
            }
        }
        if (!running_) return nullptr;

        PooledConnection entry = std::move(idle_.front());
        idle_.pop_front();
        lock.unlock();

        // Checked outside the lock so a slow round trip does not hold up
        // returns. created_at restarts at every release, so the lifetime
        // bounds rest between loans, not age: a connector in constant use
        // is never retired for it.
        const auto rested = Clock::now() - entry.created_at;
        const bool expired = rested > milliseconds(config_.pool_config.max_lifetime_ms);
        // Just returned healthy (release rolls back and checks it): a
        // validation now would only double the round trips under load.
        const bool just_returned = rested < milliseconds(config_.pool_config.validation_bypass_ms);
        const bool usable = !expired && (!config_.pool_config.validate_on_acquire || just_returned ||
                                         validateConnection(*entry.connection));
        if (usable) {
            ++active_connections_;
            ++total_acquired_;
            return std::move(entry.connection);
        }
        destroyConnection(std::move(entry.connection));
        {
            std::lock_guard relock(mutex_);
            // A shutdown meanwhile has already zeroed the count.
            if (initialized_) --total_connections_;
        }
        // A slot is free, but only a waiter still allowed to open may use it;
        // waking one that is not would leave the slot idle until a deadline.
        available_cv_.notify_all();
    }
}

void ConnectionPool::release(std::unique_ptr<DataConnector> connector) {
    if (!connector) return;
    // A transaction left open (a BEGIN sent as a statement) would hold its
    // locks and hide its writes from everyone while the connector rests, and
    // the next borrower would find itself inside it. Rolled back outside the
    // lock: it is a round trip.
    const bool clean = !running_ || connector->rollbackOpenTransaction();
    std::unique_lock lock(mutex_);
    --active_connections_;
    ++total_released_;
    if (running_ && clean) {
        idle_.push_back(wrap(std::move(connector)));
        // Signalling with nobody waiting still takes the condition's internal
        // lock, which every return would then contend for under load.
        const bool someone_waits = waiters_ > 0;
        lock.unlock();
        if (someone_waits) available_cv_.notify_one();
        return;
    }
    const bool counted = running_.load();  // a shutdown has already zeroed the count
    if (counted) --total_connections_;
    lock.unlock();
    if (counted) kLog.error("Closing a connection of ", config_.id, " stuck in a transaction");
    destroyConnection(std::move(connector));
    // A slot is free for whoever may open a connection.
    if (counted) available_cv_.notify_all();
}

void ConnectionPool::shutdown() {
    std::lock_guard lifecycle(lifecycle_mutex_);
    stopAndClose();
}

void ConnectionPool::stopAndClose() {
    {
        // Cleared under the lock so no waiter can test the flag and then
        // miss the wake-up below.
        std::lock_guard lock(mutex_);
        running_ = false;
    }
    available_cv_.notify_all();
    health_cv_.notify_all();
    if (health_thread_.joinable()) health_thread_.join();
    if (!initialized_) return;

    {
        std::lock_guard lock(mutex_);
        for (PooledConnection& entry : idle_)
            destroyConnection(std::move(entry.connection));
        idle_.clear();
        total_connections_ = 0;
        initialized_ = false;
    }
    kLog.info("Shutdown pool '", config_.id, "'");
}

PoolStats ConnectionPool::getStats() const {
    PoolStats stats;
    const int32_t total = std::max(0, total_connections_.load());
    const int32_t active = std::max(0, active_connections_.load());
    stats.total = static_cast<uint32_t>(total);
    stats.active = static_cast<uint32_t>(active);
    // After shutdown, connectors still lent out outnumber the (zero) total.
    stats.available = static_cast<uint32_t>(std::max(0, total - active));
    stats.total_acquired = total_acquired_;
    stats.total_released = total_released_;
    stats.acquire_timeouts = acquire_timeouts_;
    stats.connections_created = connections_created_;
    stats.connections_destroyed = connections_destroyed_;
    stats.health_checks_passed = health_checks_passed_;
    stats.health_checks_failed = health_checks_failed_;
    return stats;
}

bool ConnectionPool::isHealthy() const {
    return running_ && total_connections_ >= 1;
}

std::size_t ConnectionPool::getAvailableCount() const {
    std::lock_guard lock(mutex_);
    return idle_.size();
}

void ConnectionPool::checkHealth() {
    std::unique_lock lock(mutex_);
    if (!running_) return;
    const auto now = Clock::now();
    const auto idle_timeout = milliseconds(config_.pool_config.idle_timeout_ms);
    const int32_t min_connections = config_.pool_config.min_connections;
    bool changed = false;

    std::deque<PooledConnection> kept;
    for (PooledConnection& entry : idle_) {
        if (now - entry.last_used > idle_timeout && total_connections_ > min_connections) {
            destroyConnection(std::move(entry.connection));
            --total_connections_;
            changed = true;
        } else if (validateConnection(*entry.connection)) {
            ++health_checks_passed_;
            kept.push_back(std::move(entry));
        } else {
            ++health_checks_failed_;
            destroyConnection(std::move(entry.connection));
            --total_connections_;
            changed = true;
        }
    }
    idle_ = std::move(kept);

    while (total_connections_ < min_connections &&
           total_connections_ + opening_ < config_.pool_config.max_connections) {
        auto connector = createConnection();
        if (!connector) break;  // try again at the next check, not in a loop now
        idle_.push_back(wrap(std::move(connector)));
        ++total_connections_;
        ++connections_created_;
        changed = true;
    }
    lock.unlock();
    // New idle connectors or freed slots: let every waiter look again.
    if (changed) available_cv_.notify_all();
}

void ConnectionPool::healthCheckLoop() {
    const int interval_ms = config_.pool_config.health_check_interval_ms;
    while (running_) {
        if (interval_ms > 0) {
            std::unique_lock lock(mutex_);
            health_cv_.wait_for(lock, milliseconds(interval_ms), [this] { return !running_; });
        } else {
            // No interval configured means back-to-back checks; yielding keeps
            // acquire() and release() from starving on the lock.
            std::this_thread::yield();
        }
        if (running_) checkHealth();
    }
}

std::unique_ptr<DataConnector> ConnectionPool::createConnection(std::string* reason) {
    auto connector = make_connector_(config_.type);
    if (!connector) {
        kLog.error("Failed to create connector for type ", static_cast<int32_t>(config_.type));
        if (reason)
            *reason = "No connector for type " + std::to_string(static_cast<int32_t>(config_.type));
        return nullptr;
    }
    if (!connector->connect(config_)) {
        const std::string error = redacted(connector->getLastError(), config_.password);
        kLog.error("Failed to connect: ", error);
        if (reason) *reason = error;
        return nullptr;
    }
    return connector;
}

bool ConnectionPool::validateConnection(DataConnector& connector) {
    return connector.isConnected() && connector.validate();
}

void ConnectionPool::destroyConnection(std::unique_ptr<DataConnector> connector) {
    connector->disconnect();
    connector.reset();
    ++connections_destroyed_;
}

PooledConnection ConnectionPool::wrap(std::unique_ptr<DataConnector> connector) {
    const auto now = Clock::now();
    return PooledConnection{std::move(connector), now, now, 0, true};
}

}  // namespace vostra::data
