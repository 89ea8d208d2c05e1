// Per-provider request budgets over a sliding minute, so that the gateway
// never asks a public service faster than that service allows, however
// many agents call it at once. Times come from the steady clock (a clock
// set back must not open or close the budget); tests pass a clock of
// their own.
//
// Thread-safe: acquire() may be called from any thread; a budget is never
// overdrawn by concurrent callers.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace vostra::data {

class RateLimiter {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    explicit RateLimiter(Clock clock = [] { return std::chrono::steady_clock::now(); });
    RateLimiter(const RateLimiter&) = delete;
    RateLimiter& operator=(const RateLimiter&) = delete;

    // Takes one request from `key`'s budget: true when fewer than
    // `per_minute` were taken in the last minute (and records this one),
    // false otherwise. A `per_minute` of 0 or less means no limit.
    bool acquire(const std::string& key, int per_minute);

private:
    const Clock clock_;
    std::mutex mutex_;
    std::map<std::string, std::deque<std::chrono::steady_clock::time_point>> taken_;
};

}  // namespace vostra::data
