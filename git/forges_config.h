// The forges the daemon knows, as kept in its accounts file:
//   {"forges": [<ForgeConfig>, ...], "default_forge": "<id>"}
// The file holds the forges' tokens, so it is written with mode 0600 and
// only through saveToFile; toJson, for answers, leaves every secret out.
// A plain value record owned by the caller; not thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/status.h"
#include "git/forge_records.h"

namespace vostra::git {

// The accounts file's name in the daemon's data folder.
inline constexpr const char* kForgesFileName = "forges.json";

struct ForgesConfig {
    std::vector<ForgeConfig> forges;
    std::string default_forge_id;  // key "default_forge"; empty for none

    // Throws nlohmann's exceptions for a wrong JSON type.
    static ForgesConfig fromJson(const nlohmann::json& json);
    // Without secrets, for answers.
    nlohmann::json toJson() const;
    // With secrets, for the accounts file.
    nlohmann::json toStoredJson() const;

    // Replaces this record with the file's content. NotFound when there is
    // no file, Invalid when it is not a forges document (the record is then
    // unchanged), Internal when it cannot be read.
    Status loadFromFile(const std::string& path);
    // Writes toStoredJson() atomically with mode 0600.
    Status saveToFile(const std::string& path) const;
};

}  // namespace vostra::git
