// The agent workspace routes of the real binary: agent definitions in the
// agent store, swarms on the filesystem (across a restart) and in memory,
// workspaces under the tenant's quota, skills, and automations whose
// schedules are checked and whose next run is reported.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class AgentsApi : public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-agents-api"); }
    void TearDown() override {
        daemon_.reset();
        removeTree(dir_);
    }
    void start(std::vector<std::string> extra) {
        std::vector<std::string> args = {"--storage-path", dir_ + "/storage", "--data-dir",
                                         dir_ + "/state"};
        args.insert(args.end(), extra.begin(), extra.end());
        daemon_.reset();
        daemon_ = std::make_unique<DaemonProcess>(args);
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "", const std::string& tenant = "") {
        std::vector<std::string> headers;
        if (!tenant.empty()) headers.push_back("X-Tenant-Id: " + tenant);
        return request(daemon_->port(), method, path, body, headers);
    }

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(AgentsApi, AgentDefinitionsRoundTripThroughTheStore) {
    start({});
    EXPECT_EQ(call("GET", "/api/v1/data/agents").outcome(), "503 Agent storage not enabled");
    EXPECT_EQ(call("GET", "/api/v1/agents").outcome(), "503 Agent storage not enabled");

    // The store lives under $HOME/.config/vostra, which must exist.
    std::filesystem::create_directories(dir_ + "/home/.config/vostra");
    const std::string home = getenv("HOME") ? getenv("HOME") : "";
    setenv("HOME", (dir_ + "/home").c_str(), 1);
    start({"--agent-storage"});
    setenv("HOME", home.c_str(), 1);

    const json writer = {{"name", "writer"}, {"system_prompt", "Write well."},
                         {"allowed_tools", {"storage.read"}}, {"tags", {"text"}}};
    const HttpResponse created = call("POST", "/api/v1/data/agents", writer.dump());
    ASSERT_EQ(created.status, 201) << created.body;
    const std::string id = created.json()["id"];
    EXPECT_EQ(created.json()["version"], "1.0.0");
    EXPECT_EQ(created.json()["allowed_tools"], (json{"storage.read"}));
    EXPECT_EQ(call("POST", "/api/v1/data/agents", writer.dump()).outcome(),
              "409 An agent named writer with version 1.0.0 already exists");
    EXPECT_EQ(call("POST", "/api/v1/data/agents", R"({"name":"x"})").outcome(),
              "400 system_prompt is required");

    json changed = writer;
    changed["description"] = "Now with a description.";
    const json replaced = call("PUT", "/api/v1/data/agents/" + id, changed.dump()).json();
    EXPECT_EQ(replaced["description"], "Now with a description.");
    EXPECT_NE(replaced["updated_at"], created.json()["updated_at"]);
    EXPECT_EQ(call("PUT", "/api/v1/data/agents/agent-none", changed.dump()).outcome(),
              "404 Agent not found");

    const json seeded = call("POST", "/api/v1/data/agents/seed").json();
    EXPECT_GT(seeded["added"], 0);
    EXPECT_EQ(call("POST", "/api/v1/data/agents/seed").json()["added"], 0);

    std::filesystem::create_directories(dir_ + "/state/agents");
    std::ofstream(dir_ + "/state/agents/new.json") << R"({"name":"zeta","system_prompt":"Z."})";
    std::ofstream(dir_ + "/state/agents/bad.json") << "{";
    const json synced = call("POST", "/api/v1/data/agents/sync").json();
    EXPECT_EQ(synced["added"], 1);
    ASSERT_EQ(synced["failed"].size(), 1u);
    EXPECT_EQ(synced["failed"][0]["file"], "bad.json");

    // The read-only view for agent workers, sorted by name.
    const json agents = call("GET", "/api/v1/agents").json()["agents"];
    ASSERT_GE(agents.size(), 3u);
    EXPECT_EQ(agents.back()["name"], "zeta");
    EXPECT_EQ(call("GET", "/api/v1/agents/" + id).json()["name"], "writer");
    EXPECT_EQ(call("DELETE", "/api/v1/agents/" + id).outcome(), "405 Method not allowed");
    EXPECT_EQ(call("GET", "/api/v1/agents-list").outcome(), "404 Not found");

    EXPECT_EQ(call("DELETE", "/api/v1/data/agents/" + id).json()["status"], "deleted");
    EXPECT_EQ(call("GET", "/api/v1/data/agents/" + id).outcome(), "404 Agent not found");
}

class SwarmsApi : public AgentsApi, public ::testing::WithParamInterface<const char*> {};

TEST_P(SwarmsApi, SwarmDocumentsTasksAndArtifactsAreKept) {
    const bool memory = std::string(GetParam()) == "memory";
    start({"--storage-backend", GetParam()});
    const std::string swarm = "/api/v1/swarms/s1";
    EXPECT_EQ(call("PUT", swarm + "/goal", R"({"goal":"Summarise the reports"})").status, 200);
    EXPECT_EQ(call("PUT", swarm + "/plan", R"({"steps":["read","write"]})").status, 200);
    EXPECT_EQ(call("PUT", swarm + "/result", R"({"summary":"done"})").status, 200);
    EXPECT_EQ(call("PUT", swarm + "/tasks/t1", R"({"output":"first"})").status, 200);
    EXPECT_EQ(call("PUT", swarm + "/artifacts/report.txt", "plain bytes").status, 201);
    EXPECT_EQ(call("PUT", swarm + "/artifacts/img.bin",
                   R"({"data":"AAEC/w==","encoding":"base64","content_type":"image/x-test"})")
                  .status,
              201);
    EXPECT_EQ(call("PUT", swarm + "/goal", "not json").outcome(), "400 Request body must be JSON");
    EXPECT_EQ(call("PUT", "/api/v1/swarms/..%2Fx/goal", "{}").status, 400);

    if (!memory) start({});  // the same storage folder, a new process
    EXPECT_EQ(call("GET", swarm + "/goal").json()["goal"], "Summarise the reports");
    EXPECT_EQ(call("GET", swarm + "/plan").json()["steps"][1], "write");
    EXPECT_EQ(call("GET", swarm + "/result").json()["summary"], "done");
    EXPECT_EQ(call("GET", swarm + "/tasks/t1").json()["output"], "first");
    EXPECT_EQ(call("GET", swarm + "/tasks").json()["tasks"], (json{"t1"}));
    EXPECT_EQ(call("GET", swarm + "/artifacts/report.txt").body, "plain bytes");
    const HttpResponse image = call("GET", swarm + "/artifacts/img.bin");
    EXPECT_EQ(image.body, std::string("\0\1\2\xff", 4));
    EXPECT_NE(image.head.find("image/x-test"), std::string::npos);
    EXPECT_EQ(call("GET", swarm + "/artifacts").json()["artifacts"].size(), 2u);
    EXPECT_EQ(call("GET", "/api/v1/swarms/").json()["swarms"], (json{"s1"}));
    EXPECT_EQ(call("GET", swarm + "/tasks/none").outcome(), "404 Swarm document not found");

    EXPECT_EQ(call("DELETE", swarm).json()["status"], "deleted");
    EXPECT_EQ(call("GET", swarm + "/goal").status, 404);
    EXPECT_EQ(call("GET", "/api/v1/swarms/").json()["swarms"], json::array());
}

INSTANTIATE_TEST_SUITE_P(Backends, SwarmsApi, ::testing::Values("filesystem", "memory"),
                         [](const auto& info) { return std::string(info.param); });

TEST_F(AgentsApi, WorkspaceFilesCountAgainstTheTenantsQuota) {
    start({});
    const json tenant = {{"id", "acme"}, {"enabled", true}, {"api_access", true},
                         {"storage_quota_bytes", 100}};
    ASSERT_EQ(call("POST", "/api/v1/tenants", tenant.dump()).status, 201);
    const HttpResponse made = call("POST", "/api/v1/workspaces", R"({"name":"ws"})", "acme");
    ASSERT_EQ(made.status, 201) << made.body;
    EXPECT_EQ(call("POST", "/api/v1/workspaces", R"({"name":"ws"})", "acme").outcome(),
              "409 Workspace already exists: ws");
    EXPECT_EQ(call("POST", "/api/v1/workspaces", R"({"name":"../up"})", "acme").status, 400);

    EXPECT_EQ(call("PUT", "/api/v1/workspaces/ws/files/notes/a.txt", std::string(60, 'a'), "acme").status,
              201);
    EXPECT_EQ(call("PUT", "/api/v1/workspaces/ws/files/b.txt", std::string(60, 'b'), "acme").outcome(),
              "400 Storage quota exceeded for tenant: acme");
    EXPECT_EQ(call("GET", "/api/v1/workspaces/ws/files/notes/a.txt", "", "acme").body,
              std::string(60, 'a'));
    const json info = call("GET", "/api/v1/workspaces/ws", "", "acme").json();
    EXPECT_EQ(info["size_bytes"], 60);
    EXPECT_EQ(info["file_count"], 1);
    // The tenant's usage counts the file (and the storage's own metadata of it).
    EXPECT_GE(call("GET", "/api/v1/tenants/acme/usage").json()["storage_used_bytes"], 60);
    EXPECT_EQ(call("GET", "/api/v1/workspaces/ws/files/notes/", "", "acme").json()["entries"].size(), 1u);
    EXPECT_EQ(call("GET", "/api/v1/workspaces", "", "acme").json()["workspaces"].size(), 1u);
    // Another tenant does not see it.
    EXPECT_EQ(call("GET", "/api/v1/workspaces/ws").outcome(), "404 Workspace not found");

    EXPECT_EQ(call("POST", "/api/v1/outputs", R"({"name":"run-1"})", "acme").status, 201);
    EXPECT_EQ(call("GET", "/api/v1/outputs", "", "acme").json()["outputs"].size(), 1u);
    EXPECT_EQ(call("DELETE", "/api/v1/workspaces/ws", "", "acme").json()["status"], "deleted");
    EXPECT_EQ(call("GET", "/api/v1/workspaces/ws", "", "acme").status, 404);
}

TEST_F(AgentsApi, SkillsAndAutomationsWithCheckedSchedules) {
    start({});
    const json skill = {{"name", "summarise"}, {"description", "Short summaries"},
                        {"instructions", "Summarise in three lines."}, {"tools", {"storage.read"}}};
    const HttpResponse created = call("POST", "/api/v1/skills", skill.dump());
    ASSERT_EQ(created.status, 201) << created.body;
    const std::string skill_id = created.json()["id"];
    EXPECT_EQ(call("POST", "/api/v1/skills", R"({"name":"x"})").outcome(),
              "400 instructions is required");
    EXPECT_EQ(call("GET", "/api/v1/skills").json()["skills"].size(), 1u);
    EXPECT_EQ(call("DELETE", "/api/v1/skills/" + skill_id).json()["status"], "deleted");
    EXPECT_EQ(call("GET", "/api/v1/skills/" + skill_id).outcome(), "404 Skill not found");

    json automation = {{"id", "weekly"}, {"name", "Weekly report"}, {"target", "agent-1"},
                       {"prompt", "Write the weekly report."}, {"schedule", "61 9 * * mon"}};
    EXPECT_EQ(call("POST", "/api/v1/automations", automation.dump()).outcome(),
              "400 Invalid schedule: minute: 61 is out of range 0-59");
    automation["schedule"] = "30 9 * * mon";
    ASSERT_EQ(call("POST", "/api/v1/automations", automation.dump()).status, 201);
    EXPECT_EQ(call("POST", "/api/v1/automations", automation.dump()).outcome(),
              "409 Id already exists: weekly");
    const json read =
        call("GET", "/api/v1/automations/weekly?after=2026-11-23T12:00:00Z").json();
    EXPECT_EQ(read["next_run"], "2026-11-30T09:30:00Z");
    automation["schedule"] = "0 6 1 * *";
    const json replaced = call("PUT", "/api/v1/automations/weekly?after=2026-11-23T12:00:00Z",
                               automation.dump())
                              .json();
    EXPECT_EQ(replaced["next_run"], "2026-12-01T06:00:00Z");
    EXPECT_EQ(call("GET", "/api/v1/automations").json()["automations"].size(), 1u);
}

}  // namespace
}  // namespace vostra::test
