// The statements a database connection keeps prepared, by SQL text: a
// small least-recently-used table of server-side names, so that a text
// sent again skips the server's parse and plan. Bounded; one per
// connection, used by whoever holds the connection (not thread-safe).
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>

namespace vostra::data {

class StatementCache {
public:
    explicit StatementCache(std::size_t capacity = 64) : capacity_(capacity) {}

    // The name `sql` was prepared under, marked as just used; null when it
    // is not prepared.
    const std::string* find(const std::string& sql);
    // A fresh name for `sql`, and in `evicted` the name to drop on the
    // server first when the table is full (else empty). Call remember()
    // once the server has prepared it.
    std::string reserve(std::string& evicted);
    void remember(const std::string& sql, const std::string& name);
    // Forgets one text, or all (the connection was reset, or the server
    // dropped its statements).
    void forget(const std::string& sql);
    void clear();
    std::size_t size() const { return by_sql_.size(); }

private:
    struct Entry {
        std::string name;
        std::list<std::string>::iterator use;
    };
    std::size_t capacity_;
    std::size_t next_ = 0;
    std::list<std::string> uses_;  // most recent first
    std::unordered_map<std::string, Entry> by_sql_;
};

}  // namespace vostra::data
