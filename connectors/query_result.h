// What a connector hands back for one statement: success or the database's
// error text, the result columns and rows as text, and the counts the driver
// reports. A plain value owned by the caller.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct QueryResult {
    // Column name to value as text; SQL NULL arrives as the empty string, and
    // two result columns of the same name share one entry.
    using Row = std::map<std::string, std::string>;

    bool success = false;  // false until a statement completes
    std::string error;
    std::vector<std::string> columns;  // in result order
    std::vector<Row> rows;
    int32_t affected_rows = 0;
    int64_t last_insert_id = 0;
    int64_t execution_time_ms = 0;  // whole milliseconds, monotonic clock

    // Every key is always present; "row_count" is the number of rows.
    nlohmann::json toJson() const;
};

}  // namespace vostra::data
