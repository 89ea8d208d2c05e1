// The data API of the real binary over HTTP, on real SQLite files.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

// Creates `path` holding table items(id INTEGER PRIMARY KEY, name TEXT) with `rows` rows.
void makeDatabase(const std::string& path, int rows) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    std::string sql =
        "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(rows) + ") INSERT INTO items SELECT i, 'item-' || i FROM n;";
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
}

class DataApiTest : public ::testing::Test {
protected:
    void SetUp() override {
        files_ = makeTempDir("vostra-data");
        makeDatabase(files_ + "/a.db", 5);
        makeDatabase(files_ + "/b.db", 3);
        start();
    }
    void TearDown() override {
        daemon_.reset();
        removeTree(files_);
    }
    void start(std::vector<std::string> extra = {}) {
        extra.insert(extra.begin(), {"--data-dir", files_ + "/state"});
        daemon_ = std::make_unique<DaemonProcess>(extra);
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    HttpResponse call(const std::string& method, const std::string& path,
                      const json& body = nullptr) {
        return request(daemon_->port(), method, path, body.is_null() ? "" : body.dump());
    }
    HttpResponse addSource(const std::string& id, const std::string& file, json extra = {}) {
        json config = {{"id", id}, {"type", "sqlite"}, {"path", files_ + "/" + file}};
        if (extra.is_object()) config.update(extra);
        return call("POST", "/api/v1/data/sources", config);
    }
    HttpResponse run(const std::string& route, const std::string& id, const std::string& sql,
                     json more = {}) {
        json body = {{"source_id", id}, {"sql", sql}};
        if (more.is_object()) body.update(more);
        return call("POST", "/api/v1/data/" + route, body);
    }
    json status(const std::string& id) { return call("GET", "/api/v1/data/sources/" + id).json(); }

    std::string files_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(DataApiTest, RegistersDescribesAndRemovesASource) {
    const HttpResponse created = addSource("a", "a.db");
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.json(), (json{{"status", "created"}, {"id", "a"}}));
    const json listed = call("GET", "/api/v1/data/sources").json();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["status"], "connected");
    EXPECT_EQ(status("a")["avg_query_time_ms"], 0.0);

    EXPECT_EQ(call("GET", "/api/v1/data/sources/a/tables").json(), json({"items"}));
    const json schema = call("GET", "/api/v1/data/sources/a/schema").json();
    EXPECT_EQ(schema["tables"][0]["columns"][0]["primary_key"], true);
    EXPECT_EQ(call("POST", "/api/v1/data/sources/a/test").json()["status"], "ok");
    EXPECT_EQ(call("POST", "/api/v1/data/sources/zz/test").json()["status"], "failed");
    EXPECT_EQ(call("GET", "/health").json()["healthy_sources"], 1);

    EXPECT_EQ(call("DELETE", "/api/v1/data/sources/a").json()["status"], "deleted");
    EXPECT_EQ(call("GET", "/api/v1/data/sources/a").status, 404);
}

TEST_F(DataApiTest, RefusesADuplicateIdAndSourcesThatCannotConnect) {
    ASSERT_EQ(addSource("dup", "a.db").status, 201);
    EXPECT_EQ(addSource("dup", "b.db").outcome(), "400 Failed to add data source");
    EXPECT_EQ(run("query", "dup", "SELECT COUNT(*) AS n FROM items").json()["rows"][0]["n"], "5");

    const auto detail = [](const HttpResponse& reply) { return reply.json().value("detail", ""); };
    EXPECT_EQ(detail(addSource("gone", "no-such.db")),
              "Could not create any connections for gone: unable to open database file");
    EXPECT_EQ(detail(addSource("zero", "a.db", {{"pool_config", {{"min_connections", 0}}}})),
              "Could not create any connections for zero");
    // Once took some 20,000 descriptors before the process ran out of threads.
    const HttpResponse huge =
        addSource("huge", "a.db", {{"pool_config", {{"min_connections", 100000}}}});
    EXPECT_EQ(huge.outcome(), "400 Failed to add data source");
    EXPECT_EQ(detail(huge), "min_connections 100000 is above the limit of 1000");
    EXPECT_EQ(call("GET", "/api/v1/data/sources").json().size(), 1u);
    EXPECT_TRUE(daemon_->running());
}

TEST_F(DataApiTest, QueriesRunWithParametersAndIgnoreMaxRows) {
    ASSERT_EQ(addSource("a", "a.db").status, 201);
    const HttpResponse one =
        run("query", "a", "SELECT name FROM items WHERE id = ?", {{"params", {"3"}}});
    EXPECT_EQ(one.status, 200);
    EXPECT_EQ(one.json()["rows"], json::parse(R"([{"name":"item-3"}])"));
    EXPECT_EQ(run("query", "a", "SELECT * FROM items", {{"max_rows", 1}}).json()["row_count"], 5);

    const HttpResponse unknown = run("query", "nope", "SELECT 1");
    EXPECT_EQ(unknown.outcome(), "500 Data source not found: nope");
    EXPECT_EQ(unknown.json()["success"], false);
    EXPECT_NE(
        run("query", "a", "SELEC nonsense").outcome().find("500 near \"SELEC\": syntax error"),
        std::string::npos);
    EXPECT_EQ(status("a")["queries_failed"], 1);
}

TEST_F(DataApiTest, ReadOnlySourcesRefuseStatementsBeforeTheConnector) {
    ASSERT_EQ(addSource("ro", "a.db").status, 201);
    const std::string insert = "INSERT INTO items(name) VALUES ('x')";
    EXPECT_EQ(run("execute", "ro", insert).outcome(), "500 Data source is read-only");
    // Through the query route the registry lets it pass; SQLite itself says no.
    EXPECT_EQ(run("query", "ro", insert).outcome(), "500 attempt to write a readonly database");

    ASSERT_EQ(addSource("rw", "b.db", {{"access_mode", "readwrite"}}).status, 201);
    const HttpResponse inserted = run("execute", "rw", "INSERT INTO items(name) VALUES (?)",
                                      {{"params", {"new"}}, {"auto_commit", false}});
    EXPECT_EQ(inserted.status, 200);
    EXPECT_EQ(inserted.json()["affected_rows"], 1);
    EXPECT_EQ(inserted.json()["last_insert_id"], 4);

    const json metrics = call("GET", "/metrics").json();
    EXPECT_EQ(metrics["total_executes"], 1);
    EXPECT_EQ(metrics["total_errors"], 1);
}

TEST_F(DataApiTest, SourcesComeBackAfterARestartInOrderBeforeStartupOnes) {
    ASSERT_EQ(addSource("keep", "a.db", {{"password", "s3cret"}}).status, 201);
    ASSERT_EQ(addSource("lost", "b.db").status, 201);
    ASSERT_EQ(addSource("temp", "a.db").status, 201);
    ASSERT_EQ(call("DELETE", "/api/v1/data/sources/temp").status, 200);
    struct stat info {};
    ASSERT_EQ(stat((files_ + "/state/data_sources.json").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    ASSERT_EQ(daemon_->stop(), 0);
    std::filesystem::remove(files_ + "/b.db");
    makeDatabase(files_ + "/c.db", 2);
    const json cli = {{"id", "cli"}, {"type", "sqlite"}, {"path", files_ + "/c.db"}};
    json clash = cli;  // loses to the saved "keep", which comes first
    clash["id"] = "keep";
    start({"--add-source", cli.dump(), "--add-source", "{broken", "--add-source", clash.dump()});
    EXPECT_EQ(run("query", "keep", "SELECT COUNT(*) AS n FROM items").json()["rows"][0]["n"], "5");
    EXPECT_EQ(status("cli")["status"], "connected");
    EXPECT_EQ(call("GET", "/api/v1/data/sources/temp").status, 404);
    EXPECT_EQ(call("GET", "/api/v1/data/sources/lost").status, 404);
    const std::string err = daemon_->stderrText();
    EXPECT_NE(err.find("lost"), std::string::npos);
    EXPECT_NE(err.find("Error parsing data source: "), std::string::npos);
    EXPECT_NE(err.find("Failed to add data source: keep"), std::string::npos);

    // The source that could not come back is remembered for the next start.
    makeDatabase(files_ + "/b.db", 3);
    ASSERT_EQ(daemon_->stop(), 0);
    start();
    EXPECT_EQ(status("lost")["status"], "connected");
}

TEST_F(DataApiTest, ConcurrentQueriesKeepExactPerSourceCounts) {
    ASSERT_EQ(addSource("a", "a.db", {{"pool_config", {{"max_connections", 4}}}}).status, 201);
    ASSERT_EQ(addSource("b", "b.db").status, 201);
    constexpr int kThreads = 8, kEach = 40;
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < kThreads; ++t) {
        clients.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string wanted = std::to_string(i % 3 + 1);
                auto reply = run("query", t % 2 ? "b" : "a", "SELECT id FROM items WHERE id = ?",
                                 {{"params", {wanted}}});
                if (reply.status != 200 || reply.json()["rows"][0]["id"] != wanted) ++wrong;
            }
        });
    }
    for (auto& client : clients)
        client.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(status("a")["queries_executed"], kThreads / 2 * kEach);
    EXPECT_EQ(status("b")["queries_executed"], kThreads / 2 * kEach);
    EXPECT_EQ(call("GET", "/metrics").json()["total_queries"], kThreads * kEach);
}

TEST_F(DataApiTest, HeavyLoadLeavesNoDescriptorsOrThreadsBehind) {
    // Short idle limits let the pool shrink back to its minimum after the load.
    const json pool = {
        {"max_connections", 8}, {"idle_timeout_ms", 300}, {"health_check_interval_ms", 200}};
    ASSERT_EQ(addSource("a", "a.db", {{"pool_config", pool}}).status, 201);
    const auto before = resourcesOf(daemon_->pid());

    std::atomic<int> failures{0};
    std::atomic<bool> go{true};
    std::vector<std::thread> clients;
    for (int c = 0; c < 64; ++c) {
        clients.emplace_back([&] {
            while (go.load())
                if (run("query", "a", "SELECT name FROM items WHERE id = 2").status != 200)
                    ++failures;
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    go.store(false);
    for (auto& client : clients)
        client.join();
    EXPECT_EQ(failures.load(), 0);

    std::pair<int, int> after;
    eventually([&] {
        after = resourcesOf(daemon_->pid());
        return after.first <= before.first && after.second <= before.second;
    });
    EXPECT_LE(after.first, before.first) << "descriptors";
    EXPECT_LE(after.second, before.second) << "threads";
}

TEST_F(DataApiTest, ADatabaseFileDeletedInUseGivesErrorsNotACrash) {
    ASSERT_EQ(addSource("a", "a.db",
                        {{"access_mode", "readwrite"}, {"pool_config", {{"max_connections", 4}}}})
                  .status,
              201);
    std::filesystem::remove(files_ + "/a.db");

    // Connections opened after the deletion see a new, empty file; the old
    // one still sees the deleted table. Either way every answer is a result.
    std::atomic<int> answered{0}, failed{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; ++c) {
        clients.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                const HttpResponse reply =
                    run("execute", "a", "INSERT INTO items(name) VALUES ('x')");
                if (reply.status == 200 || reply.status == 500) ++answered;
                if (reply.status == 500 && reply.json()["success"] == false) ++failed;
            }
        });
    }
    for (auto& client : clients)
        client.join();
    EXPECT_EQ(answered.load(), 40);
    const json after = status("a");
    EXPECT_EQ(after["queries_failed"], failed.load());
    EXPECT_EQ(after["queries_executed"].get<int>() + after["queries_failed"].get<int>(), 40);
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
}  // namespace vostra::test
