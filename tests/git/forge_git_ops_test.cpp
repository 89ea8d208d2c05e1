// Clone, pull and push through a forge client, against a bare repository
// made in the test and reached by a file:// URL.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "git/git_forge_factory.h"
#include "tests/git/fake_forge.h"

namespace vostra::git {
namespace {

namespace fs = std::filesystem;

// Runs git in `folder` and fails the test when git does.
std::string git(const std::string& folder, std::vector<std::string> args) {
    args.insert(args.begin(), {"-c", "user.name=Test", "-c", "user.email=test@example.com"});
    GitRunOptions options;
    options.work_dir = folder;
    options.timeout_seconds = 30;
    const GitRunResult result = runGit(args, options);
    EXPECT_TRUE(result.ok()) << result.failureText();
    return result.output;
}

void commitFile(const std::string& checkout, const std::string& name, const std::string& text) {
    std::ofstream(checkout + "/" + name) << text;
    git(checkout, {"add", name});
    git(checkout, {"commit", "-q", "-m", "add " + name});
}

class ForgeGitOperations : public ::testing::Test {
protected:
    void SetUp() override {
        bare = folder.path() + "/origin.git";
        url = "file://" + bare;
        const std::string seed = folder.path() + "/seed";
        git(folder.path(), {"init", "-q", "--bare", "--initial-branch=main", bare});
        git(folder.path(), {"clone", "-q", url, seed});
        commitFile(seed, "one.txt", "1");
        commitFile(seed, "two.txt", "2");
        git(seed, {"push", "-q", "origin", "HEAD:main"});
        forge = GitForgeFactory::create(test::testForgeConfig(ForgeType::GitLab, "https://gl"));
        progress = [this](const std::string& text) { reported.push_back(text); };
    }

    test::TempFolder folder;
    std::string bare;
    std::string url;
    std::unique_ptr<GitForge> forge;
    std::vector<std::string> reported;
    GitForge::ProgressCallback progress;
};

TEST_F(ForgeGitOperations, ClonesTheBranchToTheDepthAsked) {
    const std::string checkout = folder.path() + "/shallow";
    const ForgeStatus cloned = forge->cloneRepository(url, checkout, {"main", 1}, progress);
    ASSERT_TRUE(cloned) << cloned.error;
    EXPECT_EQ(reported, (std::vector<std::string>{"Starting clone...", "Clone complete"}));
    EXPECT_TRUE(fs::exists(checkout + "/two.txt"));
    EXPECT_EQ(git(checkout, {"rev-parse", "--is-shallow-repository"}), "true\n");
    EXPECT_EQ(git(checkout, {"rev-parse", "--abbrev-ref", "HEAD"}), "main\n");
}

TEST_F(ForgeGitOperations, PushesAndPullsThroughOrigin) {
    const std::string writer = folder.path() + "/writer";
    const std::string reader = folder.path() + "/reader";
    ASSERT_TRUE(forge->cloneRepository(url, writer, {}, nullptr));
    ASSERT_TRUE(forge->cloneRepository(url, reader, {}, nullptr));

    commitFile(writer, "three.txt", "3");
    const ForgeStatus pushed = forge->pushRepository(writer, progress);
    ASSERT_TRUE(pushed) << pushed.error;
    const ForgeStatus pulled = forge->pullRepository(reader, progress);
    ASSERT_TRUE(pulled) << pulled.error;

    EXPECT_EQ(reported, (std::vector<std::string>{"Pushing changes...", "Push complete",
                                                  "Pulling changes...", "Pull complete"}));
    EXPECT_TRUE(fs::exists(reader + "/three.txt"));
    EXPECT_EQ(git(reader, {"rev-parse", "HEAD"}), git(writer, {"rev-parse", "HEAD"}));
}

TEST_F(ForgeGitOperations, ReportsFailuresWithoutClaimingCompletion) {
    const ForgeStatus missing =
        forge->cloneRepository(url + "-missing", folder.path() + "/x", {}, progress);
    EXPECT_FALSE(missing);
    EXPECT_TRUE(missing.error.starts_with("Clone failed: ")) << missing.error;
    EXPECT_EQ(reported, std::vector<std::string>{"Starting clone..."});

    EXPECT_FALSE(forge->cloneRepository(url, folder.path() + "/y", {"-x", 0}, nullptr));
    EXPECT_FALSE(forge->cloneRepository("--upload-pack=touch", folder.path() + "/z", {}, nullptr));
    EXPECT_FALSE(fs::exists(folder.path() + "/z"));

    const ForgeStatus not_a_checkout = forge->pullRepository(folder.path(), nullptr);
    EXPECT_FALSE(not_a_checkout);
    EXPECT_TRUE(not_a_checkout.error.starts_with("Pull failed: ")) << not_a_checkout.error;
}

}  // namespace
}  // namespace vostra::git
