// Recent answers of the public services, so that agents asking the same
// question again within a few minutes cost the service nothing. Entries
// live for a fixed time (`ttl`) and the cache holds at most `max_entries`
// answers of at most `max_bytes` in all; an answer larger than a quarter
// of `max_bytes` is not kept. When full, the oldest entry goes first:
// with one lifetime for all, it is also the one to expire first.
//
// Thread-safe: every method may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "science/science_request.h"

namespace vostra::data {

class ResponseCache {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    struct Limits {
        std::chrono::seconds ttl{300};
        std::size_t max_entries = 256;
        std::size_t max_bytes = 16u << 20;
    };

    explicit ResponseCache(
        Limits limits, Clock clock = [] { return std::chrono::steady_clock::now(); });
    ResponseCache(const ResponseCache&) = delete;
    ResponseCache& operator=(const ResponseCache&) = delete;

    // The answer kept under `key`, unless it has expired.
    std::optional<ScienceResult> find(const std::string& key);
    // Keeps `result`, which took `bytes` on the wire, under `key`.
    void store(const std::string& key, const ScienceResult& result, std::size_t bytes);

    std::size_t size() const;

private:
    struct Entry {
        std::string key;
        ScienceResult result;
        std::size_t bytes;
        std::chrono::steady_clock::time_point expires;
    };

    void evictOldest();

    const Limits limits_;
    const Clock clock_;
    mutable std::mutex mutex_;
    std::list<Entry> entries_;  // oldest first
    std::unordered_map<std::string, std::list<Entry>::iterator> index_;
    std::size_t bytes_ = 0;
};

}  // namespace vostra::data
