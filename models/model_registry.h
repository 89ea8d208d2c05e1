// ModelRegistry: the model files found in the configured folders, each
// with what its header says (GGUF metadata, or the safetensors tensor
// table), kept in a JSON file so that a restart does not re-read them. A
// scan walks the folders, re-reads only files whose size or modification
// time changed, and forgets files that are gone.
//
// Thread-safe: readers never wait for a scan (it works on a copy and swaps
// it in); two scans never run at once. Not copyable.
#pragma once

#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vostra::data {

struct ModelRecord {
    std::string id;  // "model-" + 16 hex digits of the path's SHA-256: stable across scans
    std::string path;
    std::string file_name;
    std::string format;  // "gguf", "safetensors" or "pytorch"
    int64_t size_bytes = 0;
    int64_t modified_ns = 0;  // the file's modification time, nanoseconds since the epoch
    std::string architecture;
    std::string quantization;
    std::string error;  // why the header could not be read; empty when it was
    // What the header says: GGUFModelMetadata::toJson or SafetensorsHeader::toJson,
    // without the tensors, which are kept apart.
    nlohmann::json metadata = nlohmann::json::object();
    nlohmann::json tensors = nlohmann::json::array();

    nlohmann::json toJson(bool with_tensors) const;
    static ModelRecord fromJson(const nlohmann::json& json);
};

struct ModelScanSummary {
    int64_t models = 0;
    int64_t added = 0;
    int64_t updated = 0;
    int64_t removed = 0;
    int64_t unchanged = 0;

    nlohmann::json toJson() const;
};

class ModelRegistry {
public:
    // `folders` are walked in order (missing ones are passed over; a folder
    // reached twice is walked once); `registry_file` keeps the records
    // (empty: kept in memory only).
    ModelRegistry(std::vector<std::string> folders, std::string registry_file);
    ModelRegistry(const ModelRegistry&) = delete;
    ModelRegistry& operator=(const ModelRegistry&) = delete;

    // Reads the registry file; false (and nothing loaded) when it exists
    // but cannot be read. A missing file is an empty registry.
    bool load();
    // One walk of the folders (symbolic links are not followed; at most
    // kMaxDepth levels and kMaxFiles files), then the registry file is
    // rewritten when anything changed.
    ModelScanSummary scanModelFiles();

    // The records whose format and architecture equal the filters (an empty
    // filter takes all), sorted by path.
    std::vector<ModelRecord> list(const std::string& format, const std::string& architecture) const;
    std::optional<ModelRecord> get(const std::string& id) const;
    const std::vector<std::string>& folders() const { return folders_; }
    // Seconds since the epoch of the last finished scan; 0 before one.
    int64_t lastScan() const;

    static constexpr int kMaxDepth = 8;
    static constexpr int64_t kMaxFiles = 100000;

private:
    // The record of one file, read afresh; nothing for a file that is no
    // model (a ".bin" that is neither a zip nor a pickle).
    static std::optional<ModelRecord> readModel(const std::string& path, int64_t size,
                                                int64_t modified_ns);

    const std::vector<std::string> folders_;
    const std::string registry_file_;
    mutable std::mutex mutex_;
    std::vector<ModelRecord> records_;  // sorted by path
    int64_t last_scan_ = 0;
    std::mutex scan_mutex_;
};

}  // namespace vostra::data
