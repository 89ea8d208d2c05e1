// What agents keep per tenant in file storage, so that it follows the
// storage backend and the tenant's access and quota rules:
//  - DocumentCollection: JSON documents by id at "<folder>/<id>.json"
//    (skills, automations), checked by a validator before each write;
//  - TenantFolders: named folders of files under one root ("workspaces",
//    "outputs"), with their size and file count.
// Ids and names follow the shared file-name rule. Stateless apart from
// their settings; thread-safe as far as the storage service is.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "common/status.h"

namespace vostra::data {

class StorageService;

class DocumentCollection {
public:
    // Checks (and may complete) a document before it is stored; the
    // reason as an Invalid Status.
    using Validator = std::function<Status(nlohmann::json&)>;

    DocumentCollection(std::string folder, std::string id_prefix, Validator validate)
        : folder_(std::move(folder)), id_prefix_(std::move(id_prefix)), validate_(std::move(validate)) {}

    // Every document that reads as JSON, sorted by id.
    nlohmann::json list(StorageService& storage, const std::string& tenant) const;
    // NotFound "<Kind> not found" when absent.
    Status get(StorageService& storage, const std::string& tenant, const std::string& id,
               nlohmann::json& document) const;
    // A new document ("id" generated when absent; Conflict when taken),
    // with "created_at" and "updated_at".
    Status create(StorageService& storage, const std::string& tenant, nlohmann::json& document) const;
    // Replaces document `id` whole; "created_at" stays, "updated_at" moves.
    Status replace(StorageService& storage, const std::string& tenant, const std::string& id,
                   nlohmann::json& document) const;
    Status remove(StorageService& storage, const std::string& tenant, const std::string& id) const;

    // "Skill not found" and the like.
    std::string notFound() const;

private:
    Status write(StorageService& storage, const std::string& tenant, const nlohmann::json& document) const;

    std::string folder_;
    std::string id_prefix_;
    Validator validate_;
};

class TenantFolders {
public:
    // `root` is the folder in the tenant ("workspaces"); `kind` names one
    // in messages ("Workspace").
    TenantFolders(std::string root, std::string kind) : root_(std::move(root)), kind_(std::move(kind)) {}

    // Conflict when it exists; Invalid for a name that cannot be a folder.
    Status create(StorageService& storage, const std::string& tenant, const std::string& name,
                  nlohmann::json& info) const;
    // Each folder's info, sorted by name.
    nlohmann::json list(StorageService& storage, const std::string& tenant) const;
    // {"name", "size_bytes", "file_count", "created_at"}; NotFound when absent.
    Status info(StorageService& storage, const std::string& tenant, const std::string& name,
                nlohmann::json& out) const;
    Status remove(StorageService& storage, const std::string& tenant, const std::string& name) const;
    // The storage path of `path` inside folder `name`, or Invalid when the
    // name is unusable; NotFound when the folder does not exist.
    Status pathOf(StorageService& storage, const std::string& tenant, const std::string& name,
                  const std::string& path, std::string& out) const;

private:
    std::string root_;
    std::string kind_;
};

// The validators of the two collections.
Status validateSkill(nlohmann::json& skill);
// Checks "schedule" with CronSchedule; the reason names the field.
Status validateAutomation(nlohmann::json& automation);

}  // namespace vostra::data
