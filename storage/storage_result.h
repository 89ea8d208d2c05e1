// The outcome of every storage operation: success, or a fixed message
// followed by the offending path or tenant, plus what the operation
// produced. A plain value record owned by the caller; failures are never
// thrown.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "storage/file_entry.h"

namespace vostra::data {

struct StorageResult {
    bool success = false;
    std::string error;
    std::optional<FileEntry> entry;
    std::vector<FileEntry> entries;
    std::string data;  // bytes read; may be binary
    int64_t bytes_written = 0;
    int64_t bytes_read = 0;
    // Set with a failure when the request was refused as unsafe (a symbolic
    // link on the way) rather than simply not satisfiable; callers report it
    // as a bad request, never as "not found". Not part of the JSON.
    bool refused = false;

    // "success" and "error" always; "entry" when present, "entries" when
    // non-empty, "data" when non-empty, the byte counts when above zero.
    nlohmann::json toJson() const;

    static StorageResult failure(std::string message) {
        StorageResult result;
        result.error = std::move(message);
        return result;
    }
};

}  // namespace vostra::data
