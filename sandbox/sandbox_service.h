// SandboxService: the runs a worker makes next to its data, each on a thread
// of its own, recorded in the tenant's file storage so that they outlive the
// daemon (a run the daemon was stopped in reads as "interrupted" after).
//  - Sandbox runs: one command over one of the tenant's workspaces.
//  - Pipeline runs: ordered steps over a fresh checkout of a stored git
//    repository at a branch or commit; each step a sandboxed command over
//    the same checkout, the first failure stopping the rest.
// Requests may lower the operator's limits, never raise them.
//
// Thread-safe. shutdown() (also the destructor) stops every run and waits
// for their threads; the store must stay usable until it returns.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/status.h"
#include "sandbox/sandbox_runner.h"

namespace vostra::data {
class StorageService;
}

namespace vostra::sandbox {

struct SandboxSettings {
    std::string bwrap_path = "bwrap";
    std::string work_path;  // pipeline checkouts, one folder per run
    bool allow_network = false;
    SandboxLimits limits;  // the operator's maxima; timeout_seconds is the default
    int max_timeout_seconds = 3600;
    int max_concurrent = 4;
    std::size_t max_records = 200;  // per tenant and kind; the oldest finished go first
};

// Where run records live: the tenant's file storage, reached through the
// owner so that a record write never holds the storage across a run.
struct RunStore {
    std::function<Status(const std::string& tenant, const std::string& path, const std::string& data)> write;
    std::function<Status(const std::string& tenant, const std::string& path, std::string& data)> read;
    std::function<std::vector<std::string>(const std::string& tenant, const std::string& folder)> list;
    std::function<void(const std::string& tenant, const std::string& path)> remove;
};

// The git folder of a tenant's stored repository; NotFound when it has none.
using RepositoryLocator =
    std::function<Status(const std::string& tenant, const std::string& repository, std::string& git_dir)>;

enum class RunKind { Sandbox, Pipeline };

// The host folder of workspace `name` of `tenant`: a real folder (no link on
// the way) inside the tenant's "workspaces". NotFound "Workspace not found";
// Invalid when the storage backend keeps no local files.
Status workspaceFolder(data::StorageService& storage, const std::string& tenant,
                       const std::string& name, std::string& host_dir);

class SandboxService {
public:
    SandboxService(SandboxSettings settings, RunStore store, RepositoryLocator repositories);
    ~SandboxService();
    SandboxService(const SandboxService&) = delete;
    SandboxService& operator=(const SandboxService&) = delete;

    // Empty when sandboxes run on this host, else the reason (see
    // SandboxRunner::probe).
    std::string probe() const { return runner_.probe(); }

    // Starts `body` {"command": [...], "timeout_seconds", "memory_bytes",
    // "max_processes", "output_bytes", "network", "env": {...}} over
    // `host_dir`; `record` is the run as recorded ("status": "running").
    // Invalid for a bad body, Refused for network when the operator does not
    // allow it, QuotaExceeded when max_concurrent runs are going.
    Status startSandbox(const std::string& tenant, const std::string& workspace,
                        const std::string& host_dir, const nlohmann::json& body, nlohmann::json& record);
    // Starts `body` {"repository", "ref", "steps": [{"name", "command"}],
    // "timeout_seconds" (per step), "network"}; as startSandbox. NotFound
    // for a repository the locator does not know.
    Status startPipeline(const std::string& tenant, const nlohmann::json& body, nlohmann::json& record);

    // The run as it stands; NotFound "Run not found".
    Status get(RunKind kind, const std::string& tenant, const std::string& id, nlohmann::json& record);
    // Waits up to `seconds` for a running run to end, then answers as get().
    Status wait(RunKind kind, const std::string& tenant, const std::string& id, int seconds,
                nlohmann::json& record);
    // The tenant's runs, newest first, without their output; pipelines of
    // one repository when `repository` is not empty.
    nlohmann::json list(RunKind kind, const std::string& tenant, const std::string& repository,
                        std::size_t limit);
    // Asks a running run to stop and waits for it to end. Conflict "Run is
    // not running" for a finished one.
    Status stop(RunKind kind, const std::string& tenant, const std::string& id, nlohmann::json& record);

    void shutdown();

private:
    struct ActiveRun;

    Status limitsFrom(const nlohmann::json& body, SandboxLimits& limits, bool& network) const;
    Status admit(RunKind kind, const std::string& tenant, nlohmann::json record,
                 std::function<void(ActiveRun&)> work, nlohmann::json& out);
    void save(ActiveRun& run);
    void prune(RunKind kind, const std::string& tenant);
    std::shared_ptr<ActiveRun> active(RunKind kind, const std::string& tenant, const std::string& id) const;
    void runSandbox(ActiveRun& run, SandboxCommand command);
    void runPipeline(ActiveRun& run, std::string git_dir, std::string ref,
                     std::vector<std::pair<std::string, std::vector<std::string>>> steps,
                     SandboxLimits limits, bool network);

    SandboxSettings settings_;
    RunStore store_;
    RepositoryLocator repositories_;
    SandboxRunner runner_;

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::map<std::string, std::shared_ptr<ActiveRun>> active_;
    int threads_ = 0;
    bool stopping_ = false;
};

}  // namespace vostra::sandbox
