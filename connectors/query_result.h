// What a connector hands back for one statement: success or the database's
// error text, the result columns and rows as text, and the counts the driver
// reports. A plain value owned by the caller.
//
// A result may hold millions of rows, so rows are not maps of strings: every
// value lives in one shared text buffer, and the JSON answer is written from
// that buffer in one pass into a string sized exactly beforehand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace vostra::data {

class ResultRows;

// One row of a result: a view that reads the values of ResultRows. Valid
// while the rows it came from live unchanged.
class ResultRow {
public:
    // The value of column `name` as text. SQL NULL reads as "", and so does a
    // name the result does not have.
    std::string operator[](std::string_view name) const { return std::string(view(name)); }
    std::string_view view(std::string_view name) const;
    // Distinct column names: two result columns of one name are one entry.
    std::size_t size() const;

private:
    friend class ResultRows;
    ResultRow(const ResultRows& rows, std::size_t index) : rows_(&rows), index_(index) {}

    const ResultRows* rows_;
    std::size_t index_;
};

// The rows of a result, keyed by column name.
class ResultRows {
public:
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = ResultRow;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = ResultRow;

        Iterator() = default;
        ResultRow operator*() const { return (*rows_)[index_]; }
        Iterator& operator++() {
            ++index_;
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++index_;
            return before;
        }
        bool operator==(const Iterator& other) const { return index_ == other.index_; }

    private:
        friend class ResultRows;
        Iterator(const ResultRows* rows, std::size_t index) : rows_(rows), index_(index) {}
        const ResultRows* rows_ = nullptr;
        std::size_t index_ = 0;
    };

    // Names the values of every row after `columns`, the result's column
    // names in result order. A name given twice is one entry holding the
    // later column's value. Drops any rows held so far.
    void setColumns(const std::vector<std::string>& columns);

    // Appends a row whose values value_of(c) gives, as something that
    // converts to std::string_view, for each result column c (counting from
    // 0) that setColumns() kept. The view need only last for the call.
    template <typename ValueOf>
    void add(ValueOf&& value_of) {
        for (const int column : sources_)
            append(value_of(column));
        ++count_;
    }

    // Drops every row; the column names stay.
    void clear();

    // The distinct column names, in byte order: the keys of every row.
    const std::vector<std::string>& names() const { return names_; }

    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    // Row `index`, which must be below size().
    ResultRow operator[](std::size_t index) const { return ResultRow(*this, index); }
    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, count_); }

    // The rows as a JSON array of objects, keys in byte order, every value a
    // string: what nlohmann::json writes for a vector of string maps.
    void appendJson(std::string& out) const;
    // How many bytes appendJson() appends.
    std::size_t jsonSize() const;

private:
    friend class ResultRow;

    void append(std::string_view value);
    std::string_view value(std::size_t row, std::size_t name) const;

    std::vector<std::string> names_;  // distinct, in byte order
    std::vector<int> sources_;        // per name, the result column it reads
    std::string text_;                // every value, row after row, in name order
    std::vector<std::size_t> ends_;   // where each value ends in text_
    std::size_t count_ = 0;
    std::size_t values_json_size_ = 0;  // the values' JSON strings, summed
};

struct [[nodiscard]] QueryResult {
    bool success = false;  // false until a statement completes
    std::string error;
    std::vector<std::string> columns;  // in result order
    ResultRows rows;
    int32_t affected_rows = 0;
    int64_t last_insert_id = 0;
    int64_t execution_time_ms = 0;  // whole milliseconds, monotonic clock

    // Every key is always present; "row_count" is the number of rows.
    nlohmann::json toJson() const;
    // toJson() as compact text, with invalid UTF-8 replaced, written without
    // building the document: byte for byte what the JSON library would give.
    std::string toJsonText() const;
};

}  // namespace vostra::data
