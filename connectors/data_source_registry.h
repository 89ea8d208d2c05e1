// The daemon's registered relational data sources: one configuration, one
// connection pool and one set of metrics per source id, and the statements
// run against them. Knows nothing of HTTP; DataDaemon owns one instance and
// maps its results to answers.
//
// Thread-safety: every method may be called from any thread. One mutex
// guards the maps; statements run outside it, so sources (and connections of
// one source) work in parallel, and a source removed while a statement runs
// on it stays alive until that statement ends.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <shared_mutex>
#include <string>
#include <vector>

#include "common/status.h"
#include "connectors/data_source_config.h"
#include "connectors/data_source_status.h"
#include "connectors/query_result.h"
#include "connectors/schema_info.h"

namespace vostra::data {

class ConnectionPool;

struct QueryRequest {
    std::string source_id;
    std::string sql;
    std::vector<std::string> params;
    int32_t timeout_ms = 30000;     // wait limit for a connection
    int32_t max_rows = 10000;       // accepted; rows are not capped
    bool include_metadata = false;  // accepted; adds nothing

    // Present keys only; a wrongly typed key throws nlohmann::json::type_error.
    static QueryRequest fromJson(const nlohmann::json& json);
};

struct ExecuteRequest {
    std::string source_id;
    std::string sql;
    std::vector<std::string> params;
    int32_t timeout_ms = 30000;
    bool auto_commit = true;  // accepted; the connector's own commit mode applies

    static ExecuteRequest fromJson(const nlohmann::json& json);
};

// Per-source figures, updated by statements without the registry lock.
// Everything a successful statement touches is atomic; only the text of a
// failure needs a lock.
struct SourceMetrics {
    std::atomic<uint64_t> queries{0};  // statements that succeeded
    std::atomic<uint64_t> errors{0};   // failed statements and failed borrows
    std::atomic<uint64_t> total_time_ms{0};

    // A statement ran: stamps last_used; `error` (when given) becomes the
    // last error.
    void recordStatement(const std::string* error);
    // A request failed before any statement ran: only the last error changes.
    void recordError(const std::string& error);
    std::chrono::system_clock::time_point lastUsed() const;
    std::string lastError() const;

private:
    std::atomic<int64_t> last_used_ns_{0};  // since the Unix epoch; 0 = never
    mutable std::mutex error_mutex_;
    std::string last_error_;
};

// Daemon-wide statement counters, read by the metrics endpoint.
struct RegistryCounters {
    std::atomic<uint64_t> queries{0};   // statements run through executeQuery
    std::atomic<uint64_t> executes{0};  // statements run through executeStatement
    std::atomic<uint64_t> errors{0};    // requests that failed before a statement ran
};

class DataSourceRegistry {
public:
    // With a non-empty `state_file`, every add and remove rewrites that file
    // (mode 0600: it holds passwords) and load() brings the sources back.
    explicit DataSourceRegistry(std::string state_file = {});
    ~DataSourceRegistry();
    DataSourceRegistry(const DataSourceRegistry&) = delete;
    DataSourceRegistry& operator=(const DataSourceRegistry&) = delete;

    // Registers a source once its pool has opened a connection. Fails with
    // the reason when the id is empty (Invalid) or exists (Conflict; the
    // first registration is untouched), or as the pool's initialize() does
    // (pool sizes, the driver's reason, no thread). Reasons never hold the
    // password; nothing of a refused source stays behind. With a state
    // file, a source that cannot be saved is not added (Internal, "Failed
    // to save data sources: " + why).
    Status addDataSource(const DataSourceConfig& config);
    // A check each new source passes before it is connected (which files
    // SQLite may open); a non-empty answer refuses the add as Invalid with
    // that reason. Set it before the registry is shared between threads.
    void setAdmission(std::function<std::string(const DataSourceConfig&)> check) {
        admission_ = std::move(check);
    }
    // Shuts the pool down and forgets the source: NotFound for an unknown
    // id; Internal when the state file cannot be saved (nothing changes).
    Status tryRemoveDataSource(const std::string& id);
    // tryRemoveDataSource's success as a bool.
    bool removeDataSource(const std::string& id);

    // Status of every source, in id order.
    std::vector<DataSourceStatusInfo> listDataSources() const;
    // All fields empty (status Unknown) for an unknown id.
    DataSourceStatusInfo getDataSourceStatus(const std::string& id) const;
    bool hasDataSource(const std::string& id) const;
    std::size_t size() const;
    // All sources and those whose pool reports itself healthy, counted under
    // one lock so the second never exceeds the first.
    std::pair<std::size_t, std::size_t> countSources() const;

    // Borrows a connection (5 s) and validates it. False for an unknown id.
    bool testDataSource(const std::string& id);
    // Empty for an unknown id or when no connection comes within 30 s.
    std::vector<std::string> getTables(const std::string& id);
    SchemaInfo getSchema(const std::string& id);

    // Runs a statement through the source's pool. Failures are results with
    // success false and the reason in `error`.
    QueryResult executeQuery(const QueryRequest& request);
    // As executeQuery, but refuses read-only sources before any connector
    // sees the statement.
    QueryResult executeStatement(const ExecuteRequest& request);

    const RegistryCounters& counters() const { return counters_; }

    // Registers the sources saved in the state file. A source that cannot be
    // registered is reported and kept in the file, so a database that is down
    // at start-up is not forgotten. Returns how many came back.
    std::size_t load();
    // Shuts every pool down without touching the state file.
    void clear();

private:
    struct Source {
        std::shared_ptr<const DataSourceConfig> config;
        std::shared_ptr<ConnectionPool> pool;
        std::shared_ptr<SourceMetrics> metrics;
    };

    // Looks the source up under the lock; the copies keep pool and metrics
    // alive after the lock is gone.
    bool find(const std::string& id, Source& out) const;
    static DataSourceStatusInfo statusOf(const Source& source);
    QueryResult failBeforeStatement(std::string error, SourceMetrics* metrics);
    // Caller holds mutex_.
    Status save() const;

    const std::string state_file_;
    std::function<std::string(const DataSourceConfig&)> admission_;
    // Shared for look-ups, which every statement makes; exclusive for changes.
    mutable std::shared_mutex mutex_;
    std::map<std::string, Source> sources_;
    // Saved sources that failed to come back at load(); kept for the file.
    std::map<std::string, DataSourceConfig> dormant_;
    bool loading_ = false;
    RegistryCounters counters_;
};

}  // namespace vostra::data
