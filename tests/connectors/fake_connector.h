// A connector without a database, for exercising the pool: an SQLite
// connector that never opens one. All instances share one FakeBackend whose
// atomic switches make connects or validations fail, or leave connectors in
// a transaction that cannot be rolled back, and whose counters show how
// many connectors exist.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "connectors/sqlite_connector.h"

namespace vostra::data::test {

struct FakeBackend {
    std::atomic<bool> refuse_connect{false};
    std::atomic<bool> fail_validation{false};
    std::atomic<bool> stuck_in_transaction{false};
    std::string connect_error = "refused by test";  // set before connectors exist
    std::atomic<int> connect_delay_us{0};           // widens races around opening
    std::atomic<int> next_serial{1};
    std::atomic<int> alive{0};
    std::atomic<int> max_alive{0};
};

class FakeConnector : public SQLiteConnector {
public:
    explicit FakeConnector(std::shared_ptr<FakeBackend> backend)
        : backend_(std::move(backend)), serial_(backend_->next_serial++) {
        const int now = ++backend_->alive;
        int seen = backend_->max_alive;
        while (now > seen && !backend_->max_alive.compare_exchange_weak(seen, now)) {
        }
    }
    ~FakeConnector() override { --backend_->alive; }
    int serial() const { return serial_; }  // 1, 2, … in order of creation

    std::string getName() const override { return "Fake"; }
    bool connect(const DataSourceConfig&) override {
        std::this_thread::sleep_for(std::chrono::microseconds(backend_->connect_delay_us));
        connected_ = !backend_->refuse_connect;
        if (!connected_) last_error_ = backend_->connect_error;
        return connected_;
    }
    void disconnect() override { connected_ = false; }
    bool isConnected() const override { return connected_; }
    bool validate() override { return !backend_->fail_validation; }
    bool inTransaction() const override { return backend_->stuck_in_transaction; }
    bool rollbackOpenTransaction() override { return !backend_->stuck_in_transaction; }

private:
    std::shared_ptr<FakeBackend> backend_;
    int serial_;
    bool connected_ = false;
};

inline int serialOf(const std::unique_ptr<DataConnector>& connector) {
    return static_cast<const FakeConnector&>(*connector).serial();
}

}  // namespace vostra::data::test
