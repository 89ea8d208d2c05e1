#include "connectors/query_result.h"

#include <nlohmann/json.hpp>

namespace vostra::data {

nlohmann::json QueryResult::toJson() const {
    nlohmann::json row_array = nlohmann::json::array();
    for (const Row& row : rows)
        row_array.push_back(row);
    return {{"success", success},
            {"error", error},
            {"columns", columns},
            {"rows", std::move(row_array)},
            {"row_count", rows.size()},
            {"affected_rows", affected_rows},
            {"last_insert_id", last_insert_id},
            {"execution_time_ms", execution_time_ms}};
}

}  // namespace vostra::data
