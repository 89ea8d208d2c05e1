// The daemon's private SQLite database of agent definitions: one connection,
// opened once and kept for the life of the daemon. Owned by DataDaemon.
// Thread-safety: every method may be called from any thread; one mutex
// serialises all use of the single connection.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace vostra::data {

class AgentStorage {
public:
    using Row = std::map<std::string, std::string>;

    AgentStorage() = default;
    ~AgentStorage();
    AgentStorage(const AgentStorage&) = delete;
    AgentStorage& operator=(const AgentStorage&) = delete;

    // The store's file: $HOME/.config/vostra/agent_store.db ("/tmp" for an
    // unset HOME). The folder is not created.
    static std::string defaultPath();

    // Opens (creating the file) and applies the schema. True at once when
    // already open; false when the file cannot be opened.
    bool open(const std::string& path);
    bool isOpen() const;

    // Every row of the statement, NULL as "". Empty when the store is closed
    // or the statement does not prepare.
    std::vector<Row> query(const std::string& sql, const std::vector<std::string>& params);
    // Runs one step; true when the statement completed.
    bool execute(const std::string& sql, const std::vector<std::string>& params);

private:
    mutable std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

}  // namespace vostra::data
