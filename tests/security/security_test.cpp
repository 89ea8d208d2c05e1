// Keys, failure counting and the SQLite path rule: what is accepted, what
// is kept on disk (never a secret), and the ways around a rule that must
// not work (links, lookalike folders, the daemon's own files).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "security/api_key_store.h"
#include "security/failure_limiter.h"
#include "security/sqlite_roots.h"

namespace vostra::security {
namespace {

namespace fs = std::filesystem;
using Kind = Principal::Kind;

class TempDir {
public:
    TempDir() {
        char path[] = "/tmp/vostra-security-XXXXXX";
        path_ = mkdtemp(path);
    }
    ~TempDir() { fs::remove_all(path_); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(ApiKeyStore, TenantKeysAuthenticateOnlyTheirTenantAndSurviveReload) {
    TempDir dir;
    const std::string file = dir.path() + "/keys/tenant_keys.json";
    ApiKeyStore store(file);
    ASSERT_TRUE(store.load());
    IssuedKey first, second;
    ASSERT_TRUE(store.issue("acme", first));
    ASSERT_TRUE(store.issue("acme", second));
    EXPECT_TRUE(first.key.starts_with("acme."));
    EXPECT_NE(first.key, second.key);
    EXPECT_NE(first.id, second.id);

    const Principal who = store.authenticate(first.key);
    EXPECT_EQ(who.kind, Kind::Tenant);
    EXPECT_EQ(who.tenant, "acme");
    // The secret of one tenant under another's name, a cut or grown
    // secret, and nothing at all are all unknown.
    const std::string secret = first.key.substr(5);
    for (const std::string& wrong : {"beta." + secret, first.key.substr(0, first.key.size() - 1),
                                     first.key + "0", secret, std::string("acme."), std::string()})
        EXPECT_EQ(store.authenticate(wrong).kind, Kind::None) << wrong;

    // Only salted hashes reach the disk, readable by the owner alone.
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    const std::string stored = slurp(file);
    EXPECT_EQ(stored.find(secret), std::string::npos);
    EXPECT_NE(stored.find(first.id), std::string::npos);

    ApiKeyStore reloaded(file);
    ASSERT_TRUE(reloaded.load());
    EXPECT_EQ(reloaded.authenticate(second.key).tenant, "acme");
    ASSERT_EQ(reloaded.list("acme").size(), 2u);
    EXPECT_TRUE(reloaded.list("acme")[0].key.empty());
    EXPECT_FALSE(reloaded.list("acme")[0].toJson().contains("key"));

    ASSERT_TRUE(reloaded.revoke("acme", first.id));
    EXPECT_EQ(reloaded.authenticate(first.key).kind, Kind::None);
    EXPECT_EQ(reloaded.authenticate(second.key).kind, Kind::Tenant);
    EXPECT_EQ(reloaded.revoke("beta", second.id).kind, ErrorKind::NotFound);
    EXPECT_EQ(reloaded.revoke("acme", first.id).kind, ErrorKind::NotFound);
    ApiKeyStore after_revoke(file);
    ASSERT_TRUE(after_revoke.load());
    EXPECT_EQ(after_revoke.authenticate(first.key).kind, Kind::None);

    IssuedKey refused;
    EXPECT_EQ(store.issue("../etc", refused).kind, ErrorKind::Invalid);
    EXPECT_EQ(store.issue("a.b", refused).kind, ErrorKind::Invalid);
    std::ofstream(file) << "not json";
    EXPECT_EQ(ApiKeyStore(file).load().kind, ErrorKind::Internal);
}

TEST(ApiKeyStore, AdminKeysComeFromTheConfigurationAndTheirFile) {
    TempDir dir;
    ApiKeyStore store("");
    store.setAdminKeys({"first-admin", ""});
    const std::string file = dir.path() + "/admin_keys";
    std::ofstream(file) << "# operators\n\n  second-admin  \nthird.admin\n";
    ASSERT_TRUE(store.loadAdminKeyFile(file));
    EXPECT_EQ(store.adminKeyCount(), 3u);
    for (const char* key : {"first-admin", "second-admin", "third.admin"})
        EXPECT_EQ(store.authenticate(key).kind, Kind::Admin) << key;
    for (const char* key : {"", "# operators", "first-admin ", "second-admin  "})
        EXPECT_EQ(store.authenticate(key).kind, Kind::None) << key;
    EXPECT_EQ(store.loadAdminKeyFile(dir.path() + "/missing").kind, ErrorKind::Internal);
}

// Statistical: medians of interleaved samples, a few rounds, so a busy
// machine cannot fail it by chance while a prefix-dependent comparison
// (which would differ by the whole key length) still would.
TEST(ApiKeyStore, RejectingAWrongKeyTakesAsLongHoweverMuchOfItMatches) {
    ApiKeyStore store("");
    const std::string admin(64, 'k');
    store.setAdminKeys({admin});
    IssuedKey tenant;
    ASSERT_TRUE(store.issue("acme", tenant));
    auto median_ratio = [&](const std::string& near, const std::string& far) {
        std::vector<int64_t> near_ns, far_ns;
        for (int i = 0; i < 3000; ++i) {
            for (auto [key, out] : {std::pair{&near, &near_ns}, std::pair{&far, &far_ns}}) {
                const auto begin = std::chrono::steady_clock::now();
                EXPECT_FALSE(store.authenticate(*key).known());
                out->push_back((std::chrono::steady_clock::now() - begin).count());
            }
        }
        std::nth_element(near_ns.begin(), near_ns.begin() + 1500, near_ns.end());
        std::nth_element(far_ns.begin(), far_ns.begin() + 1500, far_ns.end());
        return static_cast<double>(near_ns[1500]) / static_cast<double>(std::max<int64_t>(1, far_ns[1500]));
    };
    std::string almost_admin = admin, almost_tenant = tenant.key;
    almost_admin.back() = 'x';
    almost_tenant.back() = almost_tenant.back() == '0' ? '1' : '0';
    std::string far_tenant = tenant.key;
    far_tenant[5] = far_tenant[5] == '0' ? '1' : '0';
    for (const auto& [near, far] : {std::pair{almost_admin, std::string(64, 'z')}, std::pair{almost_tenant, far_tenant}}) {
        bool similar = false;
        for (int round = 0; round < 3 && !similar; ++round) {
            const double ratio = median_ratio(near, far);
            similar = ratio > 0.7 && ratio < 1.4;
        }
        EXPECT_TRUE(similar) << near;
    }
}

TEST(FailureLimiter, BlocksAfterTheLimitWithinTheWindowThenForgives) {
    using std::chrono::seconds;
    FailureLimiter limiter(3, seconds(60), seconds(60), 2);
    const auto t0 = FailureLimiter::Clock::time_point{} + seconds(1000);
    EXPECT_FALSE(limiter.recordFailure("a", t0));
    EXPECT_FALSE(limiter.recordFailure("a", t0 + seconds(30)));
    EXPECT_FALSE(limiter.blocked("a", t0 + seconds(30)));
    // A failure that left the window no longer counts.
    EXPECT_FALSE(limiter.recordFailure("a", t0 + seconds(61)));
    EXPECT_TRUE(limiter.recordFailure("a", t0 + seconds(62)));
    EXPECT_TRUE(limiter.blocked("a", t0 + seconds(62)));
    EXPECT_TRUE(limiter.blocked("a", t0 + seconds(121)));
    EXPECT_FALSE(limiter.blocked("a", t0 + seconds(122)));
    EXPECT_FALSE(limiter.blocked("b", t0 + seconds(62)));

    // Many addresses: memory stays at the cap, and the blocked one is kept
    // while there is room to forget stale ones.
    for (int i = 0; i < 100; ++i) limiter.recordFailure("x" + std::to_string(i), t0 + seconds(200));
    EXPECT_FALSE(limiter.blocked("x0", t0 + seconds(200)));
}

TEST(SqlitePathRules, RootsAreCheckedAfterLinksAndStateIsNeverOpened) {
    TempDir dir;
    const std::string root = dir.path() + "/dbs";
    fs::create_directories(root + "/sub");
    fs::create_directories(dir.path() + "/dbs-other");
    fs::create_directories(dir.path() + "/state");
    fs::create_symlink("/etc/passwd", root + "/passwd.db");
    fs::create_symlink(dir.path() + "/dbs-other", root + "/out");
    SqlitePathRules rules;
    rules.roots = {root};
    rules.protected_paths = {dir.path() + "/state", dir.path() + "/keys.json", ""};

    EXPECT_EQ(sqlitePathProblem(root + "/a.db", rules), "");
    EXPECT_EQ(sqlitePathProblem(root + "/sub/new.db", rules), "");
    EXPECT_EQ(sqlitePathProblem("", rules), "");
    EXPECT_EQ(sqlitePathProblem(":memory:", rules), "");
    for (const std::string& outside :
         {std::string("/etc/passwd"), root + "/passwd.db", root + "/out/x.db", root + "/../dbs-other/x.db",
          dir.path() + "/dbs-other/x.db", std::string("relative.db")}) {
        const std::string problem = sqlitePathProblem(outside, rules);
        EXPECT_TRUE(problem.starts_with("SQLite sources must lie under " + root)) << outside << ": " << problem;
    }
    rules.roots.clear();
    EXPECT_EQ(sqlitePathProblem("/etc/passwd", rules), "");
    for (const std::string& state : {dir.path() + "/state/data_sources.json", dir.path() + "/keys.json",
                                     dir.path() + "/state/../state/x"})
        EXPECT_TRUE(sqlitePathProblem(state, rules).starts_with("The daemon's own state")) << state;
    // A dangling link (SQLite would create its target) and ".." after a link.
    fs::create_symlink(dir.path() + "/keys.json", root + "/keys.db");
    EXPECT_TRUE(sqlitePathProblem(root + "/keys.db", rules).starts_with("The daemon's own state"));
    fs::create_symlink(dir.path() + "/state/deep", root + "/deep");
    fs::create_directories(dir.path() + "/state/deep");
    rules.roots = {root};
    EXPECT_FALSE(sqlitePathProblem(root + "/deep/../x.db", rules).empty());
}

}  // namespace
}  // namespace vostra::security
