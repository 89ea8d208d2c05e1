#include "security/failure_limiter.h"

namespace vostra::security {

FailureLimiter::FailureLimiter(int max_failures, std::chrono::seconds window, std::chrono::seconds block,
                               std::size_t max_addresses)
    : max_failures_(static_cast<std::size_t>(std::max(1, max_failures))),
      window_(window),
      block_(block),
      max_addresses_(std::max<std::size_t>(1, max_addresses)) {}

bool FailureLimiter::blocked(const std::string& address, Clock::time_point now) {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(address);
    return found != entries_.end() && now < found->second.blocked_until;
}

bool FailureLimiter::recordFailure(const std::string& address, Clock::time_point now) {
    std::lock_guard lock(mutex_);
    if (entries_.size() >= max_addresses_ && !entries_.contains(address)) {
        forgetExpired(now);
        // Still full of live entries: a flood from many addresses. The
        // oldest-looking one makes room; each address still needs its own
        // failures to be blocked.
        if (entries_.size() >= max_addresses_) entries_.erase(entries_.begin());
    }
    Entry& entry = entries_[address];
    while (!entry.failures.empty() && now - entry.failures.front() >= window_) entry.failures.pop_front();
    entry.failures.push_back(now);
    if (entry.failures.size() < max_failures_) return false;
    entry.failures.clear();
    entry.blocked_until = now + block_;
    return true;
}

void FailureLimiter::forgetExpired(Clock::time_point now) {
    for (auto it = entries_.begin(); it != entries_.end();) {
        const Entry& entry = it->second;
        const bool stale = now >= entry.blocked_until &&
                           (entry.failures.empty() || now - entry.failures.back() >= window_);
        it = stale ? entries_.erase(it) : std::next(it);
    }
}

}  // namespace vostra::security
