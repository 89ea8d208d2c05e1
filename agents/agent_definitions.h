// Agent definitions kept in the daemon's agent store (the "agents" table):
// the prompts, tools and looks of the agents a cluster runs. This worker
// keeps them and answers for them; it never runs an agent. Definitions are
// unique by name and version.
//
// Thread-safe: the store serialises its single connection; a check and
// the write after it are not atomic against another writer, so the
// store's own UNIQUE(name, version) has the last word. Not copyable.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/status.h"

namespace vostra::data {

class AgentStorage;

struct AgentDefinition {
    std::string id;  // generated ("agent-" + 16 hex digits) when absent
    std::string name;
    std::string version = "1.0.0";
    std::string description;
    std::string system_prompt;
    nlohmann::json allowed_tools = nlohmann::json::array();  // stored as JSON text
    std::string icon;
    std::string color;
    double temperature = -1.0;  // -1: not set
    std::string role = "core";
    std::string category;
    nlohmann::json tags = nlohmann::json::array();  // stored as JSON text
    std::string scope = "builtin";
    std::string created_by = "system";
    std::string created_at;
    std::string updated_at;

    // Invalid ("name is required", "system_prompt is required", a key of
    // the wrong type, an id that cannot be a file name) as a Status.
    static Status fromJson(const nlohmann::json& json, AgentDefinition& out);
    nlohmann::json toJson() const;
};

struct AgentSyncReport {
    int added = 0;
    int updated = 0;
    int unchanged = 0;
    nlohmann::json failed = nlohmann::json::array();  // [{"file", "reason"}]

    nlohmann::json toJson() const;
};

class AgentDefinitions {
public:
    // `store` must be open and outlive this object.
    explicit AgentDefinitions(AgentStorage& store) : store_(store) {}

    // Sorted by name, then version.
    std::vector<AgentDefinition> list();
    std::optional<AgentDefinition> get(const std::string& id);
    // Conflict when the id, or the name and version, are taken.
    Status create(AgentDefinition& definition);
    // Replaces the whole record of `id` (its id and created_at stay;
    // updated_at moves). NotFound "Agent not found"; Conflict when the new
    // name and version belong to another definition.
    Status update(const std::string& id, AgentDefinition& definition);
    Status remove(const std::string& id);
    // Inserts the built-in definitions not yet present (by name and version).
    std::pair<int, int> seed();
    // Imports every "*.json" file of `folder` (one definition each): new
    // ones are inserted, changed ones (same name and version) updated.
    AgentSyncReport syncFolder(const std::string& folder);

    // The built-in set seed() inserts.
    static std::vector<AgentDefinition> builtins();

private:
    std::optional<AgentDefinition> byNameAndVersion(const std::string& name,
                                                    const std::string& version);
    bool write(const AgentDefinition& definition, bool insert);

    AgentStorage& store_;
};

}  // namespace vostra::data
