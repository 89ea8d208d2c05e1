#include "storage/storage_result.h"

#include <nlohmann/json.hpp>

namespace vostra::data {

nlohmann::json StorageResult::toJson() const {
    nlohmann::json json = {{"success", success}, {"error", error}};
    if (entry) json["entry"] = entry->toJson();
    if (!entries.empty()) {
        nlohmann::json list = nlohmann::json::array();
        for (const FileEntry& e : entries)
            list.push_back(e.toJson());
        json["entries"] = std::move(list);
    }
    if (!data.empty()) json["data"] = data;
    if (bytes_written > 0) json["bytes_written"] = bytes_written;
    if (bytes_read > 0) json["bytes_read"] = bytes_read;
    return json;
}

}  // namespace vostra::data
