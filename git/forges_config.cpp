#include "git/forges_config.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/atomic_file.h"
#include "common/json_fields.h"

namespace vostra::git {

using nlohmann::json;

namespace {

constexpr const char* kForgesKey = "forges";
constexpr const char* kDefaultKey = "default_forge";
// Only the daemon's user may read the tokens.
constexpr mode_t kAccountsFileMode = 0600;

json document(const std::vector<ForgeConfig>& forges, const std::string& default_id,
              json (ForgeConfig::*form)() const) {
    json list = json::array();
    for (const ForgeConfig& forge : forges) list.push_back((forge.*form)());
    return {{kForgesKey, std::move(list)}, {kDefaultKey, default_id}};
}

}  // namespace

ForgesConfig ForgesConfig::fromJson(const json& j) {
    ForgesConfig config;
    if (auto it = j.find(kForgesKey); it != j.end()) {
        if (!it->is_array())
            throw json::type_error::create(
                302, std::string("type must be array, but is ") + it->type_name(), &*it);
        for (const json& forge : *it) config.forges.push_back(ForgeConfig::fromJson(forge));
    }
    readField(j, kDefaultKey, config.default_forge_id);
    return config;
}

json ForgesConfig::toJson() const {
    return document(forges, default_forge_id, &ForgeConfig::toJson);
}

json ForgesConfig::toStoredJson() const {
    return document(forges, default_forge_id, &ForgeConfig::toStoredJson);
}

Status ForgesConfig::loadFromFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        const int error = errno;
        if (error == ENOENT) return Status::failure(ErrorKind::NotFound, "No forges file: " + path);
        return Status::failure(ErrorKind::Internal,
                               "Cannot read forges file " + path + ": " + std::strerror(error));
    }
    std::ostringstream text;
    text << file.rdbuf();
    try {
        const json parsed = json::parse(text.str());
        if (!parsed.is_object())
            return Status::failure(ErrorKind::Invalid, "Invalid forges file: " + path);
        *this = fromJson(parsed);
    } catch (const json::parse_error& error) {
        // The library's text quotes the input near the fault, which may be
        // a token; the position is enough.
        return Status::failure(ErrorKind::Invalid, "Invalid forges file: " + path +
                                                       " (syntax error at byte " +
                                                       std::to_string(error.byte) + ")");
    } catch (const json::exception& error) {
        return Status::failure(ErrorKind::Invalid,
                               "Invalid forges file: " + path + ": " + error.what());
    }
    return Status::success();
}

Status ForgesConfig::saveToFile(const std::string& path) const {
    return writeFileAtomically(path, toStoredJson().dump(2, ' ', false, json::error_handler_t::replace), kAccountsFileMode);
}

}  // namespace vostra::git
