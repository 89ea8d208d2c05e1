// The forge table: lookups by id and alias, the default forge, resolving
// short names and URLs to a forge and repository, persistence, and the
// factory that makes the clients.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "git/forges_config.h"
#include "git/git_forge_factory.h"
#include "git/git_forge_manager.h"
#include "tests/git/fake_forge.h"

namespace vostra::git {
namespace {

using test::testForgeConfig;

ForgeConfig forge(const std::string& id, const std::string& alias, ForgeType type,
                  const std::string& url) {
    ForgeConfig config = testForgeConfig(type, url);
    config.id = id;
    config.alias = alias;
    return config;
}

class GitForgeManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(manager.addForge(
            forge("github-main", "gh", ForgeType::GitHub, "https://github.example.com")));
        ASSERT_TRUE(manager.addForge(
            forge("lab", "gl", ForgeType::GitLab, "https://gitlab.example.com/code")));
    }
    GitForgeManager manager;
};

TEST_F(GitForgeManagerTest, FindsForgesByIdAndAlias) {
    EXPECT_EQ(manager.getForge("github-main")->getType(), ForgeType::GitHub);
    EXPECT_EQ(manager.getForgeByAlias("gl")->getType(), ForgeType::GitLab);
    EXPECT_EQ(manager.getForge("gl"), manager.getForge("lab"));
    EXPECT_EQ(manager.getForgeByAlias("lab"), nullptr);
    EXPECT_EQ(manager.getForge("nope"), nullptr);

    const auto listed = manager.listForges();
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[0].id, "github-main");
    EXPECT_EQ(listed[1].id, "lab");
}

TEST_F(GitForgeManagerTest, RefusesNamesInUseAndForgesWithoutClient) {
    EXPECT_FALSE(manager.addForge(forge("other", "gh", ForgeType::Gitea, "https://x")));
    EXPECT_FALSE(manager.addForge(forge("gl", "fresh", ForgeType::Gitea, "https://x")));
    EXPECT_FALSE(manager.addForge(forge("bb", "bb", ForgeType::Bitbucket, "https://x")));
    EXPECT_FALSE(manager.addForge(forge("", "", ForgeType::Gitea, "https://x")));
    EXPECT_EQ(manager.listForges().size(), 2u);

    ASSERT_TRUE(manager.addForge(forge("", "tea", ForgeType::Gitea, "https://tea.example.com")));
    EXPECT_EQ(manager.getForge("tea")->getConfig().id, "tea");
}

TEST_F(GitForgeManagerTest, DefaultIsChosenOrFirstAndForgottenOnRemoval) {
    EXPECT_EQ(manager.getDefaultForge(), manager.getForge("github-main"));
    EXPECT_FALSE(manager.setDefaultForge("nope"));
    ASSERT_TRUE(manager.setDefaultForge("gl"));
    EXPECT_EQ(manager.defaultForgeId(), "lab");
    EXPECT_EQ(manager.getDefaultForge(), manager.getForge("lab"));

    const auto held = manager.getForge("lab");
    EXPECT_TRUE(manager.removeForge("gl"));
    EXPECT_FALSE(manager.removeForge("gl"));
    EXPECT_EQ(manager.defaultForgeId(), "");
    EXPECT_EQ(manager.getDefaultForge(), manager.getForge("github-main"));
    EXPECT_EQ(held->getType(), ForgeType::GitLab) << "a client in use outlives its removal";
}

TEST_F(GitForgeManagerTest, ResolvesShortNamesAndUrls) {
    struct Case {
        const char* text;
        const char* forge_id;
        const char* owner;
        const char* repo;
    };
    const Case cases[] = {
        {"gh:octo/hello", "github-main", "octo", "hello"},
        {"gh/octo/hello.git", "github-main", "octo", "hello"},
        {"lab:group/sub/app", "lab", "group/sub", "app"},
        {"https://github.example.com/octo/hello/tree/main?x=1", "github-main", "octo", "hello"},
        {"https://GitHub.example.com/octo/hello.git", "github-main", "octo", "hello"},
        {"https://gitlab.example.com/code/group/sub/app/-/issues/3", "lab", "group/sub", "app"},
        {"git@gitlab.example.com:code/group/app.git", "lab", "group", "app"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const auto resolved = manager.resolveUrl(c.text);
        ASSERT_TRUE(resolved);
        EXPECT_EQ(resolved->forge, manager.getForge(c.forge_id));
        EXPECT_EQ(resolved->owner, c.owner);
        EXPECT_EQ(resolved->repo, c.repo);
    }
    for (const char* unknown : {"nope:octo/hello", "https://elsewhere.org/octo/hello",
                                "https://github.example.com/octo", "gh:hello", ""})
        EXPECT_FALSE(manager.resolveUrl(unknown)) << unknown;

    EXPECT_EQ(manager.forgeForUrl("https://gitlab.example.com/x/y.git"), manager.getForge("lab"));
    EXPECT_EQ(manager.forgeForUrl("file:///srv/git/x.git"), nullptr);
}

TEST_F(GitForgeManagerTest, SavesAndLoadsTheTable) {
    test::TempFolder folder;
    const std::string path = folder.path() + "/" + kForgesFileName;
    ASSERT_TRUE(manager.setDefaultForge("lab"));
    ASSERT_TRUE(manager.saveConfig(path));

    GitForgeManager restored;
    ASSERT_TRUE(restored.loadConfig(path));
    ASSERT_EQ(restored.listForges().size(), 2u);
    EXPECT_EQ(restored.defaultForgeId(), "lab");
    EXPECT_EQ(restored.getForge("gh")->getConfig().auth.token, test::kTestToken);

    EXPECT_TRUE(restored.loadConfig(folder.path() + "/missing.json"));
    EXPECT_TRUE(restored.listForges().empty());
}

TEST_F(GitForgeManagerTest, ServesLookupsWhileTheTableChanges) {
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            EXPECT_NE(manager.getForge("gh"), nullptr);
            (void)manager.resolveUrl("gl:group/app");
            (void)manager.listForges();
        }
    });
    for (int i = 0; i < 200; ++i) {
        const std::string id = "f" + std::to_string(i % 3);
        manager.addForge(forge(id, id, ForgeType::Gitea, "https://tea.example.com"));
        manager.removeForge(id);
    }
    done = true;
    reader.join();
    EXPECT_EQ(manager.listForges().size(), 2u);
}

TEST(GitForgeFactory, MakesTheClientForEachForge) {
    EXPECT_EQ(GitForgeFactory::create(ForgeType::GitHub)->getType(), ForgeType::GitHub);
    EXPECT_EQ(GitForgeFactory::create(ForgeType::GitLab)->getType(), ForgeType::GitLab);
    EXPECT_EQ(GitForgeFactory::create(ForgeType::Gitea)->getType(), ForgeType::Gitea);
    EXPECT_EQ(GitForgeFactory::create(ForgeType::Bitbucket), nullptr);
    EXPECT_EQ(GitForgeFactory::create(ForgeType::Unknown), nullptr);

    EXPECT_EQ(GitForgeFactory::typeFromUrl("https://github.com/o/r"), ForgeType::GitHub);
    EXPECT_EQ(GitForgeFactory::typeFromUrl("git@gitlab.com:o/r.git"), ForgeType::GitLab);
    EXPECT_EQ(GitForgeFactory::typeFromUrl("https://code.example.org/o/r"), ForgeType::Gitea);
    EXPECT_EQ(GitForgeFactory::typeFromUrl("file:///srv/r.git"), ForgeType::Unknown);

    const auto from_url = GitForgeFactory::createFromUrl("https://ann:pw@gitlab.example.com:8443/o/r");
    ASSERT_NE(from_url, nullptr);
    EXPECT_EQ(from_url->getConfig().url, "https://gitlab.example.com:8443");
    EXPECT_EQ(from_url->apiBase(), "https://gitlab.example.com:8443/api/v4");
    EXPECT_TRUE(from_url->gitCredentials().empty());
}

}  // namespace
}  // namespace vostra::git
