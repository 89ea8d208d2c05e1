// Runs as a service keeps them: pipelines over a local bare repository
// (passing, stopped by a failing step, cancelled), records that outlive the
// service, and requests that try to pass the operator's limits.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "sandbox/sandbox_service.h"
#include "tests/support/git_repos.h"

namespace vostra::sandbox {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// The tenant's file storage, as far as run records need it.
struct MemoryStore {
    std::mutex mutex;
    std::map<std::string, std::string> files;  // "tenant/path" -> data

    RunStore store() {
        RunStore store;
        store.write = [this](const std::string& tenant, const std::string& path, const std::string& data) {
            std::lock_guard lock(mutex);
            files[tenant + "/" + path] = data;
            return Status::success();
        };
        store.read = [this](const std::string& tenant, const std::string& path, std::string& data) {
            std::lock_guard lock(mutex);
            auto found = files.find(tenant + "/" + path);
            if (found == files.end()) return Status::failure(ErrorKind::NotFound, "File not found");
            data = found->second;
            return Status::success();
        };
        store.list = [this](const std::string& tenant, const std::string& folder) {
            std::lock_guard lock(mutex);
            std::vector<std::string> names;
            const std::string prefix = tenant + "/" + folder + "/";
            for (const auto& [path, data] : files)
                if (path.starts_with(prefix)) names.push_back(path.substr(prefix.size()));
            return names;
        };
        store.remove = [this](const std::string& tenant, const std::string& path) {
            std::lock_guard lock(mutex);
            files.erase(tenant + "/" + path);
        };
        return store;
    }
};

class SandboxServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string problem = SandboxRunner().probe(); !problem.empty()) GTEST_SKIP() << problem;
        repo_.commit("ci/build.sh", "echo building; echo built > artefact.txt\n", "build script");
        commit_ = repo_.commit("ci/check.sh", "test -f artefact.txt && echo checked\n", "check script");
        settings_.work_path = repo_.folder() + "/runs";
        settings_.limits.timeout_seconds = 30;
        service_ = std::make_unique<SandboxService>(settings_, store_.store(), locator());
    }
    RepositoryLocator locator() {
        return [this](const std::string& tenant, const std::string& id, std::string& git_dir) {
            if (tenant != "acme" || id != "repo-1") return Status::failure(ErrorKind::NotFound, "Repository not found");
            git_dir = repo_.barePath();
            return Status::success();
        };
    }
    json pipeline(json steps, const std::string& ref = "main") {
        json record;
        const Status started = service_->startPipeline(
            "acme", {{"repository", "repo-1"}, {"ref", ref}, {"steps", std::move(steps)}}, record);
        EXPECT_TRUE(started) << started.message;
        return record;
    }
    json finished(const json& started) {
        json record;
        EXPECT_TRUE(service_->wait(RunKind::Pipeline, "acme", started["id"], 60, record));
        return record;
    }
    static json step(const std::string& name, std::vector<std::string> command) {
        return {{"name", name}, {"command", std::move(command)}};
    }

    test::BareRepo repo_;
    std::string commit_;
    MemoryStore store_;
    SandboxSettings settings_;
    std::unique_ptr<SandboxService> service_;
};

TEST_F(SandboxServiceTest, PipelineRunsItsStepsOverAFreshCheckout) {
    const json started = pipeline({step("build", {"sh", "ci/build.sh"}), step("check", {"sh", "ci/check.sh"})});
    EXPECT_EQ(started["status"], "running");
    const json run = finished(started);
    EXPECT_EQ(run["status"], "succeeded") << run.dump(2);
    EXPECT_EQ(run["commit"], commit_);
    EXPECT_EQ(run["steps"][0]["stdout"], "building\n");
    EXPECT_EQ(run["steps"][1]["stdout"], "checked\n");
    EXPECT_EQ(run["steps"][1]["exit_code"], 0);
    EXPECT_TRUE(run["steps"][1]["duration_ms"].is_number());
    // The checkout is gone, and the repository untouched by the build.
    EXPECT_TRUE(fs::is_empty(settings_.work_path));
    EXPECT_EQ(repo_.git({"status", "--porcelain"}), "");

    // An older commit by its id: the check script is not there yet.
    const std::string first = repo_.git({"rev-parse", "HEAD~1"});
    const json old = finished(pipeline({step("check", {"sh", "ci/check.sh"})}, first));
    EXPECT_EQ(old["commit"], first);
    EXPECT_EQ(old["status"], "failed");
}

TEST_F(SandboxServiceTest, FailingStepStopsTheRestAndCancelStopsTheRun) {
    const json failed = finished(pipeline(
        {step("build", {"sh", "ci/build.sh"}), step("broken", {"sh", "-c", "echo oops >&2; exit 3"}),
         step("never", {"touch", "ran"})}));
    EXPECT_EQ(failed["status"], "failed");
    EXPECT_EQ(failed["steps"][1]["status"], "failed");
    EXPECT_EQ(failed["steps"][1]["exit_code"], 3);
    EXPECT_EQ(failed["steps"][1]["stderr"], "oops\n");
    EXPECT_EQ(failed["steps"][2]["status"], "skipped");
    EXPECT_FALSE(failed["steps"][2].contains("exit_code"));

    const json started = pipeline({step("slow", {"sleep", "60"}), step("after", {"true"})});
    json stopped;
    // Stopped while its first step runs, not during the checkout.
    auto first_step = [&] { return stopped.contains("steps") ? stopped["steps"][0].value("status", "") : ""; };
    for (int i = 0; i < 500 && first_step() != "running"; ++i) {
        ASSERT_TRUE(service_->get(RunKind::Pipeline, "acme", started["id"], stopped));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(service_->stop(RunKind::Pipeline, "acme", started["id"], stopped));
    EXPECT_EQ(stopped["status"], "cancelled");
    EXPECT_EQ(stopped["steps"][0]["status"], "stopped");
    EXPECT_EQ(stopped["steps"][1]["status"], "skipped");
    EXPECT_EQ(service_->stop(RunKind::Pipeline, "acme", started["id"], stopped).kind, ErrorKind::Conflict);

    const json listed = service_->list(RunKind::Pipeline, "acme", "repo-1", 10);
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_FALSE(listed[0]["steps"][0].contains("stdout"));
    EXPECT_TRUE(service_->list(RunKind::Pipeline, "acme", "repo-2", 10).empty());
    EXPECT_TRUE(service_->list(RunKind::Pipeline, "other", "", 10).empty());
    json record;
    EXPECT_EQ(service_->get(RunKind::Pipeline, "other", started["id"], record).kind, ErrorKind::NotFound);
    EXPECT_EQ(service_->get(RunKind::Sandbox, "acme", started["id"], record).kind, ErrorKind::NotFound);
}

TEST_F(SandboxServiceTest, RefusesWhatItCannotRun) {
    json record;
    auto start = [&](json body) { return service_->startPipeline("acme", body, record).kind; };
    const json steps = {step("a", {"true"})};
    EXPECT_EQ(start({{"repository", "repo-2"}, {"steps", steps}}), ErrorKind::NotFound);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"ref", "--upload-pack=x"}, {"steps", steps}}), ErrorKind::Invalid);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", json::array()}}), ErrorKind::Invalid);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", {{{"name", "a"}, {"command", "true"}}}}}),
              ErrorKind::Invalid);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", {step("a", {""})}}}), ErrorKind::Invalid);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", steps}, {"network", true}}), ErrorKind::Refused);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", steps}, {"timeout_seconds", 7200}}), ErrorKind::Invalid);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", steps}, {"memory_bytes", 1LL << 40}}), ErrorKind::Invalid);
    EXPECT_EQ(start({{"repository", "repo-1"}, {"steps", steps}, {"max_processes", 0}}), ErrorKind::Invalid);

    const json missing_ref = finished(pipeline({step("a", {"true"})}, "no-such-branch"));
    EXPECT_EQ(missing_ref["status"], "error");
    EXPECT_EQ(missing_ref["error"], "No branch, tag or commit named no-such-branch");

    // Lower limits are taken as asked.
    ASSERT_TRUE(service_->startPipeline(
        "acme", {{"repository", "repo-1"}, {"steps", steps}, {"timeout_seconds", 5}, {"max_processes", 8}}, record));
    EXPECT_EQ(record["limits"]["timeout_seconds"], 5);
    EXPECT_EQ(record["limits"]["max_processes"], 8);
}

TEST_F(SandboxServiceTest, RunsOutliveTheServiceAndTooManyAreRefused) {
    settings_.max_concurrent = 1;
    service_ = std::make_unique<SandboxService>(settings_, store_.store(), locator());
    const std::string workspace = repo_.folder() + "/workspace";
    fs::create_directories(workspace);
    json running, refused;
    ASSERT_TRUE(service_->startSandbox("acme", "w", workspace, {{"command", {"sleep", "60"}}}, running));
    EXPECT_EQ(service_->startSandbox("acme", "w", workspace, {{"command", {"true"}}}, refused).kind,
              ErrorKind::QuotaExceeded);

    // A service shut down in the middle records how the run ended.
    service_->shutdown();
    service_ = std::make_unique<SandboxService>(settings_, store_.store(), locator());
    json record;
    ASSERT_TRUE(service_->get(RunKind::Sandbox, "acme", running["id"], record));
    EXPECT_EQ(record["status"], "stopped");
    EXPECT_EQ(record["workspace"], "w");

    // One left "running" by a daemon that died reads as interrupted.
    json crashed = record;
    crashed["id"] = "sbx-0000000000000001";
    crashed["status"] = "running";
    (void)store_.store().write("acme", "sandboxes/sbx-0000000000000001.json", crashed.dump());
    ASSERT_TRUE(service_->get(RunKind::Sandbox, "acme", "sbx-0000000000000001", record));
    EXPECT_EQ(record["status"], "interrupted");
    EXPECT_EQ(service_->list(RunKind::Sandbox, "acme", "", 1).size(), 1u);
    EXPECT_EQ(service_->list(RunKind::Sandbox, "acme", "", 10).size(), 2u);
    EXPECT_EQ(service_->get(RunKind::Sandbox, "acme", "../x", record).kind, ErrorKind::NotFound);
}

}  // namespace
}  // namespace vostra::sandbox
