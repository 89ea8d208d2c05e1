#include "connectors/pooled_connection_guard.h"

#include <utility>

#include "connectors/connection_pool.h"

namespace vostra::data {

PooledConnectionGuard::PooledConnectionGuard(ConnectionPool& pool, int timeout_ms)
    : pool_(&pool), connector_(pool.acquire(timeout_ms)) {}

PooledConnectionGuard::~PooledConnectionGuard() {
    release();
}

PooledConnectionGuard::PooledConnectionGuard(PooledConnectionGuard&& other) noexcept
    : pool_(other.pool_), connector_(std::move(other.connector_)) {}

PooledConnectionGuard& PooledConnectionGuard::operator=(PooledConnectionGuard&& other) noexcept {
    if (this != &other) {
        release();
        pool_ = other.pool_;
        connector_ = std::move(other.connector_);
    }
    return *this;
}

void PooledConnectionGuard::release() {
    if (connector_) pool_->release(std::move(connector_));
}

}  // namespace vostra::data
