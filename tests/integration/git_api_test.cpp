// The git routes of the real binary, as a user runs them: add a forge
// account, register a private repository, sync it, browse its files, push,
// sync again and see the new commit; on the filesystem and on S3 storage.
// The account's token opens the repository and appears nowhere else.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/git_repos.h"
#include "tests/support/http_test_client.h"
#include "tests/support/s3_test_server.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class GitApiFlow : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        std::vector<std::string> args = {"--data-dir", remote_.folder() + "/state"};
        if (std::string(GetParam()) == "s3") {
            const S3TestServer server = s3Server();
            if (!server.available) GTEST_SKIP() << "no S3 test server";
            const std::string bucket = server.newBucket("git-flow");
            ASSERT_NE(bucket, "");
            const std::vector<std::string> s3 = server.daemonArgs(bucket);
            args.insert(args.end(), s3.begin(), s3.end());
        }
        daemon_ = std::make_unique<DaemonProcess>(args);
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    }

    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "") {
        HttpResponse answer = request(daemon_->port(), method, path, body);
        answers_ += answer.raw;
        return answer;
    }

    // Every file under `folder` that holds `text`.
    static std::vector<std::string> filesHolding(const std::string& folder,
                                                 const std::string& text) {
        std::vector<std::string> found;
        std::error_code error;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, error)) {
            if (!entry.is_regular_file()) continue;
            std::ifstream in(entry.path(), std::ios::binary);
            const std::string content((std::istreambuf_iterator<char>(in)), {});
            if (content.find(text) != std::string::npos) found.push_back(entry.path().string());
        }
        return found;
    }

    BareRepo remote_;
    std::unique_ptr<DaemonProcess> daemon_;
    std::string answers_;
};

TEST_P(GitApiFlow, ClonesBrowsesAndFollowsAPrivateRepository) {
    const std::string token = "tok-flow-" + std::to_string(getpid()) + "-secret";
    PrivateGitServer server(remote_.folder(), "oauth2", token);
    ASSERT_TRUE(server.running());
    const std::string site = server.url("");
    const json account = {{"type", "gitea"},
                          {"url", site.substr(0, site.size() - 1)},
                          {"alias", "home"},
                          {"token", token}};
    ASSERT_EQ(call("POST", "/api/v1/git/forges", account.dump()).status, 201);

    const HttpResponse created =
        call("POST", "/api/v1/git/repos", json{{"url", server.url("remote.git")}}.dump());
    ASSERT_EQ(created.status, 201) << created.body;
    const std::string id = created.json()["id"];
    const std::string repo = "/api/v1/git/repos/" + id;

    HttpResponse synced = call("POST", repo + "/sync");
    ASSERT_EQ(synced.status, 200) << synced.body;
    EXPECT_EQ(synced.json()["commit"], remote_.git({"rev-parse", "HEAD"}));
    EXPECT_EQ(call("GET", repo).json()["status"], "synced");
    const json files = call("GET", repo + "/files").json()["files"];
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0]["name"], "README.md");
    EXPECT_EQ(files[0]["path"], "README.md");
    EXPECT_EQ(files[0]["is_directory"], false);
    EXPECT_EQ(call("GET", repo + "/files/README.md").body, "# Test repository\n");

    // A push is seen after the next sync: new file, changed file, new commit.
    remote_.commit("docs/guide.md", "Read me first.\n", "Add the guide");
    const std::string pushed = remote_.commit("README.md", "# Renamed\n", "Retitle");
    synced = call("POST", repo + "/sync");
    ASSERT_EQ(synced.status, 200) << synced.body;
    EXPECT_EQ(synced.json()["commit"], pushed);
    EXPECT_EQ(call("GET", repo + "/files/README.md").body, "# Renamed\n");
    EXPECT_EQ(call("GET", repo + "/files/docs/guide.md").body, "Read me first.\n");
    const json guide = call("GET", repo + "/files/docs/").json()["files"];
    ASSERT_EQ(guide.size(), 1u);
    EXPECT_EQ(guide[0]["path"], "docs/guide.md");
    const json commits = call("GET", repo + "/commits?limit=2").json()["commits"];
    ASSERT_EQ(commits.size(), 2u);
    EXPECT_EQ(commits[0]["sha"], pushed);
    EXPECT_EQ(commits[0]["message"], "Retitle");
    EXPECT_EQ(call("GET", repo + "/status").json()["status"], "synced");
    const std::string diff = call("GET", repo + "/diff?from=HEAD~1&to=HEAD").body;
    EXPECT_NE(diff.find("+# Renamed"), std::string::npos) << diff;
    const json blame = call("GET", repo + "/blame/docs/guide.md").json()["blame"];
    ASSERT_EQ(blame.size(), 1u);
    EXPECT_EQ(blame[0]["author"], "Test Author");

    // The token did its work and is found nowhere but the accounts file.
    EXPECT_NE(server.authorizationLog().find("Basic "), std::string::npos);
    EXPECT_EQ(answers_.find(token), std::string::npos);
    EXPECT_EQ(daemon_->stdoutText().find(token), std::string::npos);
    EXPECT_EQ(daemon_->stderrText().find(token), std::string::npos);
    EXPECT_EQ(filesHolding(daemon_->dir(), token), std::vector<std::string>{});
    EXPECT_EQ(filesHolding(remote_.folder() + "/state", token),
              std::vector<std::string>{remote_.folder() + "/state/forges.json"});

    ASSERT_EQ(call("DELETE", repo).status, 200);
    EXPECT_EQ(call("GET", repo).status, 404);
    EXPECT_TRUE(call("GET", "/api/v1/git/repos").json()["repos"].empty());
    EXPECT_FALSE(std::filesystem::exists(daemon_->dir() + "/git/default/" + id));
}

INSTANTIATE_TEST_SUITE_P(Backends, GitApiFlow, ::testing::Values("filesystem", "s3"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace vostra::test
