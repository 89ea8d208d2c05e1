#include "models/model_registry.h"

#include <openssl/sha.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "common/atomic_file.h"
#include "common/json_fields.h"
#include "common/log.h"
#include "models/gguf_parser.h"
#include "models/safetensors_header.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;

constexpr vostra::Log kLog("[ModelRegistry] ");

std::string lowerExtension(const fs::path& path) {
    std::string extension = path.extension().string();
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return extension;
}

// The format a file name promises; empty for other files.
std::string formatOf(const fs::path& path) {
    const std::string extension = lowerExtension(path);
    if (extension == ".gguf") return "gguf";
    if (extension == ".safetensors") return "safetensors";
    if (extension == ".bin" || extension == ".pt" || extension == ".pth") return "pytorch";
    return {};
}

// PyTorch saves a zip archive, or a bare pickle in older versions.
bool looksLikePyTorch(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    char head[4] = {};
    if (!file.read(head, 4)) return false;
    return std::equal(head, head + 4, "PK\3\4") || static_cast<unsigned char>(head[0]) == 0x80;
}

std::string modelId(const std::string& path) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(path.data()), path.size(), digest);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string id = "model-";
    for (int i = 0; i < 8; ++i) {
        id += kHex[digest[i] >> 4];
        id += kHex[digest[i] & 15];
    }
    return id;
}

int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

nlohmann::json ModelRecord::toJson(bool with_tensors) const {
    nlohmann::json json = {{"id", id},
                           {"path", path},
                           {"file_name", file_name},
                           {"format", format},
                           {"size_bytes", size_bytes},
                           {"modified_ns", modified_ns},
                           {"architecture", architecture},
                           {"quantization", quantization},
                           {"metadata", metadata}};
    if (!error.empty()) json["error"] = error;
    if (with_tensors) json["tensors"] = tensors;
    return json;
}

ModelRecord ModelRecord::fromJson(const nlohmann::json& json) {
    ModelRecord record;
    readField(json, "id", record.id);
    readField(json, "path", record.path);
    readField(json, "file_name", record.file_name);
    readField(json, "format", record.format);
    readField(json, "size_bytes", record.size_bytes);
    readField(json, "modified_ns", record.modified_ns);
    readField(json, "architecture", record.architecture);
    readField(json, "quantization", record.quantization);
    readField(json, "error", record.error);
    readField(json, "metadata", record.metadata);
    readField(json, "tensors", record.tensors);
    return record;
}

nlohmann::json ModelScanSummary::toJson() const {
    return {{"models", models}, {"added", added}, {"updated", updated}, {"removed", removed},
            {"unchanged", unchanged}};
}

ModelRegistry::ModelRegistry(std::vector<std::string> folders, std::string registry_file)
    : folders_(std::move(folders)), registry_file_(std::move(registry_file)) {}

bool ModelRegistry::load() {
    if (registry_file_.empty()) return true;
    std::ifstream in(registry_file_);
    if (!in) return !fs::exists(registry_file_);
    std::vector<ModelRecord> loaded;
    try {
        const nlohmann::json json = nlohmann::json::parse(in);
        for (const nlohmann::json& entry : json.at("models")) loaded.push_back(ModelRecord::fromJson(entry));
    } catch (const std::exception& problem) {
        kLog.error("Cannot read ", registry_file_, ": ", problem.what());
        return false;
    }
    std::ranges::sort(loaded, {}, &ModelRecord::path);
    std::lock_guard lock(mutex_);
    records_ = std::move(loaded);
    return true;
}

std::optional<ModelRecord> ModelRegistry::readModel(const std::string& path, int64_t size,
                                                    int64_t modified_ns) {
    ModelRecord record;
    record.path = path;
    record.id = modelId(path);
    record.file_name = fs::path(path).filename().string();
    record.format = formatOf(path);
    record.size_bytes = size;
    record.modified_ns = modified_ns;
    if (record.format == "gguf") {
        pipeline::GGUFModelMetadata metadata;
        if (pipeline::GGUFParser::parseMetadata(path, metadata)) {
            record.architecture = metadata.architecture;
            record.quantization = metadata.quantization;
            record.metadata = metadata.toJson(false);
            for (const pipeline::GGUFTensorInfo& tensor : metadata.tensors)
                record.tensors.push_back(tensor.toJson());
        } else {
            record.error = "Unreadable GGUF header";
        }
    } else if (record.format == "safetensors") {
        pipeline::SafetensorsHeader header;
        if (pipeline::readSafetensorsHeader(path, header)) {
            record.quantization = header.main_dtype;
            auto architecture = header.metadata.find("architecture");
            if (architecture != header.metadata.end()) record.architecture = architecture->second;
            record.metadata = header.toJson(false);
            for (const pipeline::SafetensorsTensor& tensor : header.tensors)
                record.tensors.push_back(tensor.toJson());
        } else {
            record.error = "Unreadable safetensors header";
        }
    } else if (!looksLikePyTorch(path)) {
        return std::nullopt;
    }
    return record;
}

ModelScanSummary ModelRegistry::scanModelFiles() {
    std::lock_guard one_scan(scan_mutex_);
    std::map<std::string, ModelRecord> known;
    {
        std::lock_guard lock(mutex_);
        for (const ModelRecord& record : records_) known.emplace(record.path, record);
    }
    ModelScanSummary summary;
    std::vector<ModelRecord> found;
    std::set<std::string> walked;
    int64_t files = 0;
    for (const std::string& folder : folders_) {
        std::error_code error;
        const fs::path root = fs::weakly_canonical(folder, error);
        if (error || !fs::is_directory(root, error) || !walked.insert(root.string()).second) continue;
        fs::recursive_directory_iterator walk(root, fs::directory_options::skip_permission_denied, error);
        for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
            if (walk.depth() >= kMaxDepth) walk.disable_recursion_pending();
            if (++files > kMaxFiles) break;
            if (walk->is_symlink(error) || !walk->is_regular_file(error)) continue;
            const std::string path = walk->path().string();
            if (formatOf(path).empty()) continue;
            struct stat info {};
            if (::stat(path.c_str(), &info) != 0) continue;
            const int64_t size = info.st_size;
            const int64_t modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 +
                                     info.st_mtim.tv_nsec;
            auto previous = known.find(path);
            if (previous != known.end() && previous->second.size_bytes == size &&
                previous->second.modified_ns == modified) {
                found.push_back(previous->second);
                ++summary.unchanged;
                continue;
            }
            std::optional<ModelRecord> record = readModel(path, size, modified);
            if (!record) continue;
            ++(previous == known.end() ? summary.added : summary.updated);
            found.push_back(std::move(*record));
        }
        if (files > kMaxFiles) {
            kLog.error("Stopped the scan after ", kMaxFiles, " files");
            break;
        }
    }
    std::ranges::sort(found, {}, &ModelRecord::path);
    found.erase(std::unique(found.begin(), found.end(),
                            [](const auto& a, const auto& b) { return a.path == b.path; }),
                found.end());
    summary.models = static_cast<int64_t>(found.size());
    summary.removed = static_cast<int64_t>(known.size()) - summary.unchanged - summary.updated;
    const bool changed = summary.added + summary.updated + summary.removed > 0;
    nlohmann::json saved;
    if (changed && !registry_file_.empty()) {
        saved["models"] = nlohmann::json::array();
        for (const ModelRecord& record : found) saved["models"].push_back(record.toJson(true));
    }
    {
        std::lock_guard lock(mutex_);
        records_ = std::move(found);
        last_scan_ = nowSeconds();
    }
    if (changed && !registry_file_.empty()) {
        std::error_code error;
        fs::create_directories(fs::path(registry_file_).parent_path(), error);
        if (Status written = writeFileAtomically(registry_file_, saved.dump(), 0644); !written)
            kLog.error("Cannot save the model registry: ", written.message);
    }
    if (changed)
        kLog.info("Scan: ", summary.models, " models (", summary.added, " added, ", summary.updated,
                  " updated, ", summary.removed, " removed)");
    return summary;
}

std::vector<ModelRecord> ModelRegistry::list(const std::string& format,
                                             const std::string& architecture) const {
    std::vector<ModelRecord> records;
    std::lock_guard lock(mutex_);
    for (const ModelRecord& record : records_) {
        if (!format.empty() && record.format != format) continue;
        if (!architecture.empty() && record.architecture != architecture) continue;
        records.push_back(record);
    }
    return records;
}

std::optional<ModelRecord> ModelRegistry::get(const std::string& id) const {
    std::lock_guard lock(mutex_);
    for (const ModelRecord& record : records_)
        if (record.id == id) return record;
    return std::nullopt;
}

int64_t ModelRegistry::lastScan() const {
    std::lock_guard lock(mutex_);
    return last_scan_;
}

}  // namespace vostra::data
