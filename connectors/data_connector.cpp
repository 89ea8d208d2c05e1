#include "connectors/data_connector.h"

#include <nlohmann/json.hpp>

namespace vostra::data {

std::string statementTimedOut(int32_t limit_ms) {
    return "Statement timed out after " + std::to_string(limit_ms) + " ms";
}

nlohmann::json DataConnector::getStats() const {
    return {{"type", getName()},
            {"connected", isConnected()},
            {"queries_executed", queries_executed_},
            {"queries_failed", queries_failed_}};
}

QueryResult& DataConnector::fail(QueryResult& result, std::string message) {
    result.success = false;
    result.error = std::move(message);
    last_error_ = result.error;
    ++queries_failed_;
    return result;
}

void DataConnector::succeed(QueryResult& result, std::chrono::steady_clock::time_point start) {
    const auto elapsed = std::chrono::steady_clock::now() - start;
    result.success = true;
    result.execution_time_ms =
        std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 1000000;
    ++queries_executed_;
}

}  // namespace vostra::data
