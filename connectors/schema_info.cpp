#include "connectors/schema_info.h"

#include <nlohmann/json.hpp>

namespace vostra::data {

nlohmann::json ColumnInfo::toJson() const {
    return {{"name", name},
            {"type", type},
            {"nullable", nullable},
            {"primary_key", primary_key},
            {"default_value", default_value},
            {"ordinal_position", ordinal_position}};
}

nlohmann::json TableInfo::toJson() const {
    nlohmann::json column_array = nlohmann::json::array();
    for (const ColumnInfo& column : columns)
        column_array.push_back(column.toJson());
    return {{"name", name}, {"schema", schema}, {"type", type}, {"columns", column_array}};
}

nlohmann::json SchemaInfo::toJson() const {
    nlohmann::json table_array = nlohmann::json::array();
    for (const TableInfo& table : tables)
        table_array.push_back(table.toJson());
    return {{"source_id", source_id},
            {"catalog", catalog},
            {"schema", schema},
            {"tables", table_array}};
}

}  // namespace vostra::data
