// One file or directory as the storage service describes it to callers:
// where it is inside its tenant, its size and type, its checksum and the
// caller's metadata. A plain value record.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra::data {

struct FileEntry {
    std::string path;  // relative to the tenant root
    std::string name;  // last path component
    bool is_directory = false;
    int64_t size_bytes = 0;
    std::string content_type;
    std::string checksum;  // SHA-256, 64 lower-case hex digits; empty when unknown
    std::chrono::system_clock::time_point created_at{};
    std::chrono::system_clock::time_point modified_at{};
    std::map<std::string, std::string> metadata;

    // Every key always present; the times as integer milliseconds since the
    // Unix epoch (truncated), "metadata" as an object of strings.
    nlohmann::json toJson() const;
};

}  // namespace vostra::data
