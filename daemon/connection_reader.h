// ConnectionReader: the event loop (epoll) that finishes reading requests
// from clients that send slowly, so that such a client holds a few hundred
// bytes instead of a thread and a connection slot. A client thread that
// finds a fresh connection's request incomplete adopts it here; the reader
// hands the connection on once its request is complete, has stalled for 5 s
// (dispatched with what has arrived, as a blocking read always did), or has
// not finished its header block within 30 s (treated as stalled).
//
// Owned by DataDaemon. adopt() and waiting() may be called from any thread;
// run() from the reader thread only.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "daemon/http_message.h"
#include "daemon/request_assembler.h"

namespace vostra::data {

class ConnectionReader {
public:
    struct Limits {
        std::chrono::milliseconds stall{5000};
        std::chrono::milliseconds head_deadline{30000};
    };
    // Takes a complete request; its (blocking) socket is the handler's to
    // answer on and close.
    using Handoff = std::function<void(HttpRequest&&)>;

    ConnectionReader(Limits limits, Handoff handoff);
    ~ConnectionReader();
    ConnectionReader(const ConnectionReader&) = delete;
    ConnectionReader& operator=(const ConnectionReader&) = delete;

    // False when the event loop could not be set up.
    bool ready() const { return epoll_fd_ >= 0 && wake_fd_ >= 0; }

    // Takes over connection `fd` whose request has begun in `partial`
    // (possibly empty), opened at `opened`. Closed at once unless run() is
    // serving.
    void adopt(int fd, RequestAssembler&& partial, std::chrono::steady_clock::time_point opened);

    // Serves until `running` is cleared (noticed within a quarter second),
    // then closes every connection still being read.
    void run(const std::atomic<bool>& running);

    // True while run() serves; any thread.
    bool serving() const;
    // Connections being read or about to be; any thread.
    std::size_t waiting() const { return waiting_.load(); }

private:
    struct Connection {
        RequestAssembler assembler;
        std::chrono::steady_clock::time_point opened;
        std::chrono::steady_clock::time_point last_read;
    };

    void takeAdopted();
    void readFrom(int fd, Connection& connection);
    void sweep(std::chrono::steady_clock::time_point now);
    // Stops watching the connection and hands its request on, or answers an
    // unreadable one and closes it; nothing received: closes it.
    void finish(int fd, RequestAssembler::Progress progress = RequestAssembler::Progress::Complete);

    int epoll_fd_ = -1;
    int wake_fd_ = -1;  // eventfd: adopted connections are queued
    Limits limits_;
    Handoff handoff_;
    std::atomic<std::size_t> waiting_{0};

    mutable std::mutex queue_mutex_;  // guards queue_ and serving_
    bool serving_ = false;
    std::vector<std::pair<int, std::unique_ptr<Connection>>> queue_;

    // The reader thread's own.
    std::unordered_map<int, std::unique_ptr<Connection>> connections_;
    std::chrono::steady_clock::time_point last_sweep_;
};

// How a client thread begins a fresh connection: reads what is there without
// waiting. Complete: the request is in `request`. Otherwise the assembler
// holds what arrived, for the reader to finish (NeedMore), or the head was
// too large or the body badly chunked, already answered.
RequestAssembler::Progress readWithoutWaiting(int fd, RequestAssembler& assembler,
                                              bool& peer_closed);

}  // namespace vostra::data
