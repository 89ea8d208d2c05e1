#include "science/response_cache.h"

namespace vostra::data {

ResponseCache::ResponseCache(Limits limits, Clock clock)
    : limits_(limits), clock_(std::move(clock)) {}

std::optional<ScienceResult> ResponseCache::find(const std::string& key) {
    const auto now = clock_();
    std::lock_guard lock(mutex_);
    auto it = index_.find(key);
    if (it == index_.end()) return std::nullopt;
    if (now >= it->second->expires) {
        bytes_ -= it->second->bytes;
        entries_.erase(it->second);
        index_.erase(it);
        return std::nullopt;
    }
    return it->second->result;
}

void ResponseCache::store(const std::string& key, const ScienceResult& result, std::size_t bytes) {
    if (limits_.max_entries == 0 || bytes > limits_.max_bytes / 4) return;
    const auto expires = clock_() + limits_.ttl;
    std::lock_guard lock(mutex_);
    if (auto it = index_.find(key); it != index_.end()) {
        bytes_ -= it->second->bytes;
        entries_.erase(it->second);
        index_.erase(it);
    }
    while (!entries_.empty() &&
           (entries_.size() >= limits_.max_entries || bytes_ + bytes > limits_.max_bytes))
        evictOldest();
    entries_.push_back({key, result, bytes, expires});
    index_[key] = std::prev(entries_.end());
    bytes_ += bytes;
}

std::size_t ResponseCache::size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

void ResponseCache::evictOldest() {
    bytes_ -= entries_.front().bytes;
    index_.erase(entries_.front().key);
    entries_.pop_front();
}

}  // namespace vostra::data
