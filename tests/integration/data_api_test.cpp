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

int countEntries(const std::string& dir) {
    int n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir)) ++n;
    return n;
}

int threadCount(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("Threads:", 0) == 0) return std::atoi(line.c_str() + 8);
    return -1;
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
        std::vector<std::string> args = {"--data-dir", files_ + "/state"};
        args.insert(args.end(), extra.begin(), extra.end());
        daemon_ = std::make_unique<DaemonProcess>(args);
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    int port() const { return daemon_->port(); }

    HttpResponse post(const std::string& path, const json& body) {
        return request(port(), "POST", path, body.dump());
    }
    HttpResponse addSource(const std::string& id, const std::string& file, json extra = json::object()) {
        json config = {{"id", id}, {"type", "sqlite"}, {"path", files_ + "/" + file}};
        config.update(extra);
        return post("/api/v1/data/sources", config);
    }
    HttpResponse query(const std::string& id, const std::string& sql, json more = json::object()) {
        json body = {{"source_id", id}, {"sql", sql}};
        body.update(more);
        return post("/api/v1/data/query", body);
    }
    json status(const std::string& id) {
        return request(port(), "GET", "/api/v1/data/sources/" + id).json();
    }

    std::string files_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(DataApiTest, RegistersListsAndDescribesASource) {
    auto created = addSource("a", "a.db");
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.json(), (json{{"status", "created"}, {"id", "a"}}));

    auto listed = request(port(), "GET", "/api/v1/data/sources").json();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["status"], "connected");
    EXPECT_EQ(listed[0]["pool_size"], 1);

    json fresh = status("a");
    EXPECT_EQ(fresh["avg_query_time_ms"], 0.0);
    EXPECT_EQ(fresh["queries_executed"], 0);

    EXPECT_EQ(request(port(), "GET", "/api/v1/data/sources/a/tables").json(), json({"items"}));
    auto schema = request(port(), "GET", "/api/v1/data/sources/a/schema").json();
    EXPECT_EQ(schema["source_id"], "a");
    EXPECT_EQ(schema["tables"][0]["columns"][0]["primary_key"], true);
    EXPECT_EQ(request(port(), "POST", "/api/v1/data/sources/a/test").json()["status"], "ok");
    EXPECT_EQ(request(port(), "POST", "/api/v1/data/sources/zz/test").json()["status"], "failed");

    auto health = request(port(), "GET", "/health").json();
    EXPECT_EQ(health["total_sources"], 1);
    EXPECT_EQ(health["healthy_sources"], 1);
    auto info = request(port(), "GET", "/info").json();
    EXPECT_EQ(info["available_connectors"], json({"sqlite", "postgresql", "mysql"}));
}

TEST_F(DataApiTest, DuplicateIdIsRefusedAndTheFirstStays) {
    ASSERT_EQ(addSource("dup", "a.db").status, 201);
    auto second = addSource("dup", "b.db");
    EXPECT_EQ(second.status, 400);
    EXPECT_EQ(second.json()["error"], "Failed to add data source");
    EXPECT_EQ(query("dup", "SELECT COUNT(*) AS n FROM items").json()["rows"][0]["n"], "5");
}

TEST_F(DataApiTest, RefusesSourcesThatCannotConnect) {
    auto missing = addSource("gone", "no-such.db");
    EXPECT_EQ(missing.status, 400);
    auto no_minimum = addSource("zero", "a.db", {{"pool_config", {{"min_connections", 0}}}});
    EXPECT_EQ(no_minimum.status, 400);
    EXPECT_EQ(request(port(), "GET", "/api/v1/data/sources").json().size(), 0u);
}

TEST_F(DataApiTest, BadBodiesAnswer400WithTheParserMessage) {
    auto not_json = request(port(), "POST", "/api/v1/data/sources", "{oops");
    EXPECT_EQ(not_json.status, 400);
    EXPECT_NE(not_json.json()["error"].get<std::string>().find("parse error"), std::string::npos);
    EXPECT_EQ(post("/api/v1/data/sources", {{"id", "x"}, {"port", "5432"}}).status, 400);
    EXPECT_EQ(post("/api/v1/data/query", {{"source_id", "x"}, {"params", "1"}}).status, 400);
    EXPECT_EQ(post("/api/v1/data/execute", {{"source_id", 7}}).status, 400);
}

TEST_F(DataApiTest, QueriesRunWithParametersAndIgnoreMaxRows) {
    ASSERT_EQ(addSource("a", "a.db").status, 201);
    auto one = query("a", "SELECT name FROM items WHERE id = ?", {{"params", {"3"}}});
    EXPECT_EQ(one.status, 200);
    EXPECT_EQ(one.json()["rows"], json::parse(R"([{"name":"item-3"}])"));

    auto all = query("a", "SELECT * FROM items", {{"max_rows", 1}, {"include_metadata", true}});
    EXPECT_EQ(all.json()["row_count"], 5);

    auto unknown = query("nope", "SELECT 1");
    EXPECT_EQ(unknown.status, 500);
    EXPECT_EQ(unknown.json()["success"], false);
    EXPECT_EQ(unknown.json()["error"], "Data source not found: nope");

    auto broken = query("a", "SELEC nonsense");
    EXPECT_EQ(broken.status, 500);
    EXPECT_NE(broken.json()["error"].get<std::string>().find("syntax error"), std::string::npos);
    EXPECT_EQ(status("a")["queries_failed"], 1);
}

TEST_F(DataApiTest, ReadOnlySourcesRefuseStatementsBeforeTheConnector) {
    ASSERT_EQ(addSource("ro", "a.db").status, 201);
    auto refused = post("/api/v1/data/execute",
                        {{"source_id", "ro"}, {"sql", "INSERT INTO items(name) VALUES ('x')"}});
    EXPECT_EQ(refused.status, 500);
    EXPECT_EQ(refused.json()["error"], "Data source is read-only");

    // Through the query route the registry lets it pass; SQLite itself says no.
    auto through_query = query("ro", "INSERT INTO items(name) VALUES ('x')");
    EXPECT_EQ(through_query.status, 500);
    EXPECT_EQ(through_query.json()["error"], "attempt to write a readonly database");

    ASSERT_EQ(addSource("rw", "b.db", {{"access_mode", "readwrite"}}).status, 201);
    auto inserted = post("/api/v1/data/execute", {{"source_id", "rw"},
                                                  {"sql", "INSERT INTO items(name) VALUES (?)"},
                                                  {"params", {"new"}},
                                                  {"auto_commit", false}});
    EXPECT_EQ(inserted.status, 200);
    EXPECT_EQ(inserted.json()["affected_rows"], 1);
    EXPECT_EQ(inserted.json()["last_insert_id"], 4);

    auto metrics = request(port(), "GET", "/metrics").json();
    EXPECT_EQ(metrics["total_executes"], 1);
    EXPECT_EQ(metrics["total_errors"], 1);
}

TEST_F(DataApiTest, RemovesSourcesAndAnswersUnknownPathsAndMethods) {
    ASSERT_EQ(addSource("a", "a.db").status, 201);
    EXPECT_EQ(request(port(), "GET", "/api/v1/data/sources/a/bogus").json()["error"], "Not found");
    auto put = request(port(), "PUT", "/api/v1/data/sources/a");
    EXPECT_EQ(put.status, 405);
    EXPECT_EQ(put.json()["error"], "Method not allowed");
    EXPECT_EQ(request(port(), "PATCH", "/api/v1/data/sources").status, 405);

    auto unknown = request(port(), "DELETE", "/api/v1/data/sources/nope");
    EXPECT_EQ(unknown.status, 404);
    EXPECT_EQ(unknown.json()["error"], "Data source not found");

    EXPECT_EQ(request(port(), "DELETE", "/api/v1/data/sources/a").json()["status"], "deleted");
    EXPECT_EQ(request(port(), "GET", "/api/v1/data/sources/a").status, 404);
}

TEST_F(DataApiTest, SourcesComeBackAfterARestart) {
    ASSERT_EQ(addSource("keep", "a.db", {{"password", "s3cret"}}).status, 201);
    ASSERT_EQ(addSource("lost", "b.db").status, 201);
    ASSERT_EQ(addSource("temp", "a.db").status, 201);
    ASSERT_EQ(request(port(), "DELETE", "/api/v1/data/sources/temp").status, 200);

    const std::string file = files_ + "/state/data_sources.json";
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    ASSERT_EQ(daemon_->stop(), 0);
    std::filesystem::remove(files_ + "/b.db");
    start();

    EXPECT_EQ(query("keep", "SELECT COUNT(*) AS n FROM items").json()["rows"][0]["n"], "5");
    EXPECT_EQ(request(port(), "GET", "/api/v1/data/sources/temp").status, 404);
    EXPECT_EQ(request(port(), "GET", "/api/v1/data/sources/lost").status, 404);
    EXPECT_NE(daemon_->stderrText().find("lost"), std::string::npos);

    // The source that could not come back is remembered for the next start.
    makeDatabase(files_ + "/b.db", 3);
    ASSERT_EQ(daemon_->stop(), 0);
    start();
    EXPECT_EQ(status("lost")["status"], "connected");
    EXPECT_EQ(status("keep")["status"], "connected");
}

TEST_F(DataApiTest, StartupSourcesAreAddedAfterSavedOnes) {
    daemon_.reset();
    json good = {{"id", "cli"}, {"type", "sqlite"}, {"path", files_ + "/a.db"}};
    start({"--add-source", good.dump(), "--add-source", "{broken", "--add-source",
           json{{"id", "bad"}, {"path", files_ + "/none.db"}}.dump()});
    EXPECT_EQ(status("cli")["status"], "connected");
    EXPECT_NE(daemon_->stdoutText().find("Added data source: cli"), std::string::npos);
    EXPECT_NE(daemon_->stderrText().find("Error parsing data source: "), std::string::npos);
    EXPECT_NE(daemon_->stderrText().find("Failed to add data source: bad"), std::string::npos);
}

TEST_F(DataApiTest, ConcurrentQueriesKeepExactPerSourceCounts) {
    ASSERT_EQ(addSource("a", "a.db", {{"pool_config", {{"max_connections", 4}}}}).status, 201);
    ASSERT_EQ(addSource("b", "b.db").status, 201);
    constexpr int kThreads = 8;
    constexpr int kEach = 40;
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < kThreads; ++t) {
        clients.emplace_back([&, t] {
            const std::string id = t % 2 ? "b" : "a";
            for (int i = 0; i < kEach; ++i) {
                const std::string wanted = std::to_string(i % 3 + 1);
                auto reply = query(id, "SELECT id FROM items WHERE id = ?", {{"params", {wanted}}});
                if (reply.status != 200 || reply.json()["rows"][0]["id"] != wanted) ++wrong;
            }
        });
    }
    for (auto& client : clients) client.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(status("a")["queries_executed"], kThreads / 2 * kEach);
    EXPECT_EQ(status("b")["queries_executed"], kThreads / 2 * kEach);
    EXPECT_EQ(request(port(), "GET", "/metrics").json()["total_queries"], kThreads * kEach);
}

TEST_F(DataApiTest, HeavyLoadLeavesNoDescriptorsOrThreadsBehind) {
    // Short idle limits let the pool shrink back to its minimum after the load.
    ASSERT_EQ(addSource("a", "a.db", {{"pool_config",
                                       {{"max_connections", 8},
                                        {"idle_timeout_ms", 300},
                                        {"health_check_interval_ms", 200}}}})
                  .status,
              201);
    const std::string fd_dir = "/proc/" + std::to_string(daemon_->pid()) + "/fd";
    const int fds_before = countEntries(fd_dir);
    const int threads_before = threadCount(daemon_->pid());

    std::atomic<int> failures{0};
    std::atomic<bool> go{true};
    std::vector<std::thread> clients;
    for (int c = 0; c < 64; ++c) {
        clients.emplace_back([&] {
            while (go.load())
                if (query("a", "SELECT name FROM items WHERE id = 2").status != 200) ++failures;
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    go.store(false);
    for (auto& client : clients) client.join();
    EXPECT_EQ(failures.load(), 0);

    int fds = -1, threads = -1;
    for (int i = 0; i < 100; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        fds = countEntries(fd_dir);
        threads = threadCount(daemon_->pid());
        if (fds <= fds_before && threads <= threads_before) break;
    }
    EXPECT_LE(fds, fds_before);
    EXPECT_LE(threads, threads_before);
}

TEST_F(DataApiTest, ADatabaseFileDeletedInUseGivesErrorsNotACrash) {
    ASSERT_EQ(addSource("a", "a.db", {{"access_mode", "readwrite"},
                                      {"pool_config", {{"max_connections", 4}}}})
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
                auto reply = post("/api/v1/data/execute",
                                  {{"source_id", "a"}, {"sql", "INSERT INTO items(name) VALUES ('x')"}});
                if (reply.status == 200 || reply.status == 500) ++answered;
                if (reply.status == 500) {
                    ++failed;
                    EXPECT_EQ(reply.json()["success"], false);
                }
            }
        });
    }
    for (auto& client : clients) client.join();
    EXPECT_EQ(answered.load(), 40);
    json after = status("a");
    EXPECT_EQ(after["queries_failed"], failed.load());
    EXPECT_EQ(after["queries_executed"].get<int>() + after["queries_failed"].get<int>(), 40);
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
}  // namespace vostra::test
