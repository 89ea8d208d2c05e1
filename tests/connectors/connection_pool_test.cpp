#include "connectors/connection_pool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <vector>

#include "connectors/pooled_connection_guard.h"
#include "tests/connectors/fake_connector.h"
#include "tests/support/daemon_process.h"

namespace vostra::data {
namespace {

using namespace std::chrono_literals;
using test::serialOf;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using vostra::test::eventually;

class ConnectionPoolTest : public ::testing::Test {
protected:
    ConnectionPoolTest() {
        config.id = "src";
        config.pool_config.max_connections = 1;
        config.pool_config.health_check_interval_ms = 600000;  // only when a test asks
    }
    std::unique_ptr<ConnectionPool> start(bool expect_ok = true) {
        auto pool = std::make_unique<ConnectionPool>(config, [b = backend](ConnectorType) {
            return std::make_unique<test::FakeConnector>(b);
        });
        EXPECT_EQ(pool->initialize().ok(), expect_ok);
        return pool;
    }

    std::shared_ptr<test::FakeBackend> backend = std::make_shared<test::FakeBackend>();
    DataSourceConfig config;
};

TEST_F(ConnectionPoolTest, InitializeOpensTheMinimumAndZeroMinimumFails) {
    config.pool_config.min_connections = 3;
    config.pool_config.max_connections = 5;
    auto pool = start();
    EXPECT_TRUE(pool->initialize().ok());  // again: no more connections
    EXPECT_TRUE(pool->isHealthy());
    EXPECT_EQ(pool->getAvailableCount(), 3u);
    EXPECT_EQ(pool->getStats().total, 3u);
    EXPECT_EQ(backend->alive, 3);

    config.pool_config.min_connections = 0;
    CaptureStderr();
    auto empty = start(false);
    EXPECT_NE(GetCapturedStderr().find("[ConnectionPool] Could not create any connections for src"),
              std::string::npos);
    EXPECT_FALSE(empty->isHealthy());
    EXPECT_EQ(empty->acquire(0), nullptr);
}

TEST_F(ConnectionPoolTest, SizesOutOfBoundsAreRefusedBeforeAnythingOpens) {
    const struct {
        int32_t min, max, statement_timeout;
        const char* reason;
    } cases[] = {
        {100000, 10, 0, "min_connections 100000 is above the limit of 1000"},
        {1, 1001, 0, "max_connections 1001 is above the limit of 1000"},
        {5, 2, 0, "min_connections 5 is above max_connections 2"},
        {1, 10, -1, "statement_timeout_ms must not be negative"},
    };
    CaptureStderr();
    for (const auto& c : cases) {
        config.pool_config.min_connections = c.min;
        config.pool_config.max_connections = c.max;
        config.pool_config.statement_timeout_ms = c.statement_timeout;
        ConnectionPool pool(config, [b = backend](ConnectorType) {
            return std::make_unique<test::FakeConnector>(b);
        });
        const Status refused = pool.initialize();
        EXPECT_EQ(refused.kind, ErrorKind::Invalid) << c.reason;
        EXPECT_EQ(refused.message, c.reason);
        EXPECT_FALSE(pool.isHealthy());
        EXPECT_EQ(backend->next_serial, 1) << "nothing may open: " << c.reason;
    }
    GetCapturedStderr();
    config.pool_config.min_connections = 2;
    config.pool_config.max_connections = kMaxPoolConnections;
    config.pool_config.statement_timeout_ms = 0;
    EXPECT_EQ(start()->getStats().total, 2u);
}

TEST_F(ConnectionPoolTest, FailureToConnectCarriesTheDriversReasonWithoutThePassword) {
    config.password = "hunter22";
    backend->connect_error = "password hunter22 rejected for app";
    backend->refuse_connect = true;
    CaptureStderr();
    auto pool = start(false);
    const std::string log = GetCapturedStderr();
    const Status refused = pool->initialize();
    EXPECT_EQ(refused.kind, ErrorKind::Unavailable);
    EXPECT_EQ(refused.message,
              "Could not create any connections for src: password *** rejected for app");
    EXPECT_NE(log.find("password *** rejected"), std::string::npos) << log;
    EXPECT_EQ(log.find("hunter22"), std::string::npos) << log;
}

// Makes every thread started meanwhile ask for more stack than an address
// space holds, so creating one fails as it does when the process is out of
// threads or memory.
class ThreadsCannotStart {
public:
    ThreadsCannotStart() {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        pthread_attr_getstacksize(&attributes, &saved_);
        pthread_attr_setstacksize(&attributes, std::size_t{1} << 52);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }
    ~ThreadsCannotStart() {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        pthread_attr_setstacksize(&attributes, saved_);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }

private:
    std::size_t saved_ = 0;
};

TEST_F(ConnectionPoolTest, AHealthThreadThatCannotStartRefusesThePoolAndClosesItsConnections) {
    config.pool_config.min_connections = 3;
    config.pool_config.max_connections = 3;
    auto pool = std::make_unique<ConnectionPool>(
        config, [b = backend](ConnectorType) { return std::make_unique<test::FakeConnector>(b); });
    Status refused;
    CaptureStderr();
    {
        ThreadsCannotStart no_threads;
        refused = pool->initialize();
    }
    GetCapturedStderr();
    EXPECT_EQ(refused.kind, ErrorKind::Internal);
    EXPECT_EQ(refused.message.rfind("Could not start the health check for src: ", 0), 0u)
        << refused.message;
    EXPECT_EQ(backend->alive, 0);
    EXPECT_FALSE(pool->isHealthy());
    EXPECT_EQ(pool->getStats().total, 0u);
    EXPECT_EQ(pool->acquire(0), nullptr);
    // Nothing is left in a half-started state: it starts once threads can.
    EXPECT_TRUE(pool->initialize().ok());
    EXPECT_EQ(backend->alive, 3);
}

TEST_F(ConnectionPoolTest, AConnectorStuckInATransactionIsClosedNotParked) {
    auto pool = start();
    auto connector = pool->acquire(1000);
    backend->stuck_in_transaction = true;
    CaptureStderr();
    pool->release(std::move(connector));
    EXPECT_NE(GetCapturedStderr().find("stuck in a transaction"), std::string::npos);
    EXPECT_EQ(backend->alive, 0);
    EXPECT_EQ(pool->getStats().total, 0u);
    backend->stuck_in_transaction = false;
    // The freed slot is used again.
    connector = pool->acquire(1000);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(serialOf(connector), 2);
    pool->release(std::move(connector));
    EXPECT_EQ(pool->getAvailableCount(), 1u);
}

TEST_F(ConnectionPoolTest, SecondAcquireOnAPoolOfOneTimesOutAndCountsIt) {
    config.pool_config.connection_timeout_ms = 50;
    auto pool = start();
    PooledConnectionGuard held(*pool, 1000);
    ASSERT_TRUE(held);
    CaptureStderr();
    EXPECT_EQ(pool->acquire(100), nullptr);
    EXPECT_EQ(pool->acquire(-1), nullptr);  // negative: connection_timeout_ms
    EXPECT_NE(GetCapturedStderr().find("[ConnectionPool] Acquire timeout for src"),
              std::string::npos);
    const PoolStats stats = pool->getStats();
    EXPECT_EQ(stats.acquire_timeouts, 2u);
    EXPECT_EQ(stats.active, 1u);
    EXPECT_EQ(stats.available, 0u);
}

TEST_F(ConnectionPoolTest, ReleaseWakesExactlyOneWaiterWhichGetsTheConnector) {
    auto pool = start();
    auto held = pool->acquire(1000);
    ASSERT_NE(held, nullptr);
    const int serial = serialOf(held);
    std::atomic<int> served{0};
    std::unique_ptr<DataConnector> received[2];
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&, i] {
            received[i] = pool->acquire(20000);
            ++served;
        });
    }
    std::this_thread::sleep_for(100ms);  // let both block in acquire
    pool->release(std::move(held));
    ASSERT_TRUE(eventually([&] { return served == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(served, 1) << "one release must not satisfy two waiters";
    std::unique_ptr<DataConnector>& first = received[0] ? received[0] : received[1];
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(serialOf(first), serial);
    pool->release(std::move(first));
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(pool->getStats().connections_created, 1u);
    for (auto& connector : received)
        pool->release(std::move(connector));
}

TEST_F(ConnectionPoolTest, IdleConnectorsRotateFirstInFirstOut) {
    config.pool_config.min_connections = 2;
    config.pool_config.max_connections = 2;
    auto pool = start();
    auto a = pool->acquire(1000);
    const int first = serialOf(a);
    pool->release(std::move(a));
    auto b = pool->acquire(1000);
    auto c = pool->acquire(1000);
    EXPECT_NE(serialOf(b), first);
    EXPECT_EQ(serialOf(c), first);
    pool->release(std::move(b));
    pool->release(std::move(c));
}

TEST_F(ConnectionPoolTest, ConcurrentBorrowersNeverExceedTheMaximum) {
    config.pool_config.max_connections = 3;
    backend->connect_delay_us = 2000;
    auto pool = start();
    std::atomic<int> borrowed{0}, most_borrowed{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 8; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                PooledConnectionGuard guard(*pool, 20000);
                if (!guard) continue;
                const int now = ++borrowed;
                int seen = most_borrowed;
                while (now > seen && !most_borrowed.compare_exchange_weak(seen, now)) {
                }
                std::this_thread::sleep_for(50us);
                --borrowed;
            }
        });
    }
    for (auto& worker : workers)
        worker.join();
    const PoolStats stats = pool->getStats();
    EXPECT_LE(backend->max_alive, 3);
    EXPECT_LE(most_borrowed, 3);
    EXPECT_EQ(stats.total_acquired, 1600u);
    EXPECT_EQ(stats.total_released, 1600u);
    EXPECT_EQ(stats.active, 0u);
    // Connections opened on demand are parked on return, not closed.
    EXPECT_EQ(pool->getAvailableCount(), 3u);
}

TEST_F(ConnectionPoolTest, StaleIdleConnectorIsReplacedOnAcquire) {
    config.pool_config.validation_bypass_ms = 0;
    auto pool = start();
    backend->fail_validation = true;
    auto connector = pool->acquire(1000);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(serialOf(connector), 2);  // fresh connections are lent unvalidated
    EXPECT_EQ(pool->getStats().connections_destroyed, 1u);
    EXPECT_EQ(pool->getStats().total, 1u);
    EXPECT_EQ(backend->alive, 1);
    pool->release(std::move(connector));
}

TEST_F(ConnectionPoolTest, AJustReturnedConnectorSkipsValidationAnIdleOneDoesNot) {
    config.pool_config.validation_bypass_ms = 200;
    auto pool = start();
    pool->release(pool->acquire(1000));
    backend->fail_validation = true;
    auto connector = pool->acquire(1000);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(serialOf(connector), 1);  // no round trip: it was just back
    pool->release(std::move(connector));
    std::this_thread::sleep_for(300ms);
    connector = pool->acquire(1000);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(serialOf(connector), 2);  // rested past the window: validated, failed, replaced
    pool->release(std::move(connector));
}

TEST_F(ConnectionPoolTest, LifetimeLimitsRestBetweenLoansNotAge) {
    config.pool_config.max_lifetime_ms = 300;
    auto pool = start();
    auto connector = pool->acquire(1000);
    std::this_thread::sleep_for(500ms);  // lent out longer than the lifetime
    pool->release(std::move(connector));
    connector = pool->acquire(1000);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(serialOf(connector), 1);
    pool->release(std::move(connector));
    std::this_thread::sleep_for(500ms);  // resting longer than the lifetime
    connector = pool->acquire(1000);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(serialOf(connector), 2);
    EXPECT_EQ(pool->getStats().connections_destroyed, 1u);
    pool->release(std::move(connector));
}

TEST_F(ConnectionPoolTest, ShutdownEmptiesThePoolAndWakesWaiters) {
    auto pool = start();
    auto lent = pool->acquire(1000);
    std::unique_ptr<DataConnector> got;
    std::thread waiter([&] { got = pool->acquire(600000); });
    std::this_thread::sleep_for(100ms);
    pool->shutdown();
    waiter.join();
    EXPECT_EQ(got, nullptr);
    EXPECT_FALSE(pool->isHealthy());
    EXPECT_EQ(pool->getStats().total, 0u);
    EXPECT_EQ(pool->acquire(1000), nullptr);
    // The connector lent out survives until it comes back, then is closed.
    EXPECT_EQ(backend->alive, 1);
    pool->release(std::move(lent));
    EXPECT_EQ(backend->alive, 0);
    EXPECT_EQ(pool->getAvailableCount(), 0u);
    EXPECT_EQ(pool->getStats().active, 0u);
    // A stopped pool can be started again.
    EXPECT_TRUE(pool->initialize().ok());
    EXPECT_TRUE(pool->isHealthy());
}

TEST_F(ConnectionPoolTest, HealthCheckReplacesBrokenAndClosesSurplusIdleConnectors) {
    config.pool_config.min_connections = 2;
    config.pool_config.max_connections = 4;
    config.pool_config.idle_timeout_ms = 0;
    auto pool = start();
    std::vector<std::unique_ptr<DataConnector>> held;
    for (int i = 0; i < 4; ++i)
        held.push_back(pool->acquire(1000));
    for (auto& connector : held)
        pool->release(std::move(connector));
    std::this_thread::sleep_for(10ms);
    pool->checkHealth();  // idle too long: closed down to the minimum
    EXPECT_EQ(pool->getStats().total, 2u);
    EXPECT_EQ(pool->getStats().health_checks_passed, 2u);

    backend->fail_validation = true;
    backend->refuse_connect = true;
    CaptureStderr();
    pool->checkHealth();  // broken ones closed; the top-up gives up at once
    const std::string log = GetCapturedStderr();
    EXPECT_NE(log.find("Failed to connect: refused by test"), std::string::npos);
    EXPECT_EQ(log.find("Failed to connect"), log.rfind("Failed to connect"));
    EXPECT_EQ(pool->getStats().health_checks_failed, 2u);
    EXPECT_FALSE(pool->isHealthy());

    backend->fail_validation = false;
    backend->refuse_connect = false;
    pool->checkHealth();
    EXPECT_EQ(pool->getAvailableCount(), 2u);
    EXPECT_EQ(backend->alive, 2);
}

TEST_F(ConnectionPoolTest, GuardMovesOwnershipAndReturnsOnce) {
    config.pool_config.max_connections = 2;
    auto pool = start();
    {
        PooledConnectionGuard a(*pool, 1000);
        PooledConnectionGuard moved(std::move(a));
        EXPECT_FALSE(a);
        ASSERT_TRUE(moved);
        EXPECT_EQ(moved->getName(), "Fake");
        PooledConnectionGuard b(*pool, 1000);
        b = std::move(moved);  // b's own connector goes back first
        EXPECT_EQ(pool->getStats().active, 1u);
        b.release();
        EXPECT_FALSE(b);
        EXPECT_EQ(pool->getStats().active, 0u);
    }
    EXPECT_EQ(pool->getStats().total_acquired, 2u);
    EXPECT_EQ(pool->getStats().total_released, 2u);
}

}  // namespace
}  // namespace vostra::data
