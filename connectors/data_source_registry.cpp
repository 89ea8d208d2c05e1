#include "connectors/data_source_registry.h"

#include <fstream>
#include <nlohmann/json.hpp>

#include "common/atomic_file.h"
#include "common/json_fields.h"
#include "common/log.h"
#include "connectors/connection_pool.h"
#include "connectors/connector_type.h"
#include "connectors/data_connector.h"
#include "connectors/pooled_connection_guard.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr int kTestTimeoutMs = 5000;
constexpr int kCatalogTimeoutMs = 30000;
constexpr const char* kNoId = "Data source id is empty";

// The keys a query and a statement share.
template <typename Request>
Request readStatement(const nlohmann::json& json) {
    Request r;
    readField(json, "source_id", r.source_id);
    readField(json, "sql", r.sql);
    readField(json, "params", r.params);
    readField(json, "timeout_ms", r.timeout_ms);
    return r;
}

}  // namespace

QueryRequest QueryRequest::fromJson(const nlohmann::json& json) {
    auto r = readStatement<QueryRequest>(json);
    readField(json, "max_rows", r.max_rows);
    readField(json, "include_metadata", r.include_metadata);
    return r;
}

ExecuteRequest ExecuteRequest::fromJson(const nlohmann::json& json) {
    auto r = readStatement<ExecuteRequest>(json);
    readField(json, "auto_commit", r.auto_commit);
    return r;
}

void SourceMetrics::recordStatement(const std::string* error) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    last_used_ns_.store(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    if (error) recordError(*error);
}

void SourceMetrics::recordError(const std::string& error) {
    std::lock_guard lock(error_mutex_);
    last_error_ = error;
}

std::chrono::system_clock::time_point SourceMetrics::lastUsed() const {
    return std::chrono::system_clock::time_point(std::chrono::duration_cast<
        std::chrono::system_clock::duration>(std::chrono::nanoseconds(last_used_ns_.load())));
}

std::string SourceMetrics::lastError() const {
    std::lock_guard lock(error_mutex_);
    return last_error_;
}

DataSourceRegistry::DataSourceRegistry(std::string state_file)
    : state_file_(std::move(state_file)) {}

DataSourceRegistry::~DataSourceRegistry() {
    clear();
}

Status DataSourceRegistry::addDataSource(const DataSourceConfig& config) {
    if (config.id.empty()) {
        kLog.error("Refusing a data source without an id");
        return Status::failure(ErrorKind::Invalid, kNoId);
    }
    if (hasDataSource(config.id)) {
        kLog.error("Data source already exists: ", config.id);
        return Status::failure(ErrorKind::Conflict, "Data source already exists: " + config.id);
    }
    if (admission_) {
        if (std::string problem = admission_(config); !problem.empty()) {
            kLog.error("Refusing data source ", config.id, ": ", problem);
            return Status::failure(ErrorKind::Invalid, problem);
        }
    }
    // Connecting can take the whole connect time-out per connection; doing it
    // under the registry lock would stall every query on every source.
    auto pool = std::make_shared<ConnectionPool>(config);
    if (Status started = pool->initialize(); !started) {
        kLog.error("Failed to initialize pool for: ", config.id);
        return started;
    }
    std::lock_guard lock(mutex_);
    if (sources_.count(config.id)) {  // a concurrent add of the same id won
        pool->shutdown();
        kLog.error("Data source already exists: ", config.id);
        return Status::failure(ErrorKind::Conflict, "Data source already exists: " + config.id);
    }
    sources_[config.id] = Source{std::make_shared<const DataSourceConfig>(config), pool,
                                 std::make_shared<SourceMetrics>()};
    auto dormant = dormant_.extract(config.id);
    // A source the file does not hold would be gone after a restart: the
    // add fails instead, and memory stays as the file has it.
    if (Status saved = save(); !saved) {
        sources_.erase(config.id);
        if (dormant) dormant_.insert(std::move(dormant));
        pool->shutdown();
        return saved;
    }
    kLog.info("Added data source: ", config.id, " (", connectorTypeName(config.type), ")");
    return Status::success();
}

Status DataSourceRegistry::tryRemoveDataSource(const std::string& id) {
    std::lock_guard lock(mutex_);
    auto dormant = dormant_.extract(id);
    auto source = sources_.extract(id);
    if (!source && !dormant)
        return Status::failure(ErrorKind::NotFound, "Data source not found: " + id);
    if (Status saved = save(); !saved) {
        if (dormant) dormant_.insert(std::move(dormant));
        if (source) sources_.insert(std::move(source));
        return saved;
    }
    if (!source) return Status::failure(ErrorKind::NotFound, "Data source not found: " + id);
    source.mapped().pool->shutdown();
    kLog.info("Removed data source: ", id);
    return Status::success();
}

bool DataSourceRegistry::removeDataSource(const std::string& id) {
    return tryRemoveDataSource(id).ok();
}

DataSourceStatusInfo DataSourceRegistry::statusOf(const Source& source) {
    DataSourceStatusInfo info;
    info.id = source.config->id;
    info.name = source.config->name;
    if (source.pool) {
        PoolStats stats = source.pool->getStats();
        info.pool_size = static_cast<int32_t>(stats.total);
        info.pool_available = static_cast<int32_t>(stats.available);
        info.pool_in_use = static_cast<int32_t>(stats.active);
        info.status =
            source.pool->isHealthy() ? DataSourceStatus::Connected : DataSourceStatus::Degraded;
    } else {
        info.status = DataSourceStatus::Disconnected;
    }
    if (source.metrics) {
        const SourceMetrics& m = *source.metrics;
        info.queries_executed = m.queries.load();
        info.queries_failed = m.errors.load();
        if (info.queries_executed > 0)
            info.avg_query_time_ms = static_cast<double>(m.total_time_ms.load()) /
                                     static_cast<double>(info.queries_executed);
        info.last_used = m.lastUsed();
        info.last_error = m.lastError();
    }
    return info;
}

DataSourceStatusInfo DataSourceRegistry::getDataSourceStatus(const std::string& id) const {
    Source source;
    if (!find(id, source)) return {};
    return statusOf(source);
}

std::vector<DataSourceStatusInfo> DataSourceRegistry::listDataSources() const {
    std::vector<Source> snapshot;
    {
        std::shared_lock lock(mutex_);
        snapshot.reserve(sources_.size());
        for (const auto& entry : sources_)
            snapshot.push_back(entry.second);
    }
    std::vector<DataSourceStatusInfo> all;
    all.reserve(snapshot.size());
    for (const Source& source : snapshot)
        all.push_back(statusOf(source));
    return all;
}

bool DataSourceRegistry::hasDataSource(const std::string& id) const {
    std::shared_lock lock(mutex_);
    return sources_.count(id) > 0;
}

std::size_t DataSourceRegistry::size() const {
    std::shared_lock lock(mutex_);
    return sources_.size();
}

std::pair<std::size_t, std::size_t> DataSourceRegistry::countSources() const {
    std::shared_lock lock(mutex_);
    std::size_t healthy = 0;
    for (const auto& entry : sources_)
        if (entry.second.pool && entry.second.pool->isHealthy()) ++healthy;
    return {sources_.size(), healthy};
}

bool DataSourceRegistry::testDataSource(const std::string& id) {
    // Held for the whole test so the source cannot be removed meanwhile, but
    // shared, so queries on every source go on.
    std::shared_lock lock(mutex_);
    auto it = sources_.find(id);
    if (it == sources_.end() || !it->second.pool) return false;
    PooledConnectionGuard connection(*it->second.pool, kTestTimeoutMs);
    return connection && connection->validate();
}

std::vector<std::string> DataSourceRegistry::getTables(const std::string& id) {
    Source source;
    if (!find(id, source) || !source.pool) return {};
    PooledConnectionGuard connection(*source.pool, kCatalogTimeoutMs);
    return connection ? connection->getTables() : std::vector<std::string>{};
}

SchemaInfo DataSourceRegistry::getSchema(const std::string& id) {
    Source source;
    if (!find(id, source) || !source.pool) return {};
    PooledConnectionGuard connection(*source.pool, kCatalogTimeoutMs);
    return connection ? connection->getSchema() : SchemaInfo{};
}

bool DataSourceRegistry::find(const std::string& id, Source& out) const {
    std::shared_lock lock(mutex_);
    auto it = sources_.find(id);
    if (it == sources_.end()) return false;
    out = it->second;
    return true;
}

QueryResult DataSourceRegistry::failBeforeStatement(std::string error, SourceMetrics* metrics) {
    counters_.errors.fetch_add(1);
    if (metrics) {
        metrics->errors.fetch_add(1);
        metrics->recordError(error);  // nothing ran, so last_used stays
    }
    QueryResult result;
    result.error = std::move(error);
    return result;
}

namespace {

void recordOutcome(SourceMetrics* metrics, const QueryResult& result) {
    if (!metrics) return;
    if (result.success) {
        metrics->queries.fetch_add(1);
        metrics->total_time_ms.fetch_add(
            static_cast<uint64_t>(std::max<int64_t>(0, result.execution_time_ms)));
        metrics->recordStatement(nullptr);
    } else {
        metrics->errors.fetch_add(1);
        metrics->recordStatement(&result.error);
    }
}

}  // namespace

QueryResult DataSourceRegistry::executeQuery(const QueryRequest& request) {
    Source source;
    if (!find(request.source_id, source) || !source.pool)
        return failBeforeStatement("Data source not found: " + request.source_id, nullptr);

    PooledConnectionGuard connection(*source.pool, request.timeout_ms);
    if (!connection)
        return failBeforeStatement("Failed to acquire connection", source.metrics.get());

    QueryResult result = connection->query(request.sql, request.params);
    counters_.queries.fetch_add(1);
    recordOutcome(source.metrics.get(), result);
    return result;
}

QueryResult DataSourceRegistry::executeStatement(const ExecuteRequest& request) {
    Source source;
    if (!find(request.source_id, source))
        return failBeforeStatement("Data source not found: " + request.source_id, nullptr);
    if (source.config->access_mode == AccessMode::ReadOnly)
        return failBeforeStatement("Data source is read-only", source.metrics.get());
    if (!source.pool) return failBeforeStatement("Connection pool not found", source.metrics.get());

    PooledConnectionGuard connection(*source.pool, request.timeout_ms);
    if (!connection)
        return failBeforeStatement("Failed to acquire connection", source.metrics.get());

    QueryResult result = connection->execute(request.sql, request.params);
    counters_.executes.fetch_add(1);
    recordOutcome(source.metrics.get(), result);
    return result;
}

std::size_t DataSourceRegistry::load() {
    if (state_file_.empty()) return 0;
    std::ifstream file(state_file_);
    if (!file) return 0;

    nlohmann::json saved = nlohmann::json::parse(file, nullptr, /*allow_exceptions=*/false);
    if (!saved.is_array()) {
        kLog.error("Ignoring unreadable data source file: ", state_file_);
        return 0;
    }
    std::size_t restored = 0;
    {
        // Saving half-way through would drop the entries not yet restored.
        std::lock_guard lock(mutex_);
        loading_ = true;
    }
    for (const auto& entry : saved) {
        DataSourceConfig config;
        try {
            config = DataSourceConfig::fromJson(entry);
        } catch (const std::exception& error) {
            kLog.error("Skipping unreadable saved data source: ", error.what());
            continue;
        }
        if (addDataSource(config)) {
            ++restored;
            continue;
        }
        kLog.error("Could not restore data source: ", config.id);
        std::lock_guard lock(mutex_);
        if (!sources_.count(config.id)) dormant_[config.id] = config;
    }
    std::lock_guard lock(mutex_);
    loading_ = false;
    (void)save();  // failures are printed; the sources are loaded either way
    return restored;
}

void DataSourceRegistry::clear() {
    std::lock_guard lock(mutex_);
    for (auto& entry : sources_)
        if (entry.second.pool) entry.second.pool->shutdown();
    sources_.clear();
}

Status DataSourceRegistry::save() const {
    if (state_file_.empty() || loading_) return Status::success();
    nlohmann::json all = nlohmann::json::array();
    for (const auto& entry : sources_)
        all.push_back(entry.second.config->toJson());
    for (const auto& entry : dormant_)
        all.push_back(entry.second.toJson());
    // 0600: the file holds the sources' passwords.
    if (const Status saved = writeFileAtomically(state_file_, all.dump(2), 0600); !saved) {
        kLog.error("Failed to save data sources: ", saved.message);
        return Status::failure(ErrorKind::Internal, "Failed to save data sources: " + saved.message);
    }
    return Status::success();
}

}  // namespace vostra::data
