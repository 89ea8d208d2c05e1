// Counting failed authentications per client address: an address that
// fails `max_failures` times within `window` is refused for `block` (the
// caller answers 429), so guessing keys costs a minute per few dozen
// guesses. Memory stays bounded however many addresses try. Thread-safe.
#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace vostra::security {

class FailureLimiter {
public:
    using Clock = std::chrono::steady_clock;

    explicit FailureLimiter(int max_failures = 20, std::chrono::seconds window = std::chrono::seconds(60),
                            std::chrono::seconds block = std::chrono::seconds(60),
                            std::size_t max_addresses = 10000);

    // Whether `address` is being refused at `now`.
    bool blocked(const std::string& address, Clock::time_point now = Clock::now());
    // Counts one failure; true when it starts a block.
    bool recordFailure(const std::string& address, Clock::time_point now = Clock::now());

private:
    struct Entry {
        std::deque<Clock::time_point> failures;
        Clock::time_point blocked_until{};
    };
    void forgetExpired(Clock::time_point now);

    const std::size_t max_failures_;
    const Clock::duration window_;
    const Clock::duration block_;
    const std::size_t max_addresses_;
    std::mutex mutex_;
    std::unordered_map<std::string, Entry> entries_;
};

}  // namespace vostra::security
