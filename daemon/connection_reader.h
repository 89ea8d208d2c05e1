// ConnectionReader: the accept thread's event loop. It accepts connections
// and reads their requests without a thread each (epoll), so a client that
// sends slowly, or not at all, holds a few hundred bytes instead of a thread
// and a connection slot. A connection is handed on only once its request is
// complete, has stalled for 5 s (dispatched with what has arrived, as a
// blocking read always did), or has not finished its header block within
// 30 s (treated as stalled).
//
// Owned by DataDaemon's accept thread, which alone calls run(); not
// thread-safe otherwise. The listening socket stays the caller's.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <unordered_map>

#include "daemon/http_message.h"

namespace vostra::data {

class ConnectionReader {
public:
    struct Limits {
        std::size_t max_waiting = 10000;  // connections still being read; beyond: 503
        std::chrono::milliseconds stall{5000};
        std::chrono::milliseconds head_deadline{30000};
    };
    // Takes a complete request; its socket is blocking again and the
    // handler owns it (and must close it).
    using Handoff = std::function<void(HttpRequest&&)>;

    ConnectionReader(int listen_fd, Limits limits, Handoff handoff);
    ~ConnectionReader();
    ConnectionReader(const ConnectionReader&) = delete;
    ConnectionReader& operator=(const ConnectionReader&) = delete;

    // False when the event loop could not be set up.
    bool ready() const { return epoll_fd_ >= 0; }

    // Serves until `running` is cleared (noticed within a quarter second),
    // then closes every connection still being read.
    void run(const std::atomic<bool>& running);

    // Connections being read now; for tests and metrics.
    std::size_t waiting() const { return waiting_.load(); }

private:
    struct Connection;

    void acceptAll();
    void readFrom(int fd, Connection& connection);
    void sweep(std::chrono::steady_clock::time_point now);
    // Stops watching the connection and either hands its request on or
    // answers `status` (431, 400) and closes it; nothing received: closes.
    void finish(int fd, int status = 0);

    int listen_fd_;
    int epoll_fd_ = -1;
    Limits limits_;
    Handoff handoff_;
    std::atomic<std::size_t> waiting_{0};
    std::unordered_map<int, std::unique_ptr<Connection>> connections_;
    std::chrono::steady_clock::time_point last_sweep_;
};

}  // namespace vostra::data
