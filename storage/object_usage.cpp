#include "storage/object_usage.h"

namespace vostra::data {

void ObjectUsageCache::count(TenantUsage& totals, const std::string& path, int64_t size,
                             int sign) {
    if (path.empty()) return;  // the tenant's own folder
    if (path.ends_with('/')) {
        totals.directory_count += sign;
        return;
    }
    totals.file_count += sign;
    totals.storage_used_bytes += sign * size;
    if (path.starts_with("swarms/")) totals.swarm_storage_bytes += sign * size;
    if (path.starts_with("artifacts/")) totals.artifact_storage_bytes += sign * size;
    if (path.starts_with("uploads/")) totals.upload_storage_bytes += sign * size;
}

void ObjectUsageCache::apply(Figure& figure, const std::string& path,
                             std::optional<int64_t> size) {
    auto it = figure.sizes.find(path);
    if (it != figure.sizes.end()) {
        count(figure.totals, path, it->second, -1);
        if (!size) {
            figure.sizes.erase(it);
            return;
        }
        it->second = *size;
    } else {
        if (!size) return;
        figure.sizes.emplace(path, *size);
    }
    count(figure.totals, path, *size, +1);
}

TenantUsage ObjectUsageCache::usage(const std::string& tenant) {
    std::unique_lock lock(mutex_);
    Figure& figure = figures_[tenant];
    const auto now = Clock::now();
    const bool fresh = figure.listed_at && now - *figure.listed_at < max_age_;
    // While another thread lists, its figure (if any) is good enough.
    if (fresh || (figure.refreshing > 0 && figure.listed_at)) {
        TenantUsage totals = figure.totals;
        totals.tenant_id = tenant;
        return totals;
    }
    ++figure.refreshing;
    const uint64_t generation = figure.generation;
    lock.unlock();

    Objects listed;
    const bool ok = lister_(tenant, listed);

    lock.lock();
    Figure& current = figures_[tenant];
    if (ok && current.generation == generation) {
        current.sizes.clear();
        current.totals = TenantUsage{};
        for (const auto& [path, size] : listed)
            apply(current, path, size);
        for (const auto& [path, size] : current.journal)
            apply(current, path, size);
        current.listed_at = now;
    }
    if (--current.refreshing <= 0) {
        current.refreshing = 0;
        current.journal.clear();
    }
    TenantUsage totals = current.totals;
    totals.tenant_id = tenant;
    return totals;
}

void ObjectUsageCache::record(const std::string& tenant, const std::string& path,
                              std::optional<int64_t> size) {
    std::lock_guard lock(mutex_);
    auto it = figures_.find(tenant);
    if (it == figures_.end()) return;  // nothing known yet: the first listing will see it
    Figure& figure = it->second;
    apply(figure, path, size);
    if (figure.refreshing > 0) figure.journal.emplace_back(path, size);
}

void ObjectUsageCache::recordStored(const std::string& tenant, const std::string& path,
                                    int64_t size) {
    record(tenant, path, size);
}

void ObjectUsageCache::recordRemoved(const std::string& tenant, const std::string& path) {
    record(tenant, path, std::nullopt);
}

void ObjectUsageCache::forget(const std::string& tenant) {
    std::lock_guard lock(mutex_);
    auto it = figures_.find(tenant);
    if (it == figures_.end()) return;
    if (it->second.refreshing > 0) {
        // A listing still runs; what it finds is void.
        Figure& figure = it->second;
        figure.sizes.clear();
        figure.totals = TenantUsage{};
        figure.listed_at.reset();
        figure.journal.clear();
        ++figure.generation;
        return;
    }
    figures_.erase(it);
}

}  // namespace vostra::data
