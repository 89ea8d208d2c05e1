// The threads that serve client requests, one request per thread at a
// time. A thread that finishes a connection waits a while for the next one
// before it ends, so a busy server does not pay for a thread start on every
// connection; with no idle thread, a new detached one is started. Threads are
// never joined: a request in progress may outlive stop().
//
// Owned by DataDaemon, which outlives every thread started here. Thread-safe.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

namespace vostra::data {

class ClientThreads {
public:
    // Serves one request, socket and all; it must close the socket.
    using Job = std::function<void()>;

    ClientThreads() = default;
    ClientThreads(const ClientThreads&) = delete;
    ClientThreads& operator=(const ClientThreads&) = delete;

    // Hands `job` to an idle thread or a new one. False (job not run) when
    // no thread could be started.
    bool dispatch(Job job);

    // Idle threads end now instead of after their idle wait.
    void releaseIdle();

private:
    struct Worker;
    void run(Job job);

    std::mutex mutex_;            // guards idle_ only; never held while serving
    std::vector<Worker*> idle_;   // most recently idle last, so warm threads serve first
};

}  // namespace vostra::data
