// Developer tools next to the data: sandboxes ("/api/v1/sandboxes/": a
// command under bubblewrap over one of the tenant's workspaces), pipelines
// ("/api/v1/cicd/runs": steps over a fresh checkout of a stored repository)
// and log triage ("/api/v1/triage/analyze"). All three answer 503 until the
// operator turns sandboxes on and the host can make namespaces.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/request_context.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "git/repo_records.h"
#include "sandbox/log_triage.h"
#include "sandbox/sandbox_service.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

using nlohmann::json;
using sandbox::RunKind;
using sandbox::SandboxService;

constexpr Log kLog("[Sandboxes] ");
constexpr const char* kNotFound = "Not found";
constexpr const char* kNotEnabled = "Sandboxes are not enabled on this worker";
constexpr std::size_t kDefaultListLimit = 50;
constexpr int kMaxWaitSeconds = 3600;

constexpr KindStatus kStatuses[] = {
    {ErrorKind::Invalid, 400},       {ErrorKind::Refused, 400},      {ErrorKind::NotFound, 404},
    {ErrorKind::Conflict, 409},      {ErrorKind::QuotaExceeded, 429}, {ErrorKind::Unavailable, 503},
};

struct SandboxCall {
    SandboxService& service;
    StorageService* storage;  // null without file storage
    std::string tenant;
    std::string_view path;  // as received, with its query
};

void sendFailure(int fd, const Status& status) {
    sendError(fd, statusFor(kStatuses, status.kind, 500), status.message);
}

std::size_t listLimit(std::string_view path) {
    const std::string given = queryParameter(path, "limit");
    char* end = nullptr;
    const long limit = std::strtol(given.c_str(), &end, 10);
    if (given.empty() || *end != '\0' || limit < 1) return kDefaultListLimit;
    return static_cast<std::size_t>(std::min(limit, 1000L));
}

// "wait": true in a POST body waits for the run's end (bounded by its own
// limits); "?wait=N" on a GET waits up to N seconds.
int waitSeconds(const json& body) {
    if (!body.value("wait", false)) return 0;
    const json& limits = body.value("limits", json::object());
    const int per_run = limits.value("timeout_seconds", 60);
    const std::size_t steps = body.contains("steps") ? body["steps"].size() : 1;
    return static_cast<int>(std::min<long>(kMaxWaitSeconds, per_run * static_cast<long>(steps) + 60));
}

template <RunKind Kind>
void sendRun(SandboxCall& call, const HttpRequest& request, const std::string& id, int status,
             int wait_seconds) {
    json record;
    const Status found = wait_seconds > 0 ? call.service.wait(Kind, call.tenant, id, wait_seconds, record)
                                          : call.service.get(Kind, call.tenant, id, record);
    if (!found) return sendFailure(request.fd, found);
    sendJson(request.fd, status, record);
}

void startSandbox(SandboxCall& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    if (!call.storage) return sendError(request.fd, 503, StorageService::kNotAvailable);
    const json workspace = body->value("workspace", json());
    if (!workspace.is_string() || workspace.get_ref<const std::string&>().empty())
        return sendError(request.fd, 400, "workspace is required");
    std::string host_dir;
    if (Status found = sandbox::workspaceFolder(*call.storage, call.tenant, workspace.get<std::string>(), host_dir); !found)
        return sendFailure(request.fd, found);
    json record;
    if (Status started = call.service.startSandbox(call.tenant, workspace.get<std::string>(), host_dir, *body, record); !started)
        return sendFailure(request.fd, started);
    json waited = *body;
    waited["limits"] = record["limits"];
    sendRun<RunKind::Sandbox>(call, request, record["id"].get<std::string>(), 201, waitSeconds(waited));
}

void startPipeline(SandboxCall& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    json record;
    if (Status started = call.service.startPipeline(call.tenant, *body, record); !started)
        return sendFailure(request.fd, started);
    json waited = *body;
    waited["limits"] = record["limits"];
    sendRun<RunKind::Pipeline>(call, request, record["id"].get<std::string>(), 201, waitSeconds(waited));
}

template <RunKind Kind>
void listRuns(SandboxCall& call, const HttpRequest& request, const RouteParams&) {
    const std::string repository = Kind == RunKind::Pipeline ? queryParameter(call.path, "repository") : "";
    sendJson(request.fd, 200,
             {{"runs", call.service.list(Kind, call.tenant, repository, listLimit(call.path))}});
}

template <RunKind Kind>
void getRun(SandboxCall& call, const HttpRequest& request, const RouteParams& params) {
    const int wait = std::clamp(std::atoi(queryParameter(call.path, "wait").c_str()), 0, 60);
    sendRun<Kind>(call, request, params.get("id"), 200, wait);
}

template <RunKind Kind>
void stopRun(SandboxCall& call, const HttpRequest& request, const RouteParams& params) {
    json record;
    if (Status stopped = call.service.stop(Kind, call.tenant, params.get("id"), record); !stopped)
        return sendFailure(request.fd, stopped);
    sendJson(request.fd, 200, record);
}

void analyzeLog(SandboxCall&, const HttpRequest& request, const RouteParams&) {
    sandbox::TriageOptions options;
    const json body = json::parse(request.body, nullptr, false);
    std::string_view text = request.body;
    if (body.is_object()) {
        if (!body.value("text", json()).is_string())
            return sendError(request.fd, 400, "text must be a string");
        text = body["text"].get_ref<const std::string&>();
        options.context_lines = std::clamp(body.value("context_lines", options.context_lines), 0, 20);
        options.max_groups = std::clamp(body.value("max_groups", options.max_groups), 1, 500);
    }
    sendJson(request.fd, 200, sandbox::triageLog(text, options));
}

constexpr ServiceRoute<SandboxCall> kRoutes[] = {
    {"POST", "/api/v1/sandboxes", startSandbox},
    {"GET", "/api/v1/sandboxes", listRuns<RunKind::Sandbox>},
    {"GET", "/api/v1/sandboxes/{id}", getRun<RunKind::Sandbox>},
    {"DELETE", "/api/v1/sandboxes/{id}", stopRun<RunKind::Sandbox>},
    {"POST", "/api/v1/cicd/runs", startPipeline},
    {"GET", "/api/v1/cicd/runs", listRuns<RunKind::Pipeline>},
    {"GET", "/api/v1/cicd/runs/{id}", getRun<RunKind::Pipeline>},
    {"DELETE", "/api/v1/cicd/runs/{id}", stopRun<RunKind::Pipeline>},
    {"POST", "/api/v1/triage/analyze", analyzeLog},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("sandboxes", kRoutes);

}  // namespace

void DataDaemon::startSandboxes() {
    sandbox::SandboxSettings settings;
    settings.bwrap_path = config_.sandbox_bwrap_path;
    settings.work_path = config_.sandbox_path;
    settings.allow_network = config_.sandbox_allow_network;
    settings.limits.timeout_seconds = config_.sandbox_timeout_seconds;
    settings.limits.memory_bytes = config_.sandbox_memory_bytes;
    settings.limits.max_processes = config_.sandbox_max_processes;
    settings.limits.output_bytes = static_cast<std::size_t>(config_.sandbox_output_bytes);
    settings.max_timeout_seconds = config_.sandbox_max_timeout_seconds;
    settings.max_concurrent = config_.sandbox_max_concurrent;

    // Records go through the storage slot on each write, so that a run
    // never holds the storage service for its whole length.
    sandbox::RunStore store;
    store.write = [this](const std::string& tenant, const std::string& path, const std::string& data) {
        return storage_.with(
            [&](StorageService& storage) {
                StorageWriteRequest write;
                write.tenant_id = tenant;
                write.path = path;
                write.data = data;
                write.content_type = "application/json";
                const StorageResult written = storage.write(write);
                return written.success ? Status::success()
                                       : Status::failure(ErrorKind::Internal, written.error);
            },
            Status::failure(ErrorKind::Unavailable, StorageService::kNotAvailable));
    };
    store.read = [this](const std::string& tenant, const std::string& path, std::string& data) {
        return storage_.with(
            [&](StorageService& storage) {
                StorageReadRequest read;
                read.tenant_id = tenant;
                read.path = path;
                StorageResult result = storage.read(read);
                if (!result.success) return Status::failure(ErrorKind::NotFound, result.error);
                data = std::move(result.data);
                return Status::success();
            },
            Status::failure(ErrorKind::Unavailable, StorageService::kNotAvailable));
    };
    store.list = [this](const std::string& tenant, const std::string& folder) {
        return storage_.with(
            [&](StorageService& storage) {
                StorageListRequest list;
                list.tenant_id = tenant;
                list.path = folder;
                std::vector<std::string> names;
                for (const FileEntry& entry : storage.list(list).entries)
                    if (!entry.is_directory) names.push_back(entry.name);
                return names;
            },
            std::vector<std::string>{});
    };
    store.remove = [this](const std::string& tenant, const std::string& path) {
        storage_.with([&](StorageService& storage) { (void)storage.remove(tenant, path, false); }, [] {});
    };
    auto repositories = [this](const std::string& tenant, const std::string& repository, std::string& git_dir) {
        return git_.with(
            [&](GitService& git) {
                std::string repo_id = repository;
                if (std::string working; git.records.workingCopy(tenant, repository, working)) repo_id = working;
                const std::optional<StoredRepo> repo = git.manager->getRepository(repo_id);
                if (!repo || repo->tenant_id != tenant)
                    return Status::failure(ErrorKind::NotFound, "Repository not found or never synced");
                git_dir = repo->local_path;
                return Status::success();
            },
            Status::failure(ErrorKind::Unavailable, "Git storage is not available"));
    };

    auto service = std::make_unique<SandboxService>(std::move(settings), std::move(store), std::move(repositories));
    if (std::string problem = service->probe(); !problem.empty()) {
        sandboxes_unavailable_ = "Sandboxes are not available on this worker: " + problem;
        kLog.error(sandboxes_unavailable_);
        return;
    }
    std::error_code error;
    std::filesystem::create_directories(config_.sandbox_path, error);
    std::filesystem::permissions(config_.sandbox_path, std::filesystem::perms::owner_all, error);
    kLog.info("Sandboxes enabled (pipeline checkouts in ", config_.sandbox_path, ")");
    sandboxes_.replace(std::move(service));
}

void DataDaemon::stopSandboxes() {
    // Runs end first, so that requests waiting on them return and the slot
    // can be emptied.
    sandboxes_.with([](SandboxService& service) { service.shutdown(); }, [] {});
    sandboxes_.reset();
}

void DataDaemon::handleSandboxesApi(const HttpRequest& request) {
    const HttpRequest routed = withoutQuery(request);
    const std::string tenant = currentTenant().tenant_id;
    sandboxes_.with(
        [&](SandboxService& service) {
            auto serve = [&](StorageService* storage) {
                SandboxCall call{service, storage, tenant, request.path};
                serveRoutes(call, kRoutes, routed, kNotFound);
            };
            storage_.with([&](StorageService& storage) { serve(&storage); }, [&] { serve(nullptr); });
        },
        [&] { sendError(request.fd, 503, sandboxes_unavailable_.empty() ? kNotEnabled : sandboxes_unavailable_); });
}

}  // namespace vostra::data
