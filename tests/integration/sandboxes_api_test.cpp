// Sandboxes, pipelines and triage through the real binary: off unless
// turned on, the reason when the host cannot run them, escapes through the
// API contained, runs stopped and kept across restarts (and a crash).
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "sandbox/sandbox_runner.h"
#include "tests/support/daemon_process.h"
#include "tests/support/git_repos.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class SandboxesApi : public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-sandboxes-api"); }
    void TearDown() override {
        daemon_.reset();
        removeTree(dir_);
    }
    void start(std::vector<std::string> extra = {"--sandboxes"}) {
        std::vector<std::string> args = {"--storage-path", dir_ + "/storage", "--data-dir", dir_ + "/state",
                                         "--sandbox-path", dir_ + "/work"};
        args.insert(args.end(), extra.begin(), extra.end());
        daemon_.reset();
        daemon_ = std::make_unique<DaemonProcess>(args);
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
        for (const char* tenant : {"acme", "other"})
            call("POST", "/api/v1/tenants", json{{"id", tenant}, {"enabled", true}}.dump(), "");
    }
    HttpResponse call(const std::string& method, const std::string& path, const std::string& body = "",
                      const std::string& tenant = "acme") {
        return request(daemon_->port(), method, path, body, {"X-Tenant-Id: " + tenant});
    }
    // Runs `script` with bash in workspace "w" of acme and waits for it.
    json run(const std::string& script) {
        const HttpResponse answer = call(
            "POST", "/api/v1/sandboxes",
            json{{"workspace", "w"}, {"command", {"bash", "-c", script}}, {"wait", true}}.dump());
        EXPECT_EQ(answer.status, 201) << answer.body;
        return json::parse(answer.body, nullptr, false);
    }
    static void skipWithoutNamespaces() {
        if (std::string problem = sandbox::SandboxRunner().probe(); !problem.empty()) GTEST_SKIP() << problem;
    }

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(SandboxesApi, OffUnlessTurnedOnAndSaysWhyItCannotRun) {
    start({});
    for (const auto& [method, path] : std::vector<std::pair<std::string, std::string>>{
             {"POST", "/api/v1/sandboxes"}, {"GET", "/api/v1/sandboxes/sbx-1"},
             {"GET", "/api/v1/cicd/runs"}, {"POST", "/api/v1/triage/analyze"}})
        EXPECT_EQ(call(method, path, "{}").outcome(), "503 Sandboxes are not enabled on this worker") << path;

    daemon_ = std::make_unique<DaemonProcess>(ConfigFile{{{"sandboxes_enabled", true},
                                                          {"sandbox_path", dir_ + "/work"},
                                                          {"sandbox_bwrap_path", "/nonexistent/bwrap"}}});
    ASSERT_TRUE(daemon_->ready());
    const HttpResponse refused = call("GET", "/api/v1/sandboxes");
    EXPECT_EQ(refused.status, 503);
    EXPECT_NE(refused.body.find("Sandboxes are not available on this worker: bwrap was not found"),
              std::string::npos)
        << refused.body;
}

TEST_F(SandboxesApi, EscapesThroughTheApiAreContained) {
    skipWithoutNamespaces();
    start();
    ASSERT_EQ(call("POST", "/api/v1/workspaces", R"({"name":"w"})").status, 201);
    ASSERT_EQ(call("POST", "/api/v1/workspaces", R"({"name":"w"})", "other").status, 201);
    ASSERT_EQ(call("PUT", "/api/v1/workspaces/w/files/secret.txt", "other's secret", "other").status, 201);
    ASSERT_EQ(call("PUT", "/api/v1/workspaces/w/files/mine.txt", "my file").status, 201);
    std::filesystem::create_directories(dir_ + "/state");
    std::ofstream(dir_ + "/state/marker") << "daemon state";
    const std::string storage = dir_ + "/storage";

    const json own = run("cat mine.txt && echo -n made > made.txt");
    EXPECT_EQ(own["status"], "succeeded") << own.dump();
    EXPECT_EQ(own["stdout"], "my file");
    EXPECT_EQ(call("GET", "/api/v1/workspaces/w/files/made.txt").body, "made");

    for (const std::string& attempt : std::vector<std::string>{
             "cat " + storage + "/tenants/other/workspaces/w/secret.txt",
             "ls " + storage + "/tenants",
             "cat " + dir_ + "/state/marker",
             "cat /etc/shadow",
             "echo > /workspace/../escaped",
             "echo > /dev/tcp/127.0.0.1/" + std::to_string(daemon_->port()),
             "echo > /dev/tcp/192.0.2.1/80",
         }) {
        const json outcome = run(attempt);
        EXPECT_EQ(outcome["status"], "failed") << attempt << ": " << outcome.dump();
        EXPECT_EQ(outcome["stdout"], "") << attempt;
    }
    EXPECT_FALSE(std::filesystem::exists(storage + "/tenants/acme/workspaces/escaped"));

    EXPECT_EQ(call("POST", "/api/v1/sandboxes", R"({"workspace":"../other/w","command":["true"]})").outcome(),
              "404 Workspace not found");
    EXPECT_EQ(call("POST", "/api/v1/sandboxes", R"({"workspace":"nope","command":["true"]})").outcome(),
              "404 Workspace not found");
    EXPECT_EQ(call("POST", "/api/v1/sandboxes", R"({"workspace":"w","command":"rm -rf /"})").status, 400);
    EXPECT_EQ(call("POST", "/api/v1/sandboxes", R"({"workspace":"w","command":["true"],"network":true})")
                  .outcome(),
              "400 Network access is not allowed for sandboxes on this worker");
    // Another tenant does not see acme's runs.
    EXPECT_EQ(call("GET", "/api/v1/sandboxes/" + own["id"].get<std::string>(), "", "other").status, 404);
}

TEST_F(SandboxesApi, RunsAreStoppedListedAndKeptAcrossRestarts) {
    skipWithoutNamespaces();
    start();
    ASSERT_EQ(call("POST", "/api/v1/workspaces", R"({"name":"w"})").status, 201);
    const json done = run("echo finished");
    const HttpResponse started =
        call("POST", "/api/v1/sandboxes", R"({"workspace":"w","command":["sleep","60"]})");
    ASSERT_EQ(started.status, 201);
    const std::string id = json::parse(started.body)["id"];
    EXPECT_EQ(json::parse(started.body)["status"], "running");
    const HttpResponse stopped = call("DELETE", "/api/v1/sandboxes/" + id);
    EXPECT_EQ(json::parse(stopped.body)["status"], "stopped") << stopped.body;
    EXPECT_EQ(call("DELETE", "/api/v1/sandboxes/" + id).outcome(), "409 Run is not running");

    // A run the daemon dies in reads as interrupted once it is back.
    const std::string lost =
        json::parse(call("POST", "/api/v1/sandboxes", R"({"workspace":"w","command":["sleep","60"]})").body)["id"];
    kill(daemon_->pid(), SIGKILL);
    daemon_->stop();
    start();
    EXPECT_EQ(json::parse(call("GET", "/api/v1/sandboxes/" + lost).body)["status"], "interrupted");
    EXPECT_EQ(json::parse(call("GET", "/api/v1/sandboxes/" + id).body)["status"], "stopped");
    const json finished = json::parse(call("GET", "/api/v1/sandboxes/" + done["id"].get<std::string>()).body);
    EXPECT_EQ(finished["stdout"], "finished\n");
    const json listed = json::parse(call("GET", "/api/v1/sandboxes").body)["runs"];
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_FALSE(listed[0].contains("stdout"));
    EXPECT_EQ(json::parse(call("GET", "/api/v1/sandboxes?limit=1").body)["runs"].size(), 1u);
}

TEST_F(SandboxesApi, PipelineOverAStoredRepositoryAndTriageOfItsLog) {
    skipWithoutNamespaces();
    BareRepo repo;
    repo.commit("test.sh", "echo 'src/a.c:1:2: error: boom'; echo 'src/b.c:3:4: error: boom'; exit 1\n", "tests");
    start();
    const json record = json::parse(
        call("POST", "/api/v1/git/repos", json{{"url", repo.url()}}.dump()).body);
    const std::string repo_id = record["id"];
    EXPECT_EQ(call("POST", "/api/v1/cicd/runs", json{{"repository", repo_id}, {"steps", {{{"name", "t"}, {"command", {"true"}}}}}}.dump()).outcome(),
              "404 Repository not found or never synced");
    ASSERT_EQ(call("POST", "/api/v1/git/repos/" + repo_id + "/sync").status, 200);

    const json steps = {{{"name", "build"}, {"command", {"ls", "README.md"}}},
                        {{"name", "test"}, {"command", {"sh", "test.sh"}}}};
    const HttpResponse answer = call(
        "POST", "/api/v1/cicd/runs", json{{"repository", repo_id}, {"steps", steps}, {"wait", true}}.dump());
    ASSERT_EQ(answer.status, 201) << answer.body;
    const json run = json::parse(answer.body);
    EXPECT_EQ(run["status"], "failed");
    EXPECT_EQ(run["steps"][0]["status"], "succeeded");
    EXPECT_EQ(run["steps"][1]["exit_code"], 1);
    const json listed =
        json::parse(call("GET", "/api/v1/cicd/runs?repository=" + repo_id).body)["runs"];
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["id"], run["id"]);

    // The failing step's output, as a raw body and as JSON.
    const std::string log = run["steps"][1]["stdout"];
    for (const std::string& body : {log, json{{"text", log}}.dump()}) {
        const json triage = json::parse(call("POST", "/api/v1/triage/analyze", body).body);
        ASSERT_EQ(triage["groups"].size(), 1u) << triage.dump();
        EXPECT_EQ(triage["groups"][0]["count"], 2);
        EXPECT_EQ(triage["groups"][0]["signature"], "<path>:<n>:<n>: error: boom");
    }
    EXPECT_EQ(call("POST", "/api/v1/triage/analyze", R"({"text": 5})").outcome(), "400 text must be a string");
}

}  // namespace
}  // namespace vostra::test
