// A borrowed connector: acquires from a ConnectionPool on construction and
// gives the connector back when destroyed. Movable, not copyable; the pool
// must outlive it. Not thread-safe itself: one owner at a time.
#pragma once

#include <memory>

#include "connectors/data_connector.h"

namespace vostra::data {

class ConnectionPool;

class PooledConnectionGuard {
public:
    // Acquires with `timeout_ms` (negative: the pool's connection_timeout_ms).
    // Check the guard before use: it may come back empty.
    explicit PooledConnectionGuard(ConnectionPool& pool, int timeout_ms = -1);
    ~PooledConnectionGuard();

    PooledConnectionGuard(PooledConnectionGuard&& other) noexcept;
    // Returns the connector held so far, then takes over `other`'s.
    PooledConnectionGuard& operator=(PooledConnectionGuard&& other) noexcept;
    PooledConnectionGuard(const PooledConnectionGuard&) = delete;
    PooledConnectionGuard& operator=(const PooledConnectionGuard&) = delete;

    // The borrowed connector, or nullptr when none is held.
    DataConnector* get() const { return connector_.get(); }
    DataConnector* operator->() const { return connector_.get(); }
    DataConnector& operator*() const { return *connector_; }
    explicit operator bool() const { return connector_ != nullptr; }

    // Gives the connector back now; the guard is empty afterwards.
    void release();

private:
    ConnectionPool* pool_;
    std::unique_ptr<DataConnector> connector_;
};

}  // namespace vostra::data
