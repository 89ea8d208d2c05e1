#include "science/rate_limiter.h"

namespace vostra::data {

RateLimiter::RateLimiter(Clock clock) : clock_(std::move(clock)) {}

bool RateLimiter::acquire(const std::string& key, int per_minute) {
    if (per_minute <= 0) return true;
    const auto now = clock_();
    std::lock_guard lock(mutex_);
    auto& times = taken_[key];
    while (!times.empty() && now - times.front() >= std::chrono::minutes(1))
        times.pop_front();
    if (times.size() >= static_cast<std::size_t>(per_minute)) return false;
    times.push_back(now);
    return true;
}

}  // namespace vostra::data
