#include "sandbox/sandbox_service.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stop_token>
#include <thread>

#include "agents/cron_schedule.h"
#include "common/file_name.h"
#include "common/log.h"
#include "common/random_id.h"
#include "common/sanitize_utf8.h"
#include "git/git_runner.h"
#include "storage/storage_service.h"

namespace vostra::sandbox {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr Log kLog("[Sandboxes] ");

constexpr const char* kRunNotFound = "Run not found";
constexpr std::size_t kMaxArguments = 256;
constexpr std::size_t kMaxEnv = 64;
constexpr std::size_t kMaxSteps = 20;
// A pipeline record holds every step's output; each is kept smaller than
// a lone run's so that the record stays a readable size.
constexpr std::size_t kStepOutputBytes = 256u << 10;
constexpr int kCheckoutTimeoutSeconds = 600;
constexpr int64_t kMinMemoryBytes = 16LL << 20;

const char* folderOf(RunKind kind) { return kind == RunKind::Sandbox ? "sandboxes" : "pipelines"; }
std::string recordPath(RunKind kind, const std::string& id) {
    std::string path = folderOf(kind);
    path += '/';
    path += id;
    path += ".json";
    return path;
}

std::string now() { return data::isoTime(std::chrono::system_clock::now()); }

Status invalid(std::string message) { return Status::failure(ErrorKind::Invalid, std::move(message)); }

// A list of strings fit for execve: no NUL inside, the program named.
Status readCommand(const json& value, const char* field, std::vector<std::string>& argv) {
    std::string problem = std::string(field) + " must be a non-empty array of strings";
    if (!value.is_array() || value.empty() || value.size() > kMaxArguments) return invalid(problem);
    for (const json& arg : value) {
        if (!arg.is_string()) return invalid(problem);
        const std::string& text = arg.get_ref<const std::string&>();
        if (text.find('\0') != std::string::npos) return invalid(std::string(field) + " must not hold NUL characters");
        argv.push_back(text);
    }
    if (argv.front().empty()) return invalid(std::string(field) + " must name a program");
    return Status::success();
}

bool isEnvName(const std::string& name) {
    if (name.empty() || std::isdigit(static_cast<unsigned char>(name[0]))) return false;
    return std::all_of(name.begin(), name.end(),
                       [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; });
}

// Reads an optional integer in [low, high]; the message names the range.
template <typename Number>
Status readBounded(const json& body, const char* key, Number low, Number high, Number& value) {
    if (!body.contains(key)) return Status::success();
    const json& given = body[key];
    if (!given.is_number_integer() || given.get<int64_t>() < static_cast<int64_t>(low) ||
        given.get<int64_t>() > static_cast<int64_t>(high)) {
        std::string message = key;
        message += " must be an integer from ";
        message += std::to_string(low);
        message += " to ";
        message += std::to_string(high);
        return invalid(std::move(message));
    }
    value = static_cast<Number>(given.get<int64_t>());
    return Status::success();
}

json limitsJson(const SandboxLimits& limits) {
    return {{"timeout_seconds", limits.timeout_seconds},
            {"memory_bytes", limits.memory_bytes},
            {"max_processes", limits.max_processes},
            {"output_bytes", limits.output_bytes}};
}

// The result of one sandboxed command, into a run or a step record.
void applyOutcome(json& target, const SandboxOutcome& outcome) {
    const char* status = !outcome.started       ? "error"
                         : outcome.timed_out    ? "timed_out"
                         : outcome.cancelled    ? "stopped"
                         : outcome.exit_code == 0 ? "succeeded"
                                                  : "failed";
    target["status"] = status;
    target["exit_code"] = outcome.started ? json(outcome.exit_code) : json(nullptr);
    target["duration_ms"] = outcome.duration_ms;
    target["stdout"] = sanitize_utf8(outcome.stdout_text);
    target["stderr"] = sanitize_utf8(outcome.stderr_text);
    target["stdout_truncated_bytes"] = outcome.stdout_dropped;
    target["stderr_truncated_bytes"] = outcome.stderr_dropped;
    if (!outcome.error.empty()) target["error"] = outcome.error;
    if (outcome.started)
        target["limits_held_by"] = {{"memory", outcome.memory_limit}, {"processes", outcome.process_limit}};
}

// A listing entry: the record without any output.
json summaryOf(json record) {
    record.erase("stdout");
    record.erase("stderr");
    if (record.contains("steps") && record["steps"].is_array())
        for (json& step : record["steps"]) {
            step.erase("stdout");
            step.erase("stderr");
        }
    return record;
}

// A record the daemon stopped in the middle of: nobody is running it now.
bool markInterrupted(json& record) {
    if (record.value("status", "") != "running") return false;
    record["status"] = "interrupted";
    if (record.contains("steps") && record["steps"].is_array())
        for (json& step : record["steps"])
            if (step.value("status", "") == "running" || step.value("status", "") == "pending")
                step["status"] = "interrupted";
    return true;
}

}  // namespace

struct SandboxService::ActiveRun {
    RunKind kind;
    std::string tenant;
    std::string id;
    std::stop_source stop;
    std::mutex mutex;  // guards record and done
    json record;
    bool done = false;
    std::condition_variable ended;

    json snapshot() {
        std::lock_guard lock(mutex);
        return record;
    }
};

Status workspaceFolder(data::StorageService& storage, const std::string& tenant,
                       const std::string& name, std::string& host_dir) {
    const Status not_found = Status::failure(ErrorKind::NotFound, "Workspace not found");
    if (!fileNameProblem(name).empty()) return not_found;
    const std::string path = "workspaces/" + name;
    const data::StorageResult folder = storage.stat(tenant, path);
    if (!folder.success && folder.error.starts_with("Tenant"))
        return Status::failure(folder.kind == ErrorKind::None ? ErrorKind::NotFound : folder.kind, folder.error);
    if (!folder.success || !folder.entry || !folder.entry->is_directory) return not_found;
    const std::string absolute = storage.getAbsolutePath(tenant, path);
    if (absolute.empty() || absolute.front() != '/')
        return invalid("Sandboxes need the filesystem storage backend");
    std::error_code error;
    const fs::path real = fs::canonical(absolute, error);
    // Anything but the folder itself (a link swapped in on the way) would
    // mount some other part of the host into the sandbox.
    if (error || real != fs::path(absolute).lexically_normal() || !fs::is_directory(real, error))
        return Status::failure(ErrorKind::Refused, "Workspace folder is not a plain folder");
    host_dir = real.string();
    return Status::success();
}

SandboxService::SandboxService(SandboxSettings settings, RunStore store, RepositoryLocator repositories)
    : settings_(std::move(settings)),
      store_(std::move(store)),
      repositories_(std::move(repositories)),
      runner_(settings_.bwrap_path) {}

SandboxService::~SandboxService() { shutdown(); }

void SandboxService::shutdown() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    for (auto& [id, run] : active_) run->stop.request_stop();
    idle_.wait(lock, [&] { return threads_ == 0; });
}

Status SandboxService::limitsFrom(const json& body, SandboxLimits& limits, bool& network) const {
    const SandboxLimits& most = settings_.limits;
    limits = most;
    limits.timeout_seconds = std::min(most.timeout_seconds, settings_.max_timeout_seconds);
    if (Status read = readBounded(body, "timeout_seconds", 1, settings_.max_timeout_seconds, limits.timeout_seconds); !read)
        return read;
    if (Status read = readBounded(body, "memory_bytes", std::min(kMinMemoryBytes, most.memory_bytes),
                                  most.memory_bytes, limits.memory_bytes);
        !read)
        return read;
    if (Status read = readBounded(body, "max_processes", 1, most.max_processes, limits.max_processes); !read)
        return read;
    if (Status read = readBounded(body, "output_bytes", std::size_t{0}, most.output_bytes, limits.output_bytes); !read)
        return read;
    network = false;
    if (body.contains("network")) {
        if (!body["network"].is_boolean()) return invalid("network must be a boolean");
        network = body["network"].get<bool>();
    }
    if (network && !settings_.allow_network)
        return Status::failure(ErrorKind::Refused, "Network access is not allowed for sandboxes on this worker");
    return Status::success();
}

Status SandboxService::startSandbox(const std::string& tenant, const std::string& workspace,
                                    const std::string& host_dir, const json& body, json& record) {
    if (!body.is_object()) return invalid("Request body must be a JSON object");
    SandboxCommand command;
    if (Status read = readCommand(body.value("command", json()), "command", command.argv); !read) return read;
    if (Status read = limitsFrom(body, command.limits, command.network); !read) return read;
    if (body.contains("env")) {
        const json& env = body["env"];
        if (!env.is_object() || env.size() > kMaxEnv)
            return invalid("env must be an object of at most 64 strings");
        for (const auto& [name, value] : env.items()) {
            if (!isEnvName(name) || !value.is_string() ||
                value.get_ref<const std::string&>().find('\0') != std::string::npos)
                return invalid("env must map variable names to strings");
            command.env.emplace_back(name, value.get<std::string>());
        }
    }
    command.host_dir = host_dir;
    json fresh = {{"kind", "sandbox"},
                  {"tenant_id", tenant},
                  {"workspace", workspace},
                  {"command", command.argv},
                  {"network", command.network},
                  {"limits", limitsJson(command.limits)}};
    return admit(RunKind::Sandbox, tenant, std::move(fresh),
                 [this, command = std::move(command)](ActiveRun& run) { runSandbox(run, command); }, record);
}

Status SandboxService::startPipeline(const std::string& tenant, const json& body, json& record) {
    if (!body.is_object()) return invalid("Request body must be a JSON object");
    const json repository = body.value("repository", json());
    if (!repository.is_string() || repository.get_ref<const std::string&>().empty())
        return invalid("repository is required");
    const json ref_value = body.value("ref", json("main"));
    if (!ref_value.is_string()) return invalid("ref must be a string");
    const std::string ref = ref_value.get<std::string>();
    if (!git::isValidBranchName(ref)) return invalid("ref is not a valid branch, tag or commit");
    const json steps_value = body.value("steps", json());
    if (!steps_value.is_array() || steps_value.empty() || steps_value.size() > kMaxSteps)
        return invalid("steps must be an array of 1 to 20 steps");
    std::vector<std::pair<std::string, std::vector<std::string>>> steps;
    json step_records = json::array();
    for (const json& step : steps_value) {
        if (!step.is_object() || !step.value("name", json()).is_string() ||
            step["name"].get_ref<const std::string&>().empty())
            return invalid("Each step needs a name and a command");
        std::vector<std::string> argv;
        if (Status read = readCommand(step.value("command", json()), "command", argv); !read) return read;
        step_records.push_back({{"name", step["name"]}, {"command", argv}, {"status", "pending"}});
        steps.emplace_back(step["name"].get<std::string>(), std::move(argv));
    }
    SandboxLimits limits;
    bool network = false;
    if (Status read = limitsFrom(body, limits, network); !read) return read;
    limits.output_bytes = std::min(limits.output_bytes, kStepOutputBytes);
    std::string git_dir;
    if (Status found = repositories_(tenant, repository.get<std::string>(), git_dir); !found) return found;

    json fresh = {{"kind", "pipeline"},     {"tenant_id", tenant}, {"repository", repository},
                  {"ref", ref},             {"commit", nullptr},   {"network", network},
                  {"limits", limitsJson(limits)}, {"steps", std::move(step_records)}};
    return admit(RunKind::Pipeline, tenant, std::move(fresh),
                 [this, git_dir, ref, steps = std::move(steps), limits, network](ActiveRun& run) {
                     runPipeline(run, git_dir, ref, steps, limits, network);
                 },
                 record);
}

Status SandboxService::admit(RunKind kind, const std::string& tenant, json record,
                             std::function<void(ActiveRun&)> work, json& out) {
    auto run = std::make_shared<ActiveRun>();
    run->kind = kind;
    run->tenant = tenant;
    run->id = (kind == RunKind::Sandbox ? "sbx-" : "ci-") + randomHex(16);
    record["id"] = run->id;
    record["status"] = "running";
    record["started_at"] = now();
    record["finished_at"] = nullptr;
    run->record = std::move(record);
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return Status::failure(ErrorKind::Unavailable, "Sandboxes are shutting down");
        if (active_.size() >= static_cast<std::size_t>(settings_.max_concurrent))
            return Status::failure(ErrorKind::QuotaExceeded,
                                   "Too many runs at once (at most " +
                                       std::to_string(settings_.max_concurrent) + ")");
        active_[run->id] = run;
        ++threads_;
    }
    out = run->record;
    // Recorded before it starts, so that a crash leaves a trace.
    if (Status written = store_.write(tenant, recordPath(kind, run->id), out.dump()); !written) {
        std::lock_guard lock(mutex_);
        active_.erase(run->id);
        --threads_;
        idle_.notify_all();
        return written;
    }
    std::thread([this, run, work = std::move(work)] {
        const auto began = std::chrono::steady_clock::now();
        try {
            work(*run);
        } catch (const std::exception& e) {
            std::lock_guard lock(run->mutex);
            run->record["status"] = "error";
            run->record["error"] = e.what();
        }
        {
            std::lock_guard lock(run->mutex);
            run->record["finished_at"] = now();
            if (run->kind == RunKind::Pipeline)
                run->record["duration_ms"] = std::chrono::duration_cast<std::chrono::milliseconds>(
                                                 std::chrono::steady_clock::now() - began)
                                                 .count();
        }
        save(*run);
        {
            std::lock_guard lock(run->mutex);
            run->done = true;
        }
        run->ended.notify_all();
        prune(run->kind, run->tenant);
        std::lock_guard lock(mutex_);
        active_.erase(run->id);
        --threads_;
        idle_.notify_all();
    }).detach();
    return Status::success();
}

void SandboxService::save(ActiveRun& run) {
    const json record = run.snapshot();
    if (Status written = store_.write(run.tenant, recordPath(run.kind, run.id), record.dump()); !written)
        kLog.error("Could not record run ", run.id, ": ", written.message);
}

void SandboxService::prune(RunKind kind, const std::string& tenant) {
    const std::vector<std::string> names = store_.list(tenant, folderOf(kind));
    if (names.size() <= settings_.max_records) return;
    std::vector<std::pair<std::string, std::string>> finished;  // started_at, path
    for (const std::string& name : names) {
        std::string data;
        const std::string path = std::string(folderOf(kind)) + "/" + name;
        if (!store_.read(tenant, path, data)) continue;
        const json record = json::parse(data, nullptr, false);
        if (!record.is_object() || record.value("status", "") == "running") continue;
        finished.emplace_back(record.value("started_at", ""), path);
    }
    std::sort(finished.begin(), finished.end());
    const std::size_t excess = names.size() - settings_.max_records;
    for (std::size_t i = 0; i < excess && i < finished.size(); ++i) store_.remove(tenant, finished[i].second);
}

std::shared_ptr<SandboxService::ActiveRun> SandboxService::active(RunKind kind, const std::string& tenant,
                                                                  const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto found = active_.find(id);
    if (found == active_.end() || found->second->kind != kind || found->second->tenant != tenant) return nullptr;
    return found->second;
}

Status SandboxService::get(RunKind kind, const std::string& tenant, const std::string& id, json& record) {
    const Status not_found = Status::failure(ErrorKind::NotFound, kRunNotFound);
    if (!fileNameProblem(id).empty()) return not_found;
    if (auto run = active(kind, tenant, id)) {
        record = run->snapshot();
        return Status::success();
    }
    std::string data;
    if (!store_.read(tenant, recordPath(kind, id), data)) return not_found;
    record = json::parse(data, nullptr, false);
    if (!record.is_object()) return Status::failure(ErrorKind::Internal, "Run record is not readable");
    // The thread may have ended between the two looks; only a record no
    // thread will write again is marked.
    if (record.value("status", "") == "running" && !active(kind, tenant, id)) {
        if (store_.read(tenant, recordPath(kind, id), data)) record = json::parse(data, nullptr, false);
        if (record.is_object() && markInterrupted(record))
            (void)store_.write(tenant, recordPath(kind, id), record.dump());
    }
    return Status::success();
}

Status SandboxService::wait(RunKind kind, const std::string& tenant, const std::string& id, int seconds,
                            json& record) {
    if (auto run = active(kind, tenant, id)) {
        std::unique_lock lock(run->mutex);
        run->ended.wait_for(lock, std::chrono::seconds(seconds), [&] { return run->done; });
    }
    return get(kind, tenant, id, record);
}

Status SandboxService::stop(RunKind kind, const std::string& tenant, const std::string& id, json& record) {
    auto run = active(kind, tenant, id);
    if (!run) {
        if (Status found = get(kind, tenant, id, record); !found) return found;
        return Status::failure(ErrorKind::Conflict, "Run is not running");
    }
    run->stop.request_stop();
    return wait(kind, tenant, id, 30, record);
}

json SandboxService::list(RunKind kind, const std::string& tenant, const std::string& repository,
                          std::size_t limit) {
    std::vector<json> runs;
    for (const std::string& name : store_.list(tenant, folderOf(kind))) {
        if (!name.ends_with(".json")) continue;
        json record;
        if (!get(kind, tenant, name.substr(0, name.size() - 5), record)) continue;
        if (!repository.empty() && record.value("repository", "") != repository) continue;
        runs.push_back(summaryOf(std::move(record)));
    }
    std::sort(runs.begin(), runs.end(), [](const json& a, const json& b) {
        const std::string a_start = a.value("started_at", ""), b_start = b.value("started_at", "");
        if (a_start != b_start) return a_start > b_start;
        return a.value("id", "") < b.value("id", "");
    });
    if (runs.size() > limit) runs.resize(limit);
    return runs;
}

void SandboxService::runSandbox(ActiveRun& run, SandboxCommand command) {
    const SandboxOutcome outcome = runner_.run(command, run.stop.get_token());
    std::lock_guard lock(run.mutex);
    applyOutcome(run.record, outcome);
}

void SandboxService::runPipeline(ActiveRun& run, std::string git_dir, std::string ref,
                                 std::vector<std::pair<std::string, std::vector<std::string>>> steps,
                                 SandboxLimits limits, bool network) {
    auto setRun = [&](const char* key, json value) {
        std::lock_guard lock(run.mutex);
        run.record[key] = std::move(value);
    };
    const fs::path dir = fs::path(settings_.work_path) / run.id;
    const std::string src = (dir / "src").string();
    std::error_code error;
    fs::create_directories(dir, error);
    fs::permissions(dir, fs::perms::owner_all, error);
    struct Cleanup {
        fs::path dir;
        ~Cleanup() {
            std::error_code ignored;
            fs::remove_all(dir, ignored);
        }
    } cleanup{dir};

    auto fail = [&](const std::string& message) {
        std::lock_guard lock(run.mutex);
        run.record["status"] = "error";
        run.record["error"] = message;
        for (json& step : run.record["steps"]) step["status"] = "skipped";
    };
    git::GitRunOptions options;
    options.timeout_seconds = kCheckoutTimeoutSeconds;
    const git::GitRunResult cloned = git::runGit({"clone", "--quiet", "--no-hardlinks", "--", git_dir, src}, options);
    if (!cloned.ok()) return fail("Checkout failed: " + cloned.failureText());
    options.work_dir = src;
    std::string commit;
    for (const std::string& candidate : {"origin/" + ref, ref}) {
        const git::GitRunResult resolved =
            git::runGit({"rev-parse", "--verify", "--quiet", candidate + "^{commit}"}, options);
        if (resolved.ok()) {
            commit = resolved.output.substr(0, resolved.output.find('\n'));
            break;
        }
    }
    if (commit.empty()) return fail("No branch, tag or commit named " + ref);
    const git::GitRunResult checked_out = git::runGit({"checkout", "--quiet", "--detach", commit}, options);
    if (!checked_out.ok()) return fail("Checkout failed: " + checked_out.failureText());
    setRun("commit", commit);

    const char* verdict = "succeeded";
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (run.stop.stop_requested()) {
            verdict = "cancelled";
            break;
        }
        {
            std::lock_guard lock(run.mutex);
            run.record["steps"][i]["status"] = "running";
        }
        save(run);
        SandboxCommand command;
        command.argv = steps[i].second;
        command.host_dir = src;
        command.network = network;
        command.limits = limits;
        const SandboxOutcome outcome = runner_.run(command, run.stop.get_token());
        std::string step_status;
        {
            std::lock_guard lock(run.mutex);
            json& step = run.record["steps"][i];
            applyOutcome(step, outcome);
            step_status = step["status"].get<std::string>();
        }
        if (step_status != "succeeded") {
            verdict = step_status == "stopped" ? "cancelled" : "failed";
            break;
        }
        save(run);
    }
    std::lock_guard lock(run.mutex);
    run.record["status"] = verdict;
    for (json& step : run.record["steps"])
        if (step["status"] == "pending") step["status"] = "skipped";
}

}  // namespace vostra::sandbox
