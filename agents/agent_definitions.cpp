#include "agents/agent_definitions.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "common/file_name.h"
#include "common/random_id.h"
#include "connectors/agent_storage.h"

namespace vostra::data {
namespace {

constexpr const char* kNotFound = "Agent not found";
constexpr const char* kColumns =
    "id, name, version, description, system_prompt, allowed_tools, icon, color, temperature, "
    "role, category, tags, scope, created_by, created_at, updated_at";

AgentDefinition fromRow(const AgentStorage::Row& row) {
    auto text = [&](const char* column) {
        auto it = row.find(column);
        return it == row.end() ? std::string() : it->second;
    };
    auto list = [&](const char* column) {
        nlohmann::json parsed = nlohmann::json::parse(text(column), nullptr, false);
        return parsed.is_array() ? parsed : nlohmann::json::array();
    };
    AgentDefinition definition;
    definition.id = text("id");
    definition.name = text("name");
    definition.version = text("version");
    definition.description = text("description");
    definition.system_prompt = text("system_prompt");
    definition.allowed_tools = list("allowed_tools");
    definition.icon = text("icon");
    definition.color = text("color");
    try {
        definition.temperature = text("temperature").empty() ? -1.0 : std::stod(text("temperature"));
    } catch (const std::exception&) {
        definition.temperature = -1.0;
    }
    definition.role = text("role");
    definition.category = text("category");
    definition.tags = list("tags");
    definition.scope = text("scope");
    definition.created_by = text("created_by");
    definition.created_at = text("created_at");
    definition.updated_at = text("updated_at");
    return definition;
}

// What a definition file or body may change; the times are the store's.
bool sameContent(const AgentDefinition& a, const AgentDefinition& b) {
    nlohmann::json left = a.toJson();
    nlohmann::json right = b.toJson();
    for (const char* key : {"id", "created_at", "updated_at"}) {
        left.erase(key);
        right.erase(key);
    }
    return left == right;
}

AgentDefinition builtin(const char* name, const char* description, const char* category,
                        const char* prompt, nlohmann::json tools, const char* icon) {
    AgentDefinition definition;
    definition.name = name;
    definition.description = description;
    definition.category = category;
    definition.system_prompt = prompt;
    definition.allowed_tools = std::move(tools);
    definition.icon = icon;
    definition.tags = {"builtin", category};
    return definition;
}

}  // namespace

Status AgentDefinition::fromJson(const nlohmann::json& json, AgentDefinition& out) {
    if (!json.is_object()) return Status::failure(ErrorKind::Invalid, "Request body must be a JSON object");
    AgentDefinition definition;
    try {
        auto read = [&](const char* key, std::string& field) {
            if (json.contains(key) && !json[key].is_null()) field = json[key].get<std::string>();
        };
        read("id", definition.id);
        read("name", definition.name);
        read("version", definition.version);
        read("description", definition.description);
        read("system_prompt", definition.system_prompt);
        read("icon", definition.icon);
        read("color", definition.color);
        read("role", definition.role);
        read("category", definition.category);
        read("scope", definition.scope);
        read("created_by", definition.created_by);
        if (json.contains("temperature") && !json["temperature"].is_null())
            definition.temperature = json["temperature"].get<double>();
        for (const char* key : {"allowed_tools", "tags"}) {
            if (!json.contains(key) || json[key].is_null()) continue;
            if (!json[key].is_array())
                return Status::failure(ErrorKind::Invalid, std::string(key) + " must be an array");
            (std::string(key) == "tags" ? definition.tags : definition.allowed_tools) = json[key];
        }
    } catch (const nlohmann::json::exception& error) {
        return Status::failure(ErrorKind::Invalid, error.what());
    }
    if (definition.name.empty()) return Status::failure(ErrorKind::Invalid, "name is required");
    if (definition.system_prompt.empty())
        return Status::failure(ErrorKind::Invalid, "system_prompt is required");
    if (definition.version.empty()) definition.version = "1.0.0";
    if (!definition.id.empty()) {
        if (std::string problem = fileNameProblem(definition.id); !problem.empty())
            return Status::failure(ErrorKind::Invalid, "Invalid id: " + problem);
    }
    out = std::move(definition);
    return Status::success();
}

nlohmann::json AgentDefinition::toJson() const {
    return {{"id", id},
            {"name", name},
            {"version", version},
            {"description", description},
            {"system_prompt", system_prompt},
            {"allowed_tools", allowed_tools},
            {"icon", icon},
            {"color", color},
            {"temperature", temperature},
            {"role", role},
            {"category", category},
            {"tags", tags},
            {"scope", scope},
            {"created_by", created_by},
            {"created_at", created_at},
            {"updated_at", updated_at}};
}

nlohmann::json AgentSyncReport::toJson() const {
    return {{"added", added}, {"updated", updated}, {"unchanged", unchanged}, {"failed", failed}};
}

std::vector<AgentDefinition> AgentDefinitions::list() {
    std::vector<AgentDefinition> definitions;
    for (const AgentStorage::Row& row :
         store_.query(std::string("SELECT ") + kColumns + " FROM agents ORDER BY name, version", {}))
        definitions.push_back(fromRow(row));
    return definitions;
}

std::optional<AgentDefinition> AgentDefinitions::get(const std::string& id) {
    const auto rows = store_.query(std::string("SELECT ") + kColumns + " FROM agents WHERE id = ?", {id});
    if (rows.empty()) return std::nullopt;
    return fromRow(rows.front());
}

std::optional<AgentDefinition> AgentDefinitions::byNameAndVersion(const std::string& name,
                                                                  const std::string& version) {
    const auto rows = store_.query(
        std::string("SELECT ") + kColumns + " FROM agents WHERE name = ? AND version = ?",
        {name, version});
    if (rows.empty()) return std::nullopt;
    return fromRow(rows.front());
}

bool AgentDefinitions::write(const AgentDefinition& d, bool insert) {
    const std::vector<std::string> values = {
        d.name, d.version, d.description, d.system_prompt, d.allowed_tools.dump(), d.icon,
        d.color, std::to_string(d.temperature), d.role, d.category, d.tags.dump(), d.scope,
        d.created_by, d.id};
    if (insert)
        return store_.execute(
            "INSERT INTO agents (name, version, description, system_prompt, allowed_tools, icon, "
            "color, temperature, role, category, tags, scope, created_by, id) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, CAST(? AS REAL), ?, ?, ?, ?, ?, ?)",
            values);
    return store_.execute(
        "UPDATE agents SET name = ?, version = ?, description = ?, system_prompt = ?, "
        "allowed_tools = ?, icon = ?, color = ?, temperature = CAST(? AS REAL), role = ?, "
        "category = ?, tags = ?, scope = ?, created_by = ?, "
        "updated_at = strftime('%Y-%m-%d %H:%M:%f', 'now') WHERE id = ?",
        values);
}

Status AgentDefinitions::create(AgentDefinition& definition) {
    if (definition.id.empty()) definition.id = "agent-" + randomHex(16);
    if (get(definition.id))
        return Status::failure(ErrorKind::Conflict, "Agent id already exists: " + definition.id);
    if (byNameAndVersion(definition.name, definition.version))
        return Status::failure(ErrorKind::Conflict, "An agent named " + definition.name +
                                                        " with version " + definition.version +
                                                        " already exists");
    if (!write(definition, true))
        return Status::failure(ErrorKind::Conflict, "Cannot store agent " + definition.name);
    definition = *get(definition.id);
    return Status::success();
}

Status AgentDefinitions::update(const std::string& id, AgentDefinition& definition) {
    const auto current = get(id);
    if (!current) return Status::failure(ErrorKind::NotFound, kNotFound);
    const auto holder = byNameAndVersion(definition.name, definition.version);
    if (holder && holder->id != id)
        return Status::failure(ErrorKind::Conflict, "An agent named " + definition.name +
                                                        " with version " + definition.version +
                                                        " already exists");
    definition.id = id;
    if (!write(definition, false))
        return Status::failure(ErrorKind::Internal, "Cannot update agent " + id);
    definition = *get(id);
    return Status::success();
}

Status AgentDefinitions::remove(const std::string& id) {
    if (!get(id)) return Status::failure(ErrorKind::NotFound, kNotFound);
    if (!store_.execute("DELETE FROM agents WHERE id = ?", {id}))
        return Status::failure(ErrorKind::Internal, "Cannot delete agent " + id);
    return Status::success();
}

std::pair<int, int> AgentDefinitions::seed() {
    int added = 0;
    int skipped = 0;
    for (AgentDefinition definition : builtins()) {
        if (byNameAndVersion(definition.name, definition.version)) {
            ++skipped;
            continue;
        }
        if (create(definition))
            ++added;
        else
            ++skipped;
    }
    return {added, skipped};
}

AgentSyncReport AgentDefinitions::syncFolder(const std::string& folder) {
    namespace fs = std::filesystem;
    AgentSyncReport report;
    std::vector<fs::path> files;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error))
        if (entry.path().extension() == ".json" && entry.is_regular_file(error))
            files.push_back(entry.path());
    if (error) {
        report.failed.push_back({{"file", folder}, {"reason", error.message()}});
        return report;
    }
    std::ranges::sort(files);
    for (const fs::path& file : files) {
        auto fail = [&](const std::string& reason) {
            report.failed.push_back({{"file", file.filename().string()}, {"reason", reason}});
        };
        std::ifstream in(file);
        const nlohmann::json json = nlohmann::json::parse(in, nullptr, false);
        if (json.is_discarded()) {
            fail("not valid JSON");
            continue;
        }
        AgentDefinition definition;
        if (Status read = AgentDefinition::fromJson(json, definition); !read) {
            fail(read.message);
            continue;
        }
        const auto existing = byNameAndVersion(definition.name, definition.version);
        Status written = Status::success();
        if (!existing) {
            written = create(definition);
            if (written) ++report.added;
        } else if (sameContent(*existing, definition)) {
            ++report.unchanged;
        } else {
            definition.created_at = existing->created_at;
            written = update(existing->id, definition);
            if (written) ++report.updated;
        }
        if (!written) fail(written.message);
    }
    return report;
}

std::vector<AgentDefinition> AgentDefinitions::builtins() {
    return {
        builtin("data-analyst", "Answers questions from the worker's databases.", "data",
                "You are a data analyst. List the data sources with GET /api/v1/data/sources, "
                "inspect tables and schemas, and answer with read-only SQL through POST "
                "/api/v1/data/query. Show the query you ran and explain the result briefly.",
                {"data.sources", "data.schema", "data.query"}, "chart"),
        builtin("librarian", "Finds, reads and files the tenant's documents.", "storage",
                "You are a librarian for this tenant's files. Browse with GET "
                "/api/v1/storage/<tenant>/<folder>/, read files, and keep new material in "
                "sensible folders. Never delete a file unless asked to.",
                {"storage.list", "storage.read", "storage.write"}, "book"),
        builtin("research-assistant", "Searches public scientific data services.", "science",
                "You are a research assistant. Use the science gateway (/api/v1/science) to "
                "search literature and databases, cite the provider and identifier of every "
                "fact, and say when a service gave no answer.",
                {"science.providers", "science.query"}, "flask"),
        builtin("retrieval-helper", "Looks up passages in the vector store.", "vector",
                "You answer from the tenant's documents: search the vector store with POST "
                "/api/v1/vector/search, quote the passages you rely on, and say when nothing "
                "relevant was found.",
                {"vector.search"}, "search"),
    };
}

}  // namespace vostra::data
