// Each tenant's storage figures for a backend whose only way to measure a
// tenant is to list all of its objects (an object store): kept in memory,
// updated by this daemon's own writes and deletes, and replaced by a fresh
// listing when first needed and then whenever older than `max_age`, so that
// several daemons writing one bucket converge. One size per object is kept
// (about a hundred bytes each), which is what lets an overwrite or a
// delete change the figure by the right amount.
//
// A listing runs without the lock; changes recorded meanwhile are replayed
// onto its result, so none is lost to a refresh. Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "storage/tenant_usage.h"

namespace vostra::data {

class ObjectUsageCache {
public:
    using Clock = std::chrono::steady_clock;
    // Object paths relative to the tenant root ("a/b.txt"; folder markers
    // end in "/") with their sizes.
    using Objects = std::unordered_map<std::string, int64_t>;
    // Lists a tenant's objects into `objects`; false when the listing failed.
    using Lister = std::function<bool(const std::string& tenant, Objects& objects)>;

    ObjectUsageCache(Lister lister, Clock::duration max_age)
        : lister_(std::move(lister)), max_age_(max_age) {}
    ObjectUsageCache(const ObjectUsageCache&) = delete;
    ObjectUsageCache& operator=(const ObjectUsageCache&) = delete;

    // The tenant's figures, listed afresh when stale. When a listing fails
    // the last figures stand (all zero if there were none).
    TenantUsage usage(const std::string& tenant);

    // This daemon stored `path` with `size` bytes (replacing any old size).
    void recordStored(const std::string& tenant, const std::string& path, int64_t size);
    // This daemon removed `path`.
    void recordRemoved(const std::string& tenant, const std::string& path);
    // Forgets the tenant; the next figure comes from a listing.
    void forget(const std::string& tenant);

private:
    struct Figure {
        Objects sizes;
        TenantUsage totals;
        std::optional<Clock::time_point> listed_at;
        int refreshing = 0;
        uint64_t generation = 0;  // moves on forget(): older listings are void
        // Changes made while a listing runs: path and new size (nothing
        // when removed).
        std::vector<std::pair<std::string, std::optional<int64_t>>> journal;
    };

    static void apply(Figure& figure, const std::string& path, std::optional<int64_t> size);
    static void count(TenantUsage& totals, const std::string& path, int64_t size, int sign);
    void record(const std::string& tenant, const std::string& path, std::optional<int64_t> size);

    const Lister lister_;
    const Clock::duration max_age_;
    std::mutex mutex_;
    std::map<std::string, Figure> figures_;
};

}  // namespace vostra::data
