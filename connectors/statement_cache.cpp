#include "connectors/statement_cache.h"

namespace vostra::data {

const std::string* StatementCache::find(const std::string& sql) {
    auto found = by_sql_.find(sql);
    if (found == by_sql_.end()) return nullptr;
    uses_.splice(uses_.begin(), uses_, found->second.use);
    return &found->second.name;
}

std::string StatementCache::reserve(std::string& evicted) {
    evicted.clear();
    if (capacity_ > 0 && by_sql_.size() >= capacity_) {
        auto oldest = by_sql_.find(uses_.back());
        evicted = oldest->second.name;
        by_sql_.erase(oldest);
        uses_.pop_back();
    }
    return "vostra_s" + std::to_string(next_++);
}

void StatementCache::remember(const std::string& sql, const std::string& name) {
    if (capacity_ == 0) return;
    forget(sql);
    uses_.push_front(sql);
    by_sql_[sql] = Entry{name, uses_.begin()};
}

void StatementCache::forget(const std::string& sql) {
    auto found = by_sql_.find(sql);
    if (found == by_sql_.end()) return;
    uses_.erase(found->second.use);
    by_sql_.erase(found);
}

void StatementCache::clear() {
    by_sql_.clear();
    uses_.clear();
}

}  // namespace vostra::data
