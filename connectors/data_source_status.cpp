#include "connectors/data_source_status.h"

#include <nlohmann/json.hpp>

namespace vostra::data {

std::string dataSourceStatusName(DataSourceStatus status) {
    switch (status) {
        case DataSourceStatus::Unknown:
            return "unknown";
        case DataSourceStatus::Connecting:
            return "connecting";
        case DataSourceStatus::Connected:
            return "connected";
        case DataSourceStatus::Degraded:
            return "degraded";
        case DataSourceStatus::Disconnected:
            return "disconnected";
        case DataSourceStatus::Error:
            return "error";
    }
    return "unknown";
}

nlohmann::json DataSourceStatusInfo::toJson() const {
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(last_used.time_since_epoch());
    return {{"id", id},
            {"name", name},
            {"status", dataSourceStatusName(status)},
            {"pool_size", pool_size},
            {"pool_available", pool_available},
            {"pool_in_use", pool_in_use},
            {"queries_executed", queries_executed},
            {"queries_failed", queries_failed},
            {"avg_query_time_ms", avg_query_time_ms},
            {"last_used", nanoseconds.count() / 1000000},
            {"last_error", last_error}};
}

}  // namespace vostra::data
