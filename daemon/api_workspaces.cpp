// What agents remember and share, per tenant, in file storage: swarms
// ("/api/v1/swarms/": goal, plan, result, task outputs, artifacts),
// workspaces and outputs (named folders of files), skills and automations
// (JSON documents; automations carry a cron schedule and report their next
// run, but this worker never runs them). The tenant comes from the request
// headers; the storage service's access and quota rules apply throughout.
#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>

#include "agents/cron_schedule.h"
#include "agents/tenant_collections.h"
#include "common/file_name.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/request_context.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr const char* kNotFound = "Not found";

// As in the storage API: the client's faults, a quota included, are 400.
constexpr KindStatus kStatuses[] = {
    {ErrorKind::Invalid, 400},       {ErrorKind::Refused, 400},  {ErrorKind::NotFound, 404},
    {ErrorKind::Conflict, 409},      {ErrorKind::QuotaExceeded, 400},
    {ErrorKind::Unavailable, 503},
};

const DocumentCollection kSkills("skills", "skill-", validateSkill);
const DocumentCollection kAutomations("automations", "auto-", validateAutomation);
const TenantFolders kWorkspaces("workspaces", "Workspace");
const TenantFolders kOutputs("outputs", "Output");

struct Call {
    StorageService& storage;
    std::string tenant;
    std::string_view path;  // as received, with its query
};

void sendFailure(int fd, const Status& status) {
    sendError(fd, statusFor(kStatuses, status.kind, 500), status.message);
}

Status fromStorage(const StorageResult& result) {
    if (result.success) return Status::success();
    return Status::failure(result.kind == ErrorKind::None ? ErrorKind::Internal : result.kind,
                           result.error);
}

// ---- swarms ----

// The swarm id, or false after answering 400.
bool swarmId(const HttpRequest& request, const RouteParams& params, std::string& id) {
    id = params.get("swarm");
    if (std::string problem = fileNameProblem(id); !problem.empty()) {
        sendError(request.fd, 400, "Invalid swarm id: " + problem);
        return false;
    }
    return true;
}

void listSwarms(Call& call, const HttpRequest& request, const RouteParams&) {
    json swarms = json::array();
    for (const FileEntry& entry : call.storage.listSwarms(call.tenant).entries)
        if (entry.is_directory) swarms.push_back(entry.name);
    sendJson(request.fd, 200, {{"swarms", swarms}});
}

void deleteSwarm(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    if (Status removed = fromStorage(call.storage.deleteSwarm(call.tenant, id)); !removed)
        return sendFailure(request.fd, removed);
    sendJson(request.fd, 200, {{"status", "deleted"}, {"swarm_id", id}});
}

// Reads a JSON document of the swarm and answers it as it was stored.
void sendSwarmDocument(Call& call, const HttpRequest& request, const std::string& path) {
    StorageReadRequest read;
    read.tenant_id = call.tenant;
    read.path = path;
    const StorageResult result = call.storage.read(read);
    if (!result.success) {
        const Status status = fromStorage(result);
        return sendError(request.fd, statusFor(kStatuses, status.kind, 500),
                         status.kind == ErrorKind::NotFound ? "Swarm document not found" : status.message);
    }
    sendResponse(request.fd, 200, result.data, "application/json");
}

template <StorageResult (StorageService::*Store)(const std::string&, const std::string&, const json&)>
void putDocument(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    const json document = json::parse(request.body, nullptr, false);
    if (document.is_discarded()) return sendError(request.fd, 400, "Request body must be JSON");
    if (Status stored = fromStorage((call.storage.*Store)(call.tenant, id, document)); !stored)
        return sendFailure(request.fd, stored);
    sendJson(request.fd, 200, {{"status", "stored"}, {"swarm_id", id}});
}

// GET of "goal", "plan" or "result", the last segment of the pattern.
void getDocument(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    const std::string_view path = pathWithoutQuery(request.path);
    const std::string name(path.substr(path.rfind('/') + 1));
    sendSwarmDocument(call, request, "swarms/" + id + "/" + name + ".json");
}

void putTask(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    const std::string task = params.get("task");
    if (std::string problem = fileNameProblem(task); !problem.empty())
        return sendError(request.fd, 400, "Invalid task id: " + problem);
    const json output = json::parse(request.body, nullptr, false);
    if (output.is_discarded()) return sendError(request.fd, 400, "Request body must be JSON");
    if (Status stored = fromStorage(call.storage.storeTaskOutput(call.tenant, id, task, output)); !stored)
        return sendFailure(request.fd, stored);
    sendJson(request.fd, 200, {{"status", "stored"}, {"swarm_id", id}, {"task_id", task}});
}

void getTask(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    const std::string task = params.get("task");
    if (!fileNameProblem(task).empty()) return sendError(request.fd, 404, "Swarm document not found");
    sendSwarmDocument(call, request, "swarms/" + id + "/tasks/" + task + ".json");
}

// The swarm's files below `folder`, or an empty list when there are none.
json swarmFiles(Call& call, const std::string& folder) {
    StorageListRequest list;
    list.tenant_id = call.tenant;
    list.path = folder;
    list.limit = 100000;
    json files = json::array();
    for (const FileEntry& entry : call.storage.list(list).entries)
        if (!entry.is_directory) files.push_back(entry.toJson());
    return files;
}

void listTasks(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    json tasks = json::array();
    for (const json& file : swarmFiles(call, "swarms/" + id + "/tasks")) {
        const std::string name = file["name"];
        if (name.ends_with(".json")) tasks.push_back(name.substr(0, name.size() - 5));
    }
    sendJson(request.fd, 200, {{"swarm_id", id}, {"tasks", tasks}});
}

void listArtifacts(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    sendJson(request.fd, 200,
             {{"swarm_id", id}, {"artifacts", swarmFiles(call, "swarms/" + id + "/artifacts")}});
}

void putArtifact(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    StorageWriteRequest write;
    if (std::string problem = write.readBody(std::move(request.body)); !problem.empty())
        return sendError(request.fd, 400, problem);
    const StorageResult stored =
        call.storage.storeArtifact(call.tenant, id, params.get("name"), write.data, write.content_type);
    if (!stored.success) return sendFailure(request.fd, fromStorage(stored));
    sendJson(request.fd, 201, stored.toJson());
}

void getArtifact(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string id;
    if (!swarmId(request, params, id)) return;
    StorageReadRequest read;
    read.tenant_id = call.tenant;
    read.path = "swarms/" + id + "/artifacts/" + params.get("name");
    const StorageResult result = call.storage.read(read);
    if (!result.success) return sendFailure(request.fd, fromStorage(result));
    sendResponse(request.fd, 200, result.data,
                 result.entry && !result.entry->content_type.empty() ? result.entry->content_type
                                                                    : "application/octet-stream");
}

constexpr ServiceRoute<Call> kSwarmRoutes[] = {
    {"GET", "/api/v1/swarms/", listSwarms},
    {"DELETE", "/api/v1/swarms/{swarm}", deleteSwarm},
    {"PUT", "/api/v1/swarms/{swarm}/goal", putDocument<&StorageService::storeSwarmGoal>},
    {"GET", "/api/v1/swarms/{swarm}/goal", getDocument},
    {"PUT", "/api/v1/swarms/{swarm}/plan", putDocument<&StorageService::storeSwarmPlan>},
    {"GET", "/api/v1/swarms/{swarm}/plan", getDocument},
    {"PUT", "/api/v1/swarms/{swarm}/result", putDocument<&StorageService::storeSwarmResult>},
    {"GET", "/api/v1/swarms/{swarm}/result", getDocument},
    {"GET", "/api/v1/swarms/{swarm}/tasks", listTasks},
    {"PUT", "/api/v1/swarms/{swarm}/tasks/{task}", putTask},
    {"GET", "/api/v1/swarms/{swarm}/tasks/{task}", getTask},
    {"GET", "/api/v1/swarms/{swarm}/artifacts", listArtifacts},
    {"PUT", "/api/v1/swarms/{swarm}/artifacts/{name+}", putArtifact},
    {"GET", "/api/v1/swarms/{swarm}/artifacts/{name+}", getArtifact},
};

// ---- workspaces and outputs ----

template <const TenantFolders& Folders>
void listFolders(Call& call, const HttpRequest& request, const RouteParams&) {
    const std::string_view path = pathWithoutQuery(request.path);
    sendJson(request.fd, 200,
             {{std::string(path.substr(path.rfind('/') + 1)), Folders.list(call.storage, call.tenant)}});
}

template <const TenantFolders& Folders>
void createFolder(Call& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    json info;
    const Status made = Folders.create(call.storage, call.tenant, body->value("name", ""), info);
    if (!made) return sendFailure(request.fd, made);
    sendJson(request.fd, 201, info);
}

template <const TenantFolders& Folders>
void folderInfo(Call& call, const HttpRequest& request, const RouteParams& params) {
    json info;
    if (Status found = Folders.info(call.storage, call.tenant, params.get("name"), info); !found)
        return sendFailure(request.fd, found);
    sendJson(request.fd, 200, info);
}

template <const TenantFolders& Folders>
void deleteFolder(Call& call, const HttpRequest& request, const RouteParams& params) {
    if (Status removed = Folders.remove(call.storage, call.tenant, params.get("name")); !removed)
        return sendFailure(request.fd, removed);
    sendJson(request.fd, 200, {{"status", "deleted"}, {"name", params.get("name")}});
}

// A path naming a file is read, written or removed; an empty one, or one
// ending in "/", lists a folder.
template <const TenantFolders& Folders>
void folderFile(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::string path;
    const std::string inside = params.get("path");
    if (Status found = Folders.pathOf(call.storage, call.tenant, params.get("name"), inside, path); !found)
        return sendFailure(request.fd, found);
    if (request.method == "PUT") {
        StorageWriteRequest write;
        write.tenant_id = call.tenant;
        write.path = path;
        if (std::string problem = write.readBody(std::move(request.body)); !problem.empty())
            return sendError(request.fd, 400, problem);
        const StorageResult written = call.storage.write(write);
        if (!written.success) return sendFailure(request.fd, fromStorage(written));
        return sendJson(request.fd, 201, written.toJson());
    }
    if (request.method == "DELETE") {
        if (inside.empty()) return sendError(request.fd, 400, "A file path is required");
        const StorageResult removed = call.storage.remove(call.tenant, path, true);
        if (!removed.success) return sendFailure(request.fd, fromStorage(removed));
        return sendJson(request.fd, 200, removed.toJson());
    }
    if (inside.empty() || inside.ends_with('/')) {
        StorageListRequest list;
        list.tenant_id = call.tenant;
        list.path = path;
        const StorageResult listing = call.storage.list(list);
        if (!listing.success) return sendFailure(request.fd, fromStorage(listing));
        return sendJson(request.fd, 200, listing.toJson());
    }
    StorageReadRequest read;
    read.tenant_id = call.tenant;
    read.path = path;
    const StorageResult result = call.storage.read(read);
    if (!result.success) return sendFailure(request.fd, fromStorage(result));
    sendResponse(request.fd, 200, result.data,
                 result.entry && !result.entry->content_type.empty() ? result.entry->content_type
                                                                    : "application/octet-stream");
}

template <const TenantFolders& Folders>
struct FolderRoutes {
    static constexpr ServiceRoute<Call> kRows[] = {
        {"GET", "/api/v1/{area}", listFolders<Folders>},
        {"POST", "/api/v1/{area}", createFolder<Folders>},
        {"GET", "/api/v1/{area}/{name}", folderInfo<Folders>},
        {"DELETE", "/api/v1/{area}/{name}", deleteFolder<Folders>},
        {"GET", "/api/v1/{area}/{name}/files/{path*}", folderFile<Folders>},
        {"PUT", "/api/v1/{area}/{name}/files/{path*}", folderFile<Folders>},
        {"DELETE", "/api/v1/{area}/{name}/files/{path*}", folderFile<Folders>},
    };
};

// ---- skills and automations ----

// "after" as ISO-8601 UTC ("2026-01-01T00:00:00Z"), else now.
std::chrono::system_clock::time_point afterTime(const Call& call) {
    const std::string text = queryParameter(call.path, "after");
    std::tm parts{};
    if (!text.empty() && strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts))
        return std::chrono::system_clock::from_time_t(timegm(&parts));
    return std::chrono::system_clock::now();
}

// The document as answered: an automation with its next run.
json answered(const DocumentCollection& collection, const Call& call, json document) {
    if (&collection != &kAutomations) return document;
    std::string error;
    const auto schedule = CronSchedule::parse(document.value("schedule", ""), error);
    const auto next = schedule ? schedule->nextRun(afterTime(call)) : std::nullopt;
    document["next_run"] = next ? json(isoTime(*next)) : json(nullptr);
    return document;
}

template <const DocumentCollection& Collection>
void listDocuments(Call& call, const HttpRequest& request, const RouteParams&) {
    json documents = json::array();
    for (json& document : Collection.list(call.storage, call.tenant))
        documents.push_back(answered(Collection, call, std::move(document)));
    const std::string_view path = pathWithoutQuery(request.path);
    sendJson(request.fd, 200, {{std::string(path.substr(path.rfind('/') + 1)), documents}});
}

template <const DocumentCollection& Collection>
void createDocument(Call& call, const HttpRequest& request, const RouteParams&) {
    std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    if (Status made = Collection.create(call.storage, call.tenant, *body); !made)
        return sendFailure(request.fd, made);
    sendJson(request.fd, 201, answered(Collection, call, std::move(*body)));
}

template <const DocumentCollection& Collection>
void getDocumentById(Call& call, const HttpRequest& request, const RouteParams& params) {
    json document;
    if (Status found = Collection.get(call.storage, call.tenant, params.get("id"), document); !found)
        return sendFailure(request.fd, found);
    sendJson(request.fd, 200, answered(Collection, call, std::move(document)));
}

template <const DocumentCollection& Collection>
void replaceDocument(Call& call, const HttpRequest& request, const RouteParams& params) {
    std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    if (Status replaced = Collection.replace(call.storage, call.tenant, params.get("id"), *body); !replaced)
        return sendFailure(request.fd, replaced);
    sendJson(request.fd, 200, answered(Collection, call, std::move(*body)));
}

template <const DocumentCollection& Collection>
void deleteDocument(Call& call, const HttpRequest& request, const RouteParams& params) {
    if (Status removed = Collection.remove(call.storage, call.tenant, params.get("id")); !removed)
        return sendFailure(request.fd, removed);
    sendJson(request.fd, 200, {{"status", "deleted"}, {"id", params.get("id")}});
}

template <const DocumentCollection& Collection>
struct DocumentRoutes {
    static constexpr ServiceRoute<Call> kRows[] = {
        {"GET", "/api/v1/{area}", listDocuments<Collection>},
        {"POST", "/api/v1/{area}", createDocument<Collection>},
        {"GET", "/api/v1/{area}/{id}", getDocumentById<Collection>},
        {"PUT", "/api/v1/{area}/{id}", replaceDocument<Collection>},
        {"DELETE", "/api/v1/{area}/{id}", deleteDocument<Collection>},
    };
};

template <std::size_t N>
void serveTenantArea(const vostra::ServiceSlot<StorageService>& slot, const HttpRequest& request,
                     const ServiceRoute<Call> (&rows)[N]) {
    const HttpRequest routed = withoutQuery(request);
    slot.with(
        [&](StorageService& storage) {
            Call call{storage, currentTenant().tenant_id, request.path};
            serveRoutes(call, rows, routed, kNotFound);
        },
        [&] { sendError(request.fd, 503, StorageService::kNotAvailable); });
}

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("swarms", kSwarmRoutes);
[[maybe_unused]] const bool kListed1 = listRoutes("workspaces", FolderRoutes<kWorkspaces>::kRows);
[[maybe_unused]] const bool kListed2 = listRoutes("outputs", FolderRoutes<kOutputs>::kRows);
[[maybe_unused]] const bool kListed3 = listRoutes("skills", DocumentRoutes<kSkills>::kRows);
[[maybe_unused]] const bool kListed4 = listRoutes("automations", DocumentRoutes<kAutomations>::kRows);

}  // namespace

void DataDaemon::handleSwarms(const HttpRequest& request) { serveTenantArea(storage_, request, kSwarmRoutes); }
void DataDaemon::handleWorkspacesApi(const HttpRequest& request) {
    serveTenantArea(storage_, request, FolderRoutes<kWorkspaces>::kRows);
}
void DataDaemon::handleOutputsApi(const HttpRequest& request) {
    serveTenantArea(storage_, request, FolderRoutes<kOutputs>::kRows);
}
void DataDaemon::handleSkillsApi(const HttpRequest& request) {
    serveTenantArea(storage_, request, DocumentRoutes<kSkills>::kRows);
}
void DataDaemon::handleAutomationsApi(const HttpRequest& request) {
    serveTenantArea(storage_, request, DocumentRoutes<kAutomations>::kRows);
}

}  // namespace vostra::data
