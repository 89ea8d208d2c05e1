#include "agents/tenant_collections.h"

#include <algorithm>
#include <chrono>

#include "agents/cron_schedule.h"
#include "common/file_name.h"
#include "common/random_id.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

std::string now() { return isoTime(std::chrono::system_clock::now()); }

Status fromStorage(const StorageResult& result) {
    if (result.success) return Status::success();
    return Status::failure(result.kind == ErrorKind::None ? ErrorKind::Internal : result.kind,
                           result.error);
}

Status checkName(const std::string& name, const std::string& what) {
    if (std::string problem = fileNameProblem(name); !problem.empty() || name.starts_with('.'))
        return Status::failure(ErrorKind::Invalid,
                               "Invalid " + what + ": " + (problem.empty() ? name : problem));
    return Status::success();
}

// A required non-empty string member.
Status requireText(const nlohmann::json& document, const char* key) {
    auto it = document.find(key);
    if (it == document.end() || !it->is_string() || it->get<std::string>().empty())
        return Status::failure(ErrorKind::Invalid, std::string(key) + " is required");
    return Status::success();
}

}  // namespace

std::string DocumentCollection::notFound() const {
    std::string kind = folder_;
    if (kind.ends_with('s')) kind.pop_back();
    if (!kind.empty()) kind[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(kind[0])));
    return kind + " not found";
}

nlohmann::json DocumentCollection::list(StorageService& storage, const std::string& tenant) const {
    nlohmann::json documents = nlohmann::json::array();
    StorageListRequest request;
    request.tenant_id = tenant;
    request.path = folder_;
    request.limit = 100000;
    const StorageResult listing = storage.list(request);
    for (const FileEntry& entry : listing.entries) {
        if (entry.is_directory || !entry.name.ends_with(".json")) continue;
        nlohmann::json document;
        if (get(storage, tenant, entry.name.substr(0, entry.name.size() - 5), document))
            documents.push_back(std::move(document));
    }
    std::sort(documents.begin(), documents.end(), [](const auto& a, const auto& b) {
        return a.value("id", "") < b.value("id", "");
    });
    return documents;
}

Status DocumentCollection::get(StorageService& storage, const std::string& tenant,
                               const std::string& id, nlohmann::json& document) const {
    if (!fileNameProblem(id).empty()) return Status::failure(ErrorKind::NotFound, notFound());
    StorageReadRequest read;
    read.tenant_id = tenant;
    read.path = folder_ + "/" + id + ".json";
    const StorageResult result = storage.read(read);
    if (!result.success) {
        if (result.kind == ErrorKind::NotFound && result.error.starts_with("Tenant"))
            return fromStorage(result);
        return Status::failure(ErrorKind::NotFound, notFound());
    }
    document = nlohmann::json::parse(result.data, nullptr, false);
    if (!document.is_object()) return Status::failure(ErrorKind::NotFound, notFound());
    return Status::success();
}

Status DocumentCollection::write(StorageService& storage, const std::string& tenant,
                                 const nlohmann::json& document) const {
    StorageWriteRequest write;
    write.tenant_id = tenant;
    write.path = folder_ + "/" + document["id"].get<std::string>() + ".json";
    write.data = document.dump(2);
    write.content_type = "application/json";
    return fromStorage(storage.write(write));
}

Status DocumentCollection::create(StorageService& storage, const std::string& tenant,
                                  nlohmann::json& document) const {
    if (!document.is_object())
        return Status::failure(ErrorKind::Invalid, "Request body must be a JSON object");
    if (!document.contains("id")) document["id"] = id_prefix_ + randomHex(12);
    if (!document["id"].is_string()) return Status::failure(ErrorKind::Invalid, "id must be a string");
    const std::string id = document["id"];
    if (Status name = checkName(id, "id"); !name) return name;
    if (Status valid = validate_(document); !valid) return valid;
    nlohmann::json existing;
    if (get(storage, tenant, id, existing))
        return Status::failure(ErrorKind::Conflict, "Id already exists: " + id);
    document["created_at"] = document["updated_at"] = now();
    return write(storage, tenant, document);
}

Status DocumentCollection::replace(StorageService& storage, const std::string& tenant,
                                   const std::string& id, nlohmann::json& document) const {
    if (!document.is_object())
        return Status::failure(ErrorKind::Invalid, "Request body must be a JSON object");
    nlohmann::json existing;
    if (Status found = get(storage, tenant, id, existing); !found) return found;
    document["id"] = id;
    if (Status valid = validate_(document); !valid) return valid;
    document["created_at"] = existing.value("created_at", now());
    document["updated_at"] = now();
    return write(storage, tenant, document);
}

Status DocumentCollection::remove(StorageService& storage, const std::string& tenant,
                                  const std::string& id) const {
    nlohmann::json existing;
    if (Status found = get(storage, tenant, id, existing); !found) return found;
    return fromStorage(storage.remove(tenant, folder_ + "/" + id + ".json", false));
}

Status TenantFolders::create(StorageService& storage, const std::string& tenant,
                             const std::string& name, nlohmann::json& info) const {
    if (Status valid = checkName(name, "name"); !valid) return valid;
    if (storage.stat(tenant, root_ + "/" + name).success)
        return Status::failure(ErrorKind::Conflict, kind_ + " already exists: " + name);
    if (Status made = fromStorage(storage.mkdir(tenant, root_ + "/" + name)); !made) return made;
    return this->info(storage, tenant, name, info);
}

nlohmann::json TenantFolders::list(StorageService& storage, const std::string& tenant) const {
    nlohmann::json folders = nlohmann::json::array();
    StorageListRequest request;
    request.tenant_id = tenant;
    request.path = root_;
    request.limit = 100000;
    for (const FileEntry& entry : storage.list(request).entries) {
        nlohmann::json one;
        if (entry.is_directory && info(storage, tenant, entry.name, one)) folders.push_back(one);
    }
    std::sort(folders.begin(), folders.end(), [](const auto& a, const auto& b) {
        return a.value("name", "") < b.value("name", "");
    });
    return folders;
}

Status TenantFolders::info(StorageService& storage, const std::string& tenant,
                           const std::string& name, nlohmann::json& out) const {
    if (!fileNameProblem(name).empty())
        return Status::failure(ErrorKind::NotFound, kind_ + " not found");
    const StorageResult folder = storage.stat(tenant, root_ + "/" + name);
    if (!folder.success || !folder.entry || !folder.entry->is_directory) {
        if (folder.error.starts_with("Tenant")) return fromStorage(folder);
        return Status::failure(ErrorKind::NotFound, kind_ + " not found");
    }
    StorageListRequest request;
    request.tenant_id = tenant;
    request.path = root_ + "/" + name;
    request.recursive = true;
    request.limit = 1000000;
    int64_t bytes = 0;
    int64_t files = 0;
    for (const FileEntry& entry : storage.list(request).entries) {
        if (entry.is_directory) continue;
        bytes += entry.size_bytes;
        ++files;
    }
    out = {{"name", name},
           {"size_bytes", bytes},
           {"file_count", files},
           {"created_at", isoTime(folder.entry->created_at)}};
    return Status::success();
}

Status TenantFolders::remove(StorageService& storage, const std::string& tenant,
                             const std::string& name) const {
    nlohmann::json existing;
    if (Status found = info(storage, tenant, name, existing); !found) return found;
    return fromStorage(storage.remove(tenant, root_ + "/" + name, true));
}

Status TenantFolders::pathOf(StorageService& storage, const std::string& tenant,
                             const std::string& name, const std::string& path,
                             std::string& out) const {
    if (!fileNameProblem(name).empty())
        return Status::failure(ErrorKind::NotFound, kind_ + " not found");
    const StorageResult folder = storage.stat(tenant, root_ + "/" + name);
    if (!folder.success || !folder.entry || !folder.entry->is_directory) {
        if (folder.error.starts_with("Tenant")) return fromStorage(folder);
        return Status::failure(ErrorKind::NotFound, kind_ + " not found");
    }
    out = root_ + "/" + name + "/" + path;
    return Status::success();
}

Status validateSkill(nlohmann::json& skill) {
    for (const char* key : {"name", "instructions"})
        if (Status present = requireText(skill, key); !present) return present;
    if (skill.contains("description") && !skill["description"].is_string())
        return Status::failure(ErrorKind::Invalid, "description must be a string");
    if (skill.contains("tools")) {
        const nlohmann::json& tools = skill["tools"];
        if (!tools.is_array() || !std::ranges::all_of(tools, [](const auto& t) { return t.is_string(); }))
            return Status::failure(ErrorKind::Invalid, "tools must be an array of strings");
    }
    return Status::success();
}

Status validateAutomation(nlohmann::json& automation) {
    for (const char* key : {"name", "target", "prompt", "schedule"})
        if (Status present = requireText(automation, key); !present) return present;
    if (automation.contains("enabled") && !automation["enabled"].is_boolean())
        return Status::failure(ErrorKind::Invalid, "enabled must be a boolean");
    std::string error;
    if (!CronSchedule::parse(automation["schedule"].get<std::string>(), error))
        return Status::failure(ErrorKind::Invalid, "Invalid schedule: " + error);
    return Status::success();
}

}  // namespace vostra::data
