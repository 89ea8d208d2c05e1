// Forge configuration records and the accounts file: names of forge types,
// type-checked reading, secrets kept out of every public form, and the
// file written with its tokens for the daemon's user alone.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "git/forges_config.h"
#include "tests/git/fake_forge.h"

namespace vostra::git {
namespace {

using nlohmann::json;
using test::kTestToken;

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(ForgeType, ReadsOnlyTheLowerCaseNames) {
    EXPECT_EQ(forgeTypeFromName("gitea"), ForgeType::Gitea);
    EXPECT_EQ(forgeTypeFromName("gitlab"), ForgeType::GitLab);
    EXPECT_EQ(forgeTypeFromName("github"), ForgeType::GitHub);
    EXPECT_EQ(forgeTypeFromName("bitbucket"), ForgeType::Bitbucket);
    EXPECT_EQ(forgeTypeFromName("GitHub"), ForgeType::Unknown);
    EXPECT_EQ(forgeTypeFromName(""), ForgeType::Unknown);
    EXPECT_EQ(static_cast<int>(forgeTypeFromName("github")), 2);
    for (ForgeType type : {ForgeType::Gitea, ForgeType::GitLab, ForgeType::GitHub,
                           ForgeType::Bitbucket, ForgeType::Unknown})
        EXPECT_EQ(forgeTypeFromName(forgeTypeName(type)), type);
}

TEST(ForgeConfig, ReadsDefaultsAndRefusesWrongTypes) {
    const ForgeConfig plain = ForgeConfig::fromJson({{"id", "gh"}, {"type", "github"}});
    EXPECT_EQ(plain.type, ForgeType::GitHub);
    EXPECT_TRUE(plain.verify_ssl);
    EXPECT_GT(plain.timeout_seconds, 0);

    const std::pair<json, const char*> wrong[] = {
        {{{"timeout_seconds", "30"}}, "type must be number, but is string"},
        {{{"timeout_seconds", true}}, "type must be number, but is boolean"},
        {{{"verify_ssl", 1}}, "type must be boolean, but is number"},
    };
    for (const auto& [document, message] : wrong) {
        try {
            (void)ForgeConfig::fromJson(document);
            ADD_FAILURE() << "accepted " << document.dump();
        } catch (const json::type_error& error) {
            EXPECT_NE(std::string(error.what()).find(message), std::string::npos) << error.what();
        }
    }

    const json labels = {{"team", "data"}};
    const ForgeConfig carried = ForgeConfig::fromJson({{"labels", labels}, {"timeout_seconds", 7}});
    EXPECT_EQ(carried.toJson()["labels"], labels);
    EXPECT_EQ(carried.toJson()["timeout_seconds"], 7);
}

TEST(ForgeAuth, PublicFormNeverHoldsSecrets) {
    const json secrets = {{"token", "T0"},
                          {"password", "P0"},
                          {"ssh_passphrase", "S0"},
                          {"oauth_client_secret", "C0"},
                          {"oauth_refresh_token", "R0"}};
    const std::pair<const char*, const char*> companions[] = {
        {"token", "username"}, {"basic", "username"},
        {"ssh", "ssh_key_path"}, {"oauth", "oauth_client_id"}};
    for (const auto& [type, companion] : companions) {
        json document = secrets;
        document["type"] = type;
        document["username"] = "ann";
        document["ssh_key_path"] = "/k";
        document["oauth_client_id"] = "cid";
        const ForgeAuth auth = ForgeAuth::fromJson(document);

        const json shown = auth.toJson();
        EXPECT_EQ(shown["type"], type);
        EXPECT_TRUE(shown.contains(companion)) << type;
        EXPECT_EQ(shown.size(), 2u) << shown.dump();
        for (const auto& [key, value] : secrets.items())
            EXPECT_EQ(shown.dump().find(value.get<std::string>()), std::string::npos) << type;

        const json stored = auth.toStoredJson();
        for (const auto& [key, value] : secrets.items()) EXPECT_EQ(stored[key], value);
    }
}

TEST(ForgesConfig, SavesTokensForTheOwnerAloneAndShowsThemToNobody) {
    test::TempFolder folder;
    const std::string path = folder.path() + "/" + kForgesFileName;
    ForgesConfig config;
    config.forges.push_back(test::testForgeConfig(ForgeType::GitLab, "https://gitlab.example.com"));
    config.forges.push_back(test::testForgeConfig(ForgeType::Gitea, "https://gitea.example.com"));
    config.forges[1].id = config.forges[1].alias = "tea";
    config.default_forge_id = "tea";

    ASSERT_TRUE(config.saveToFile(path));
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_NE(readFile(path).find(kTestToken), std::string::npos);
    EXPECT_EQ(json::parse(readFile(path))["default_forge"], "tea");

    ForgesConfig loaded;
    ASSERT_TRUE(loaded.loadFromFile(path));
    ASSERT_EQ(loaded.forges.size(), 2u);
    EXPECT_EQ(loaded.forges[0].auth.token, kTestToken);
    EXPECT_EQ(loaded.forges[1].type, ForgeType::Gitea);
    EXPECT_EQ(loaded.default_forge_id, "tea");
    EXPECT_EQ(loaded.toStoredJson(), config.toStoredJson());

    EXPECT_EQ(loaded.toJson().dump().find(kTestToken), std::string::npos);
    EXPECT_EQ(loaded.forges[0].toJson().dump().find(kTestToken), std::string::npos);
}

TEST(ForgesConfig, TellsAMissingFileFromABrokenOne) {
    test::TempFolder folder;
    ForgesConfig config;
    EXPECT_EQ(config.loadFromFile(folder.path() + "/none.json").kind, ErrorKind::NotFound);

    const std::string broken = folder.path() + "/broken.json";
    std::ofstream(broken) << R"({"forges": [{"auth": {"token": "ghp_half)";
    const Status status = config.loadFromFile(broken);
    EXPECT_EQ(status.kind, ErrorKind::Invalid);
    EXPECT_EQ(status.message.find("ghp_half"), std::string::npos) << status.message;

    std::ofstream(broken) << R"({"forges": {"id": "x"}})";
    EXPECT_EQ(config.loadFromFile(broken).kind, ErrorKind::Invalid);
}

TEST(ForgeRecords, ReadBackWhatTheyWrite) {
    PullRequest pr;
    pr.number = 3;
    pr.title = "t";
    pr.labels = {"bug"};
    pr.assignees = {"ann"};
    pr.user = "bob";
    pr.merged = true;
    pr.head_ref = "dev";
    pr.base_sha = "b1";
    EXPECT_EQ(PullRequest::fromJson(pr.toJson()).toJson(), pr.toJson());

    WebhookConfig hook;
    hook.id = 4;
    hook.url = "https://ci/hook";
    hook.secret = "s3cret";
    hook.events = {"push"};
    EXPECT_EQ(hook.toJson().dump().find("s3cret"), std::string::npos);
    EXPECT_EQ(WebhookConfig::fromJson(hook.toJson()).events, hook.events);
}

TEST(ForgeRecords, ToleratesNullsAndStrangeTypesInAnswers) {
    const json answer = {{"number", "7"}, {"title", nullptr}, {"body", 5},
                         {"labels", {nullptr, 3, {{"name", "bug"}}}}, {"user", nullptr}};
    const Issue issue = Issue::fromJson(answer);
    EXPECT_EQ(issue.number, 0);
    EXPECT_EQ(issue.title, "");
    EXPECT_EQ(issue.labels, std::vector<std::string>{"bug"});
    EXPECT_NO_THROW(Repository::fromJson(json::array()));
    EXPECT_NO_THROW(Commit::fromJson({{"commit", "x"}, {"stats", nullptr}}));
}

}  // namespace
}  // namespace vostra::git
