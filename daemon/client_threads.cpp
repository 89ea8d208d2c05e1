#include "daemon/client_threads.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <system_error>
#include <thread>

namespace vostra::data {
namespace {

// Long enough to carry a steady stream of connections, short enough that a
// burst's threads are gone soon after it.
constexpr auto kIdleWait = std::chrono::seconds(2);

}  // namespace

// An idle thread waits on its own condition variable, so handing it a
// connection wakes exactly that thread and takes no lock that the serving
// threads contend for. (A semaphore's timed wait spins on sched_yield here,
// which cost more CPU than the requests themselves.)
struct ClientThreads::Worker {
    std::mutex mutex;
    std::condition_variable ready;
    bool handed = false;
    Job job;  // empty: end the thread

    void hand(Job next) {
        // Notified under the lock: once `handed` is seen, the worker may end
        // and destroy this object, so nothing may touch it after unlocking.
        std::lock_guard lock(mutex);
        job = std::move(next);
        handed = true;
        ready.notify_one();
    }
    bool await(std::chrono::seconds limit) {
        std::unique_lock lock(mutex);
        const bool got = ready.wait_for(lock, limit, [this] { return handed; });
        handed = false;
        return got;
    }
};

bool ClientThreads::dispatch(Job job) {
    Worker* worker = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            worker = idle_.back();
            idle_.pop_back();
        }
    }
    if (worker) {
        worker->hand(std::move(job));
        return true;
    }
    try {
        std::thread(&ClientThreads::run, this, std::move(job)).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

void ClientThreads::releaseIdle() {
    std::lock_guard lock(mutex_);
    for (Worker* worker : idle_) worker->hand(nullptr);
    idle_.clear();
}

void ClientThreads::run(Job job) {
    Worker self;
    while (job) {
        job();
        job = nullptr;
        {
            std::lock_guard lock(mutex_);
            idle_.push_back(&self);
        }
        if (!self.await(kIdleWait)) {
            std::unique_lock lock(mutex_);
            auto mine = std::find(idle_.begin(), idle_.end(), &self);
            if (mine != idle_.end()) {
                idle_.erase(mine);
                return;
            }
            // Picked just as the wait ran out: the hand-over is on its way.
            lock.unlock();
            self.await(std::chrono::hours(24 * 365));
        }
        job = std::move(self.job);
    }
}

}  // namespace vostra::data
