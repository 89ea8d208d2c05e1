#include "storage/file_entry.h"

#include <nlohmann/json.hpp>

namespace vostra::data {
namespace {

int64_t epochMillis(std::chrono::system_clock::time_point when) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
}

}  // namespace

nlohmann::json FileEntry::toJson() const {
    return {{"path", path},
            {"name", name},
            {"is_directory", is_directory},
            {"size_bytes", size_bytes},
            {"content_type", content_type},
            {"checksum", checksum},
            {"created_at", epochMillis(created_at)},
            {"modified_at", epochMillis(modified_at)},
            {"metadata", metadata}};
}

}  // namespace vostra::data
