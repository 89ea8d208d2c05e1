// The real binary in "keys" mode: who reaches which area, keys across a
// restart and revoked at once, guessing stopped by 429, SQLite sources kept
// inside their folders, and HTTPS checked with curl and openssl.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* kAdminKey = "admin-key-for-tests";

class AuthApi : public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-auth-api"); }
    void TearDown() override {
        daemon_.reset();
        removeTree(dir_);
    }
    void start(json settings = json::object()) {
        json config = {{"auth_mode", "keys"},
                       {"admin_api_keys", {kAdminKey}},
                       {"data_dir", dir_ + "/state"},
                       {"storage_path", dir_ + "/storage"}};
        config.update(settings);
        daemon_.reset();
        daemon_ = std::make_unique<DaemonProcess>(ConfigFile{config});
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }
    HttpResponse call(const std::string& key, const std::string& method, const std::string& path,
                      const std::string& body = "", std::vector<std::string> headers = {}) {
        if (!key.empty()) headers.push_back("X-API-Key: " + key);
        return request(daemon_->port(), method, path, body, headers);
    }
    HttpResponse admin(const std::string& method, const std::string& path, const std::string& body = "") {
        return call(kAdminKey, method, path, body);
    }
    std::string issue(const std::string& tenant) {
        const HttpResponse made = admin("POST", "/api/v1/auth/tenants/" + tenant + "/keys");
        EXPECT_EQ(made.status, 201) << made.body;
        return json::parse(made.body, nullptr, false).value("key", "");
    }

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(AuthApi, EachKindOfKeyReachesWhatItMay) {
    start();
    for (const char* tenant : {"acme", "beta"})
        ASSERT_EQ(admin("POST", "/api/v1/tenants", json{{"id", tenant}, {"enabled", true}}.dump()).status, 201);
    ASSERT_EQ(admin("PUT", "/api/v1/storage/acme/f.txt", "acme's file").status, 201);
    const std::string acme = issue("acme"), beta = issue("beta");
    const std::string unknown = "acme.0123456789abcdef0123456789abcdef0123456789abcdef";

    struct Row {
        std::string method, path, body;
        int none, unknown_key, tenant_a, tenant_b, admin;
    };
    const std::vector<Row> rows = {
        {"GET", "/health", "", 200, 200, 200, 200, 200},
        {"GET", "/", "", 302, 302, 302, 302, 302},
        {"GET", "/api/v1/storage/acme/f.txt", "", 401, 401, 200, 403, 200},
        {"PUT", "/api/v1/storage/acme/g.txt", "g", 401, 401, 201, 403, 201},
        {"GET", "/api/v1/storage/beta/", "", 401, 401, 403, 200, 200},
        {"GET", "/api/v1/workspaces", "", 401, 401, 200, 200, 200},
        {"GET", "/api/v1/skills", "", 401, 401, 200, 200, 200},
        {"GET", "/api/v1/git/repos", "", 401, 401, 200, 200, 200},
        {"GET", "/api/v1/vector/namespaces/acme", "", 401, 401, 503, 403, 503},
        {"GET", "/api/v1/tenants/acme/usage", "", 401, 401, 200, 403, 200},
        {"GET", "/api/v1/tenants", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/data/sources", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/nfs/config", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/git/forges", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/science/api-keys", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/vector/config", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/info", "", 401, 401, 403, 403, 200},
        {"GET", "/api/v1/auth/tenants/acme/keys", "", 401, 401, 403, 403, 200},
    };
    for (const Row& row : rows) {
        const std::string what = row.method + " " + row.path;
        EXPECT_EQ(call("", row.method, row.path, row.body).status, row.none) << what;
        EXPECT_EQ(call(unknown, row.method, row.path, row.body).status, row.unknown_key) << what;
        EXPECT_EQ(call(acme, row.method, row.path, row.body).status, row.tenant_a) << what;
        EXPECT_EQ(call(beta, row.method, row.path, row.body).status, row.tenant_b) << what;
        EXPECT_EQ(call(kAdminKey, row.method, row.path, row.body).status, row.admin) << what;
    }
    EXPECT_EQ(call("", "GET", "/api/v1/tenants").outcome(), "401 Authentication required");
    EXPECT_EQ(call(acme, "GET", "/api/v1/tenants").outcome(), "403 Forbidden");
    // A tenant key acts for its tenant, whatever the header says.
    EXPECT_EQ(call(acme, "GET", "/api/v1/workspaces", "", {"X-Tenant-Id: beta"}).status, 403);
    EXPECT_EQ(request(daemon_->port(), "GET", "/api/v1/storage/acme/f.txt", "", {"Authorization: Bearer " + acme}).body,
              "acme's file");
    EXPECT_EQ(json::parse(call(beta, "GET", "/api/v1/auth/whoami").body)["tenant_id"], "beta");
    // No key ever appears in what the daemon wrote.
    for (const std::string& text : {daemon_->stdoutText(), daemon_->stderrText()}) {
        EXPECT_EQ(text.find(acme.substr(5)), std::string::npos);
        EXPECT_EQ(text.find(kAdminKey), std::string::npos);
    }
}

TEST_F(AuthApi, KeysSurviveARestartAndRevocationTakesEffectAtOnce) {
    start();
    const std::string key = issue("acme");
    const json listed = json::parse(admin("GET", "/api/v1/auth/tenants/acme/keys").body)["keys"];
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_FALSE(listed[0].contains("key"));
    EXPECT_TRUE(listed[0]["created_at"].is_number());
    const std::string id = listed[0]["id"];

    start();
    EXPECT_EQ(call(key, "GET", "/api/v1/workspaces").status, 200);
    EXPECT_EQ(admin("DELETE", "/api/v1/auth/tenants/acme/keys/" + id).status, 200);
    EXPECT_EQ(call(key, "GET", "/api/v1/workspaces").status, 401);
    EXPECT_EQ(admin("DELETE", "/api/v1/auth/tenants/acme/keys/" + id).outcome(), "404 API key not found");
    start();
    EXPECT_EQ(call(key, "GET", "/api/v1/workspaces").status, 401);
    // Keys live in their own file only, never in the tenant table.
    std::ifstream tenants(dir_ + "/storage/system/tenants.json");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(tenants), {}).find(key.substr(5)), std::string::npos);
}

TEST_F(AuthApi, RepeatedWrongKeysAreAnsweredTooManyRequests) {
    start();
    std::vector<int> statuses;
    for (int i = 0; i < 25; ++i) statuses.push_back(call("wrong-" + std::to_string(i), "GET", "/api/v1/tenants").status);
    EXPECT_EQ(std::count(statuses.begin(), statuses.begin() + 20, 401), 20);
    EXPECT_EQ(std::count(statuses.begin() + 20, statuses.end(), 429), 5);
    // The address is refused whatever it presents, health aside.
    EXPECT_EQ(admin("GET", "/api/v1/tenants").outcome(), "429 Too many failed authentications");
    EXPECT_EQ(call("", "GET", "/health").status, 200);
}

TEST_F(AuthApi, SqliteSourcesStayInsideTheirFolders) {
    start();
    fs::create_directories(dir_ + "/state");
    fs::create_symlink("/etc/passwd", dir_ + "/state/passwd.db");
    auto add = [&](const std::string& id, const std::string& path) {
        return admin("POST", "/api/v1/data/sources",
                     json{{"id", id}, {"type", "sqlite"}, {"path", path}, {"access_mode", "readwrite"}}.dump());
    };
    for (const std::string& path : {std::string("/etc/passwd"), dir_ + "/state/passwd.db"}) {
        const HttpResponse refused = add("p", path);
        EXPECT_EQ(refused.status, 400) << path;
        EXPECT_NE(refused.body.find("SQLite sources must lie under"), std::string::npos) << refused.body;
    }
    const HttpResponse state = add("k", dir_ + "/state/tenant_keys.json");
    EXPECT_EQ(state.status, 400);
    EXPECT_NE(state.body.find("The daemon's own state cannot be a data source"), std::string::npos) << state.body;
    EXPECT_EQ(add("ok", dir_ + "/state/mine.db").status, 201);

    // A root of the operator's choosing replaces the default one.
    fs::create_directories(dir_ + "/dbs");
    start({{"sqlite_roots", {dir_ + "/dbs"}}});
    EXPECT_EQ(add("inside", dir_ + "/dbs/a.db").status, 201);
    EXPECT_EQ(add("outside", dir_ + "/state/b.db").status, 400);
}

TEST_F(AuthApi, HttpsServesEveryRouteWithModernProtocolsOnly) {
    const std::string cert = dir_ + "/cert.pem", key = dir_ + "/key.pem";
    int status = -1;
    runCommand("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -addext "
               "subjectAltName=IP:127.0.0.1 -keyout " + key + " -out " + cert + " 2>/dev/null",
               &status);
    ASSERT_EQ(status, 0);

    // A certificate that cannot be loaded stops start-up, saying which.
    const ProgramRun refused = runDaemonBinary(
        {"-p", std::to_string(freePort()), "--storage-path", dir_ + "/s", "--tls-cert", dir_ + "/missing.pem",
         "--tls-key", key});
    EXPECT_EQ(refused.exit_status, 1);
    EXPECT_NE(refused.err.find("Cannot load the TLS certificate " + dir_ + "/missing.pem"), std::string::npos)
        << refused.err;

    daemon_ = std::make_unique<DaemonProcess>(
        std::vector<std::string>{"--tls-cert", cert, "--tls-key", key, "--auth-mode", "keys"}, false);
    const std::string base = "https://127.0.0.1:" + std::to_string(daemon_->port());
    const std::string curl = "curl -s --max-time 10 --cacert " + cert + " ";
    ASSERT_TRUE(eventually([&] { return runCommand(curl + base + "/health").find("healthy") != std::string::npos; }))
        << daemon_->stderrText();
    EXPECT_EQ(runCommand(curl + "-o /dev/null -w '%{http_code}' " + base + "/api/v1/tenants"), "401");

    // A 3 MB upload and its download, byte for byte, through the relay.
    std::string payload;
    for (int i = 0; payload.size() < (3u << 20); ++i) payload += std::to_string(i) + ",";
    std::ofstream(dir_ + "/payload.txt") << payload;
    EXPECT_EQ(runCommand(curl + "-o /dev/null -w '%{http_code}' -X PUT --data-binary @" + dir_ +
                         "/payload.txt -H 'X-API-Key: x' " + base + "/api/v1/storage/default/p.txt"),
              "401");
    daemon_.reset();
    daemon_ = std::make_unique<DaemonProcess>(std::vector<std::string>{"--tls-cert", cert, "--tls-key", key}, false);
    const std::string base2 = "https://127.0.0.1:" + std::to_string(daemon_->port());
    ASSERT_TRUE(eventually([&] { return runCommand(curl + base2 + "/health").find("healthy") != std::string::npos; }));
    EXPECT_EQ(runCommand(curl + "-o /dev/null -w '%{http_code}' -X PUT --data-binary @" + dir_ + "/payload.txt " +
                         base2 + "/api/v1/storage/default/p.txt"),
              "201");
    runCommand(curl + "-o " + dir_ + "/back.txt " + base2 + "/api/v1/storage/default/p.txt");
    std::ifstream back(dir_ + "/back.txt");
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(back), {}) == payload);

    // Plain HTTP gets no answer; TLS 1.1 is refused; 1.2 and 1.3 are spoken.
    EXPECT_NE(request(daemon_->port(), "GET", "/health").status, 200);
    const std::string s_client = "echo | openssl s_client -connect 127.0.0.1:" + std::to_string(daemon_->port()) +
                                 " -CAfile " + cert + " ";
    EXPECT_EQ(runCommand(s_client + "-tls1_1 2>&1").find("Cipher is TLS"), std::string::npos);
    EXPECT_NE(runCommand(s_client + "-tls1_2 2>&1").find("Protocol  : TLSv1.2"), std::string::npos);
    EXPECT_NE(runCommand(s_client + "2>&1").find("TLSv1.3"), std::string::npos);
}

}  // namespace
}  // namespace vostra::test
