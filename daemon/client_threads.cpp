#include "daemon/client_threads.h"

#include <algorithm>
#include <chrono>
#include <semaphore>
#include <system_error>
#include <thread>

namespace vostra::data {
namespace {

// Long enough to carry a steady stream of connections, short enough that a
// burst's threads are gone soon after it.
constexpr auto kIdleWait = std::chrono::seconds(30);
constexpr int kNoConnection = -1;

}  // namespace

// An idle thread waits on its own semaphore, so handing it a connection wakes
// exactly that thread and takes no lock that the serving threads contend for.
struct ClientThreads::Worker {
    std::binary_semaphore ready{0};
    int fd = kNoConnection;
};

bool ClientThreads::dispatch(int fd) {
    Worker* worker = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            worker = idle_.back();
            idle_.pop_back();
        }
    }
    if (worker) {
        worker->fd = fd;
        worker->ready.release();
        return true;
    }
    try {
        std::thread(&ClientThreads::run, this, fd).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

void ClientThreads::releaseIdle() {
    std::lock_guard lock(mutex_);
    for (Worker* worker : idle_) {
        worker->fd = kNoConnection;
        worker->ready.release();
    }
    idle_.clear();
}

void ClientThreads::run(int fd) {
    Worker self;
    while (fd != kNoConnection) {
        serve_(fd);
        {
            std::lock_guard lock(mutex_);
            idle_.push_back(&self);
        }
        if (!self.ready.try_acquire_for(kIdleWait)) {
            std::unique_lock lock(mutex_);
            auto mine = std::find(idle_.begin(), idle_.end(), &self);
            if (mine != idle_.end()) {
                idle_.erase(mine);
                return;
            }
            // Picked just as the wait ran out: the hand-over is on its way.
            lock.unlock();
            self.ready.acquire();
        }
        fd = self.fd;
    }
}

}  // namespace vostra::data
