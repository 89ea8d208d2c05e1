// GitStorageManager against real repositories: a bare "remote" made with
// git, cloned through file:// (and through a private HTTP server for
// credentials); every answer is checked against what git itself reports.
#include "git/git_forge_manager.h"
#include "git/git_storage_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/support/git_repos.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;
using test::BareRepo;
using test::runGitIn;

class GitStorage : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vostra-git-storage-XXXXXX";
        folder_ = mkdtemp(pattern);
        config_.storage_path = folder_ + "/copies";
        manager_ = std::make_unique<GitStorageManager>(nullptr, config_);
        ASSERT_TRUE(manager_->initialize());
    }
    void TearDown() override {
        manager_.reset();
        fs::remove_all(folder_);
    }

    StoredRepo clone(const std::string& tenant = "acme", const std::string& branch = "") {
        StoredRepo repo;
        const Status status = manager_->cloneFromUrl(tenant, remote_.url(), branch, repo);
        EXPECT_TRUE(status) << status.message;
        return repo;
    }

    std::string folder_;
    GitStorageConfig config_;
    BareRepo remote_;
    std::unique_ptr<GitStorageManager> manager_;
};

TEST_F(GitStorage, ClonesIntoTheTenantsFolderAndRecordsIt) {
    remote_.commit("src/main.cpp", "int main() {}\n", "Add main");
    const StoredRepo repo = clone();
    EXPECT_EQ(repo.id.size(), 17u);
    EXPECT_EQ(repo.id.rfind("repo-", 0), 0u);
    EXPECT_EQ(repo.local_path, config_.storage_path + "/acme/remote");
    EXPECT_TRUE(repo.full_name.ends_with("/remote")) << repo.full_name;  // owner/repo of the URL
    EXPECT_EQ(repo.default_branch, "main");
    EXPECT_EQ(repo.sync_status, SyncStatus::Synced);
    EXPECT_EQ(repo.file_count, 2);
    EXPECT_EQ(repo.size_bytes, static_cast<int64_t>(strlen("# Test repository\n") + 14));

    // The record sits at the top of the copy, is not a change of it, and
    // comes back in a new manager.
    EXPECT_TRUE(fs::exists(repo.local_path + "/.vostra_repo.json"));
    EXPECT_EQ(runGitIn(repo.local_path, {"status", "--porcelain"}), "");
    manager_ = std::make_unique<GitStorageManager>(nullptr, config_);
    ASSERT_TRUE(manager_->initialize());
    auto reloaded = manager_->getRepository(repo.id);
    ASSERT_TRUE(reloaded);
    EXPECT_EQ(reloaded->clone_url, remote_.url());
    EXPECT_EQ(manager_->listRepositories("acme").size(), 1u);
    EXPECT_TRUE(manager_->listRepositories("other").empty());

    ASSERT_TRUE(manager_->deleteRepository(repo.id));
    EXPECT_FALSE(fs::exists(repo.local_path));
    EXPECT_EQ(manager_->deleteRepository(repo.id).kind, ErrorKind::NotFound);
}

TEST_F(GitStorage, RefusesWhatCouldRunCommandsOrEscape) {
    const std::string marker = "/tmp/vostra-clone-marker-" + std::to_string(getpid());
    StoredRepo repo;
    for (const std::string& branch :
         {"main\"; touch " + marker + "; \"", "$(touch " + marker + ")", "`touch " + marker + "`",
          std::string("--upload-pack=touch ") + marker}) {
        const Status status = manager_->cloneFromUrl("acme", remote_.url(), branch, repo);
        EXPECT_EQ(status.kind, ErrorKind::Invalid) << branch;
        EXPECT_EQ(status.message, "Invalid branch name");
    }
    EXPECT_EQ(manager_->cloneFromUrl("acme", "--upload-pack=touch " + marker, "", repo).kind,
              ErrorKind::Invalid);
    EXPECT_EQ(manager_->cloneFromUrl("acme", "ext::sh -c touch% " + marker, "", repo).kind,
              ErrorKind::Invalid);
    EXPECT_EQ(manager_->cloneFromUrl("../escape", remote_.url(), "", repo).kind,
              ErrorKind::Invalid);
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_TRUE(manager_->listAllRepositories().empty());
}

TEST_F(GitStorage, EnforcesBlockedHostsAndTenantLimits) {
    config_.blocked_domains = {"Blocked.Example"};
    config_.max_repos_per_tenant = 1;
    manager_->setConfig(config_);
    StoredRepo repo;
    EXPECT_EQ(manager_->cloneFromUrl("acme", "https://git.blocked.example/o/r", "", repo).kind,
              ErrorKind::Refused);
    EXPECT_TRUE(manager_->isDomainBlocked("https://tok@blocked.example:443/x"));
    EXPECT_FALSE(manager_->isDomainBlocked("https://notblocked.example/x"));

    clone();
    EXPECT_EQ(manager_->cloneFromUrl("acme", remote_.url(), "", repo).kind,
              ErrorKind::QuotaExceeded);
    const nlohmann::json usage = manager_->getTenantUsage("acme");
    EXPECT_EQ(usage["repos"], 1);
    EXPECT_EQ(usage["max_repos"], 1);
    EXPECT_EQ(manager_->getStats()["total_repos"], 1);
}

TEST_F(GitStorage, AFailedCloneLeavesNothingBehind) {
    StoredRepo repo;
    const Status status = manager_->cloneFromUrl("acme", remote_.url(), "no-such-branch", repo);
    EXPECT_EQ(status.kind, ErrorKind::Internal);
    EXPECT_NE(status.message.find("no-such-branch"), std::string::npos) << status.message;
    EXPECT_TRUE(manager_->listAllRepositories().empty());
    EXPECT_FALSE(fs::exists(config_.storage_path + "/acme/remote"));
    // A folder that exists already is refused, not overwritten.
    clone();
    EXPECT_EQ(manager_->cloneFromUrl("acme", remote_.url(), "", repo).kind, ErrorKind::Conflict);
}

TEST_F(GitStorage, HistoryAnswersMatchGit) {
    remote_.commit("notes.txt", "one\ntwo\n", "Add notes");
    const std::string second = remote_.commit("notes.txt", "one\ntwo|three\n", "Change | notes");
    const StoredRepo repo = clone();

    std::vector<CommitInfo> commits;
    ASSERT_TRUE(manager_->getCommits(repo.id, "", 10, commits));
    ASSERT_EQ(commits.size(), 3u);
    EXPECT_EQ(commits[0].sha, second);
    EXPECT_EQ(commits[0].message, "Change | notes");
    EXPECT_EQ(commits[0].author, "Test Author");
    EXPECT_EQ(commits[0].email, "author@example.test");
    EXPECT_EQ(std::to_string(commits[0].timestamp), remote_.git({"log", "-1", "--format=%at"}));

    std::vector<BlameLine> blame;
    ASSERT_TRUE(manager_->getBlame(repo.id, "notes.txt", blame));
    ASSERT_EQ(blame.size(), 2u);
    EXPECT_EQ(blame[0].line, "one");
    EXPECT_EQ(blame[0].sha, commits[1].sha);
    EXPECT_EQ(blame[1].line, "two|three");
    EXPECT_EQ(blame[1].sha, second);
    EXPECT_EQ(blame[1].author, "Test Author");

    std::string diff;
    ASSERT_TRUE(manager_->getDiff(repo.id, commits[1].sha, commits[0].sha, diff));
    EXPECT_EQ(diff, remote_.git({"diff", commits[1].sha, commits[0].sha}) + "\n");
    EXPECT_EQ(manager_->getDiff(repo.id, "--output=/tmp/x", "HEAD", diff).kind, ErrorKind::Invalid);
    EXPECT_EQ(manager_->getDiff(repo.id, "nope", "HEAD", diff).kind, ErrorKind::NotFound);

    std::string sha;
    ASSERT_TRUE(manager_->hashObject(repo.id, "notes.txt", sha));
    EXPECT_EQ(sha, remote_.git({"rev-parse", "HEAD:notes.txt"}));
}

TEST_F(GitStorage, ReadsFilesAndFoldersAtAnyBranch) {
    remote_.commit("src/a.cpp", "A\n", "Add a");
    remote_.commit("src/lib/b.h", "B\n", "Add b");
    remote_.commit("src/a.cpp", "A on topic\n", "Topic change", "topic");
    const StoredRepo repo = clone("acme", "main");

    std::string content;
    ASSERT_TRUE(manager_->readFile(repo.id, "src/a.cpp", "", content));
    EXPECT_EQ(content, "A\n");
    ASSERT_TRUE(manager_->readFile(repo.id, "/src/a.cpp", "topic", content));
    EXPECT_EQ(content, "A on topic\n");
    EXPECT_EQ(manager_->readFile(repo.id, "src", "", content).kind, ErrorKind::NotFound);
    EXPECT_EQ(manager_->readFile(repo.id, "../../etc/passwd", "", content).kind,
              ErrorKind::Invalid);
    EXPECT_EQ(manager_->readFile(repo.id, "src/a.cpp", "gone", content).kind, ErrorKind::NotFound);

    std::vector<RepoEntry> entries;
    ASSERT_TRUE(manager_->listDirectory(repo.id, "src", "", entries));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "a.cpp");
    EXPECT_EQ(entries[0].type, "file");
    EXPECT_EQ(entries[0].size, 2);
    EXPECT_EQ(entries[1].name, "lib");
    EXPECT_EQ(entries[1].type, "dir");
    ASSERT_TRUE(manager_->listDirectory(repo.id, "", "", entries));
    EXPECT_EQ(entries.size(), 2u);  // README.md and src; never .git
    EXPECT_EQ(manager_->listDirectory(repo.id, "missing", "", entries).kind, ErrorKind::NotFound);

    ASSERT_TRUE(manager_->getFileTree(repo.id, "", 2, entries));
    EXPECT_EQ(entries.size(), 4u);  // README.md, src, src/a.cpp, src/lib
    ASSERT_TRUE(manager_->getFileTree(repo.id, "", 0, entries));
    EXPECT_EQ(entries.size(), 5u);

    // The same through a workspace handle.
    const auto workspace = manager_->getWorkspace(repo.id);
    ASSERT_TRUE(workspace);
    EXPECT_TRUE(workspace->isDirectory("src/lib"));
    EXPECT_FALSE(workspace->isDirectory("src/a.cpp"));
    EXPECT_TRUE(workspace->exists("src/a.cpp"));
    EXPECT_FALSE(workspace->exists("src/none.cpp"));
    ASSERT_TRUE(workspace->readFile("src/a.cpp", content, "topic"));
    EXPECT_EQ(content, "A on topic\n");
    EXPECT_EQ(workspace->getLocalPath(), repo.local_path);
    EXPECT_FALSE(manager_->getWorkspace("repo-none"));

    std::vector<std::string> found;
    ASSERT_TRUE(manager_->findFiles(repo.id, "*.h", "", found));
    EXPECT_EQ(found, std::vector<std::string>{"src/lib/b.h"});
    ASSERT_TRUE(manager_->findFiles(repo.id, "src/*.cpp", "topic", found));
    EXPECT_EQ(found, std::vector<std::string>{"src/a.cpp"});
}

TEST_F(GitStorage, SyncFollowsTheRemoteAndTellsWhereItStands) {
    StoredRepo repo = clone();
    const std::string pushed = remote_.commit("later.txt", "later\n", "Later");

    SyncState state;
    ASSERT_TRUE(manager_->getSyncStatus(repo.id, state));
    EXPECT_EQ(state.status, SyncStatus::Synced);  // nothing fetched yet
    ASSERT_TRUE(manager_->syncRepository(repo.id, &state));
    EXPECT_EQ(state.status, SyncStatus::Synced);
    EXPECT_EQ(runGitIn(repo.local_path, {"rev-parse", "HEAD"}), pushed);
    EXPECT_EQ(manager_->getRepository(repo.id)->file_count, 2);

    // A local commit keeps the copy from following: ahead, then diverged.
    std::ofstream(repo.local_path + "/local.txt") << "local\n";
    runGitIn(repo.local_path, {"add", "local.txt"});
    runGitIn(repo.local_path, {"commit", "-q", "-m", "Local"});
    ASSERT_TRUE(manager_->syncRepository(repo.id, &state));
    EXPECT_EQ(state.status, SyncStatus::Ahead);
    EXPECT_EQ(state.ahead, 1);
    remote_.commit("more.txt", "more\n", "More");
    ASSERT_TRUE(manager_->syncRepository(repo.id, &state));
    EXPECT_EQ(state.status, SyncStatus::Diverged);
    EXPECT_EQ(state.behind, 1);
    EXPECT_EQ(manager_->getRepository(repo.id)->sync_status, SyncStatus::Diverged);
}

TEST_F(GitStorage, ChecksOutBranchesKnownOnlyToTheRemote) {
    const StoredRepo repo = clone();
    remote_.commit("topic.txt", "topic\n", "On topic", "topic");
    std::vector<BranchInfo> branches;
    ASSERT_TRUE(manager_->getBranches(repo.id, branches));
    ASSERT_EQ(branches.size(), 1u);
    EXPECT_TRUE(branches[0].current);

    ASSERT_TRUE(manager_->checkoutBranch(repo.id, "topic"));
    std::string current;
    ASSERT_TRUE(manager_->getCurrentBranch(repo.id, current));
    EXPECT_EQ(current, "topic");
    EXPECT_TRUE(fs::exists(repo.local_path + "/topic.txt"));
    ASSERT_TRUE(manager_->getBranches(repo.id, branches));
    ASSERT_EQ(branches.size(), 2u);
    EXPECT_EQ(branches[0].name, "main");
    EXPECT_FALSE(branches[0].current);
    EXPECT_TRUE(branches[1].current);

    EXPECT_EQ(manager_->checkoutBranch(repo.id, "-f").kind, ErrorKind::Invalid);
    EXPECT_EQ(manager_->checkoutBranch(repo.id, "absent").kind, ErrorKind::NotFound);
}

TEST_F(GitStorage, PrivateRepositoriesAuthenticateWithoutLeavingTheToken) {
    const std::string token = "tok-" + std::to_string(getpid()) + "-secret";
    test::PrivateGitServer server(remote_.folder(), "x-access-token", token);
    ASSERT_TRUE(server.running());
    StoredRepo repo;
    // Without credentials git fails at once instead of waiting for a prompt.
    EXPECT_FALSE(manager_->cloneFromUrl("acme", server.url("remote.git"), "", repo));

    const std::string with_token =
        "http://x-access-token:" + token + "@" + server.url("remote.git").substr(strlen("http://"));
    const Status cloned = manager_->cloneFromUrl("acme", with_token, "", repo);
    ASSERT_TRUE(cloned) << cloned.message;
    EXPECT_EQ(repo.clone_url, server.url("remote.git"));
    remote_.commit("private.txt", "p\n", "Private change");
    ASSERT_TRUE(manager_->syncRepository(repo.id));  // the kept credentials still work
    EXPECT_TRUE(fs::exists(repo.local_path + "/private.txt"));

    // The token reached the server, and nothing in the copy holds it.
    EXPECT_NE(server.authorizationLog().find("Basic "), std::string::npos);
    for (const auto& entry : fs::recursive_directory_iterator(repo.local_path)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), {});
        EXPECT_EQ(text.find(token), std::string::npos) << entry.path();
    }
    EXPECT_EQ(manager_->getRepository(repo.id)->toJson().dump().find(token), std::string::npos);
}

TEST_F(GitStorage, ClonesFromAForgeAccountWithItsToken) {
    const std::string token = "tok-forge-" + std::to_string(getpid());
    test::PrivateGitServer server(remote_.folder(), "oauth2", token);
    ASSERT_TRUE(server.running());
    // The forge serves "team/remote" from the bare repository.
    fs::create_directories(remote_.folder() + "/team");
    fs::create_directory_symlink(remote_.barePath(), remote_.folder() + "/team/remote.git");

    auto forges = std::make_shared<git::GitForgeManager>();
    git::ForgeConfig account;
    account.id = account.alias = "home";
    account.type = git::ForgeType::Gitea;
    const std::string site = server.url("");
    account.url = site.substr(0, site.size() - 1);
    account.auth.type = "token";
    account.auth.token = token;
    ASSERT_TRUE(forges->addForge(account));
    manager_ = std::make_unique<GitStorageManager>(forges, config_);
    ASSERT_TRUE(manager_->initialize());

    std::string url;
    ASSERT_TRUE(manager_->resolveShortUrl("home:team/remote", url));
    EXPECT_EQ(url, server.url("team/remote.git"));
    StoredRepo repo;
    const Status cloned = manager_->cloneFromForge("acme", "home", "team/remote", "main", repo);
    ASSERT_TRUE(cloned) << cloned.message;
    EXPECT_EQ(repo.forge_id, "home");
    EXPECT_EQ(repo.full_name, "team/remote");
    EXPECT_EQ(repo.clone_url, url);
    EXPECT_TRUE(manager_->getRepositoryByName("acme", "team/remote"));
    EXPECT_EQ(manager_->cloneFromForge("acme", "nobody", "team/remote", "", repo).kind,
              ErrorKind::NotFound);
    EXPECT_EQ(manager_->cloneFromForge("acme", "home", "no-owner", "", repo).kind,
              ErrorKind::Invalid);
}

TEST_F(GitStorage, AutoSyncFollowsTheRemoteOnItsOwn) {
    config_.auto_sync_interval_minutes = 1;
    manager_->setConfig(config_);
    StoredRepo repo = clone();
    const std::string pushed = remote_.commit("auto.txt", "auto\n", "Auto");
    // Pretend the last sync was long ago, then wake the thread by
    // restarting the manager.
    ASSERT_TRUE(manager_->setAutoSync(repo.id, true));
    repo = *manager_->getRepository(repo.id);
    repo.last_synced = 0;
    std::ofstream(repo.local_path + "/.vostra_repo.json") << repo.toJson().dump();
    manager_ = std::make_unique<GitStorageManager>(nullptr, config_);
    ASSERT_TRUE(manager_->initialize());
    for (int i = 0; i < 200 && runGitIn(repo.local_path, {"rev-parse", "HEAD"}) != pushed; ++i)
        usleep(50 * 1000);
    EXPECT_EQ(runGitIn(repo.local_path, {"rev-parse", "HEAD"}), pushed);
}

TEST(GitStorageRecords, TypesAndKeysAreAsDocumented) {
    EXPECT_EQ(GitStorageManager::getMimeType("a/b.hpp"), "text/x-c++");
    EXPECT_EQ(GitStorageManager::getMimeType("x.yml"), "text/yaml");
    EXPECT_EQ(GitStorageManager::getMimeType("Makefile"), "application/octet-stream");
    EXPECT_EQ(GitStorageManager::getMimeType(".bash"), "application/octet-stream");
    EXPECT_TRUE(GitStorageManager::isBinaryContent(std::string("PK\0\3", 4)));
    EXPECT_FALSE(GitStorageManager::isBinaryContent("plain text"));
    EXPECT_FALSE(GitStorageManager::isBinaryContent(std::string(8000, 'a') + '\0'));

    StoredRepo repo;
    repo.id = "repo-0123456789ab";
    std::vector<std::string> keys;
    const nlohmann::ordered_json json = repo.toJson();
    for (const auto& [key, value] : json.items())
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{
                        "id", "tenant_id", "forge_id", "full_name", "clone_url", "local_path",
                        "default_branch", "sync_status", "sync_error", "size_bytes", "file_count",
                        "cloned_at", "last_synced", "last_accessed", "metadata", "auto_sync"}));
    EXPECT_EQ(StoredRepo::fromJson({{"sync_status", "sideways"}}).sync_status, SyncStatus::Unknown);
    EXPECT_EQ(StoredRepo::fromJson(nlohmann::json::parse(repo.toJson().dump())).id, repo.id);
}

}  // namespace
}  // namespace vostra::data
