#include "science/science_keys.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "common/atomic_file.h"

namespace vostra::data {
namespace {

constexpr const char* kKeysFileName = "science_api_keys.json";
constexpr const char* kUserConfigFolder = "/.config/vostra";
constexpr const char* kSystemConfigFolder = "/etc/vostra";

}  // namespace

std::string defaultScienceKeysFile() {
    const char* home = std::getenv("HOME");
    const std::string folder = home ? std::string(home) + kUserConfigFolder : kSystemConfigFolder;
    return folder + "/" + kKeysFileName;
}

std::optional<std::string> ScienceKeys::processEnvironment(const std::string& name) {
    if (const char* value = std::getenv(name.c_str())) return std::string(value);
    return std::nullopt;
}

ScienceKeys::ScienceKeys(std::string file, Environment environment)
    : file_(std::move(file)), environment_(std::move(environment)) {}

Status ScienceKeys::load() {
    std::ifstream in(file_);
    if (!in) return Status::success();
    const nlohmann::json parsed = nlohmann::json::parse(in, nullptr, false);
    if (!parsed.is_object())
        return Status::failure(ErrorKind::Invalid, "Not a JSON object: " + file_);
    std::map<std::string, std::string> keys;
    for (const auto& [name, value] : parsed.items()) {
        if (!value.is_string())
            return Status::failure(ErrorKind::Invalid,
                                   "Key " + name + " is not a string in " + file_);
        if (!value.get_ref<const std::string&>().empty()) keys[name] = value.get<std::string>();
    }
    std::lock_guard lock(mutex_);
    keys_ = std::move(keys);
    return Status::success();
}

Status ScienceKeys::save(const std::map<std::string, std::string>& changes) {
    // One writer at a time: the file must hold the same keys as memory.
    std::lock_guard lock(mutex_);
    std::map<std::string, std::string> keys = keys_;
    for (const auto& [name, value] : changes) {
        if (value.empty())
            keys.erase(name);
        else
            keys[name] = value;
    }
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::path(file_).parent_path();
    if (!folder.empty() && std::filesystem::create_directories(folder, error))
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
    if (Status written = writeFileAtomically(file_, nlohmann::json(keys).dump(2), 0600); !written)
        return written;
    keys_ = std::move(keys);
    return Status::success();
}

std::optional<std::string> ScienceKeys::stored(const std::string& name) const {
    std::lock_guard lock(mutex_);
    if (auto it = keys_.find(name); it != keys_.end()) return it->second;
    return std::nullopt;
}

std::optional<std::string> ScienceKeys::lookup(const std::string& name) const {
    if (name.empty()) return std::nullopt;
    if (std::optional<std::string> value = stored(name)) return value;
    std::optional<std::string> value = environment_(name);
    if (value && value->empty()) return std::nullopt;
    return value;
}

std::string ScienceKeys::source(const std::string& name) const {
    if (name.empty()) return "";
    {
        std::lock_guard lock(mutex_);
        if (keys_.contains(name)) return "file";
    }
    const std::optional<std::string> value = environment_(name);
    return value && !value->empty() ? "environment" : "";
}

std::vector<std::string> ScienceKeys::names() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [name, value] : keys_)
        names.push_back(name);
    return names;
}

}  // namespace vostra::data
