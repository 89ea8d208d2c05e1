#include "connectors/query_result.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "connectors/json_text.h"

namespace vostra::data {
namespace {

std::size_t decimalSize(int64_t value) {
    return std::to_string(value).size();
}

}  // namespace

std::string_view ResultRow::view(std::string_view name) const {
    const auto& names = rows_->names_;
    const auto it = std::lower_bound(names.begin(), names.end(), name);
    if (it == names.end() || *it != name) return {};
    return rows_->value(index_, static_cast<std::size_t>(it - names.begin()));
}

std::size_t ResultRow::size() const {
    return rows_->names_.size();
}

void ResultRows::setColumns(const std::vector<std::string>& columns) {
    // The later of two equal names wins, as when each row was a map filled
    // column by column.
    std::map<std::string, int> last;
    for (std::size_t c = 0; c < columns.size(); ++c)
        last[columns[c]] = static_cast<int>(c);
    names_.clear();
    sources_.clear();
    for (const auto& [name, column] : last) {
        names_.push_back(name);
        sources_.push_back(column);
    }
    clear();
}

void ResultRows::clear() {
    text_.clear();
    ends_.clear();
    count_ = 0;
    values_json_size_ = 0;
}

void ResultRows::append(std::string_view value) {
    text_.append(value);
    ends_.push_back(text_.size());
    // Counted now, while the value is at hand, so the answer can be sized
    // exactly before it is written.
    values_json_size_ += jsonStringSize(value);
}

std::string_view ResultRows::value(std::size_t row, std::size_t name) const {
    const std::size_t cell = row * names_.size() + name;
    const std::size_t begin = cell == 0 ? 0 : ends_[cell - 1];
    return std::string_view(text_).substr(begin, ends_[cell] - begin);
}

std::size_t ResultRows::jsonSize() const {
    std::size_t row_size = 2;  // the braces
    for (const std::string& name : names_)
        row_size += jsonStringSize(name) + 1;            // and the colon
    if (!names_.empty()) row_size += names_.size() - 1;  // commas
    const std::size_t commas = count_ > 0 ? count_ - 1 : 0;
    return 2 + commas + count_ * row_size + values_json_size_;
}

void ResultRows::appendJson(std::string& out) const {
    std::vector<std::string> keys;  // each name quoted, with its colon
    keys.reserve(names_.size());
    for (const std::string& name : names_) {
        std::string key;
        appendJsonString(key, name);
        key.push_back(':');
        keys.push_back(std::move(key));
    }
    out.push_back('[');
    std::size_t begin = 0;
    std::size_t cell = 0;
    for (std::size_t row = 0; row < count_; ++row) {
        if (row > 0) out.push_back(',');
        out.push_back('{');
        for (std::size_t n = 0; n < keys.size(); ++n, ++cell) {
            if (n > 0) out.push_back(',');
            out.append(keys[n]);
            appendJsonString(out, std::string_view(text_).substr(begin, ends_[cell] - begin));
            begin = ends_[cell];
        }
        out.push_back('}');
    }
    out.push_back(']');
}

nlohmann::json QueryResult::toJson() const {
    nlohmann::json row_array = nlohmann::json::array();
    for (const ResultRow row : rows) {
        nlohmann::json object = nlohmann::json::object();
        for (const std::string& name : rows.names())
            object[name] = row[name];
        row_array.push_back(std::move(object));
    }
    return {{"success", success},
            {"error", error},
            {"columns", columns},
            {"rows", std::move(row_array)},
            {"row_count", rows.size()},
            {"affected_rows", affected_rows},
            {"last_insert_id", last_insert_id},
            {"execution_time_ms", execution_time_ms}};
}

std::string QueryResult::toJsonText() const {
    // Keys in the order the JSON library keeps them: byte order.
    static constexpr std::string_view kAffected = "{\"affected_rows\":";
    static constexpr std::string_view kColumns = ",\"columns\":[";
    static constexpr std::string_view kError = "],\"error\":";
    static constexpr std::string_view kTime = ",\"execution_time_ms\":";
    static constexpr std::string_view kInsertId = ",\"last_insert_id\":";
    static constexpr std::string_view kRowCount = ",\"row_count\":";
    static constexpr std::string_view kRows = ",\"rows\":";
    static constexpr std::string_view kSuccess = ",\"success\":";

    std::size_t columns_size = columns.empty() ? 0 : columns.size() - 1;
    for (const std::string& column : columns)
        columns_size += jsonStringSize(column);
    const std::string_view outcome = success ? "true" : "false";
    const std::size_t size = kAffected.size() + decimalSize(affected_rows) + kColumns.size() +
                             columns_size + kError.size() + jsonStringSize(error) + kTime.size() +
                             decimalSize(execution_time_ms) + kInsertId.size() +
                             decimalSize(last_insert_id) + kRowCount.size() +
                             std::to_string(rows.size()).size() + kRows.size() + rows.jsonSize() +
                             kSuccess.size() + outcome.size() + 1;

    // Reserved exactly: growing a buffer of this size by doubling would
    // briefly hold it twice.
    std::string out;
    out.reserve(size);
    out.append(kAffected).append(std::to_string(affected_rows)).append(kColumns);
    for (std::size_t c = 0; c < columns.size(); ++c) {
        if (c > 0) out.push_back(',');
        appendJsonString(out, columns[c]);
    }
    out.append(kError);
    appendJsonString(out, error);
    out.append(kTime).append(std::to_string(execution_time_ms));
    out.append(kInsertId).append(std::to_string(last_insert_id));
    out.append(kRowCount).append(std::to_string(rows.size())).append(kRows);
    rows.appendJson(out);
    out.append(kSuccess).append(outcome).push_back('}');
    return out;
}

}  // namespace vostra::data
