// Table and column descriptions that connectors read from their database's
// catalog, as served by the schema and table listings. Plain values owned by
// the caller.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct ColumnInfo {
    std::string name;
    std::string type;  // the database's own type name, verbatim
    bool nullable = false;
    bool primary_key = false;
    std::string default_value;  // empty when there is none
    int32_t ordinal_position = 0;

    nlohmann::json toJson() const;
};

struct TableInfo {
    std::string name;
    std::string schema;
    std::string type;  // "TABLE" for ordinary tables
    std::vector<ColumnInfo> columns;

    nlohmann::json toJson() const;
};

struct SchemaInfo {
    std::string source_id;
    std::string catalog;
    std::string schema;
    std::vector<TableInfo> tables;

    nlohmann::json toJson() const;
};

}  // namespace vostra::data
