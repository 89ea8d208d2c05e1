// The state of a registered data source as the registry reports it: pool
// figures, statement counters and the last failure. A plain value filled by
// the registry and owned by the caller.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra::data {

enum class DataSourceStatus : int32_t {
    Unknown = 0,
    Connecting = 1,
    Connected = 2,
    Degraded = 3,
    Disconnected = 4,
    Error = 5,
};

// "unknown", "connecting", …; "unknown" for a value outside the enumeration.
std::string dataSourceStatusName(DataSourceStatus status);

struct DataSourceStatusInfo {
    std::string id;
    std::string name;
    DataSourceStatus status = DataSourceStatus::Unknown;
    int32_t pool_size = 0;       // connections that exist
    int32_t pool_available = 0;  // idle
    int32_t pool_in_use = 0;     // lent out
    uint64_t queries_executed = 0;
    uint64_t queries_failed = 0;
    double avg_query_time_ms = 0.0;
    std::chrono::system_clock::time_point last_used{};
    std::string last_error;

    // "status" is the status name and "last_used" whole milliseconds since the
    // Unix epoch (0 for a source never used).
    nlohmann::json toJson() const;
};

}  // namespace vostra::data
