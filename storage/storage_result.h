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

#include "common/status.h"
#include "storage/file_entry.h"

namespace vostra::data {

struct [[nodiscard]] StorageResult {
    bool success = false;
    std::string error;
    std::optional<FileEntry> entry;
    std::vector<FileEntry> entries;
    std::string data;  // bytes read; may be binary
    int64_t bytes_written = 0;
    int64_t bytes_read = 0;
    // What kind of failure this is (None on success); an unsafe request (a
    // symbolic link on the way) is Refused, never NotFound. Not in the JSON.
    ErrorKind kind = ErrorKind::None;

    // "success" and "error" always; "entry" when present, "entries" when
    // non-empty, "data" when non-empty, the byte counts when above zero.
    nlohmann::json toJson() const;

    static StorageResult failure(ErrorKind kind, std::string message) {
        StorageResult result;
        result.kind = kind;
        result.error = std::move(message);
        return result;
    }
};

}  // namespace vostra::data
