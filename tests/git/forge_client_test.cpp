// The forge clients against fake forges: what each operation sends (method,
// path, headers, body), how each service's answers are read, and how
// transport and HTTP failures come back.
#include <gtest/gtest.h>

#include <functional>

#include "git/git_forge_factory.h"
#include "tests/git/fake_forge.h"
#include "tests/support/daemon_process.h"

namespace vostra::git {
namespace {

using nlohmann::json;
using test::FakeForge;
using test::ForgeReply;
using test::ForgeRequest;
using test::kTestToken;
using test::testForgeConfig;

std::unique_ptr<GitForge> clientFor(ForgeType type, const std::string& url) {
    auto forge = GitForgeFactory::create(testForgeConfig(type, url));
    EXPECT_NE(forge, nullptr);
    return forge;
}

// One operation and the request it must send; a null body means none.
struct Expected {
    std::function<bool(const GitForge&)> call;
    std::string method;
    std::string target;
    json body = nullptr;
};
#define CALL(operation) [](const GitForge& f) { return bool(f.operation); }

// Runs every row against `forge`, checking each request against its row
// and that it carries the forge's credential header.
void expectRequests(FakeForge& server, const GitForge& forge, const std::string& api_prefix,
                    const std::string& credential_header, const std::string& credential,
                    const std::vector<Expected>& rows) {
    for (const Expected& row : rows) {
        SCOPED_TRACE(row.method + " " + row.target);
        const std::size_t before = server.requests().size();
        EXPECT_TRUE(row.call(forge));
        ASSERT_EQ(server.requests().size(), before + 1);
        const ForgeRequest request = server.last();
        EXPECT_EQ(request.method, row.method);
        EXPECT_EQ(request.target, api_prefix + row.target);
        EXPECT_EQ(request.header(credential_header), credential);
        if (row.body.is_null())
            EXPECT_EQ(request.body, "");
        else
            EXPECT_EQ(json::parse(request.body), row.body);
    }
}

const FileChange kChange{"docs/a b.txt", "hi", "m", "dev", "s1"};
const FileChange kNewFile{"docs/a b.txt", "hi", "m", "dev", ""};
const IssueChanges kClose = [] {
    IssueChanges changes;
    changes.state = "closed";
    return changes;
}();
WebhookConfig hook(std::string secret, std::vector<std::string> events) {
    WebhookConfig hook;
    hook.url = "https://ci/hook";
    hook.secret = std::move(secret);
    hook.events = std::move(events);
    return hook;
}
const WebhookConfig kHook = hook("s", {});
const WebhookConfig kPushHook = hook("", {"push", "issues"});
const json kHookConfig = {{"url", "https://ci/hook"}, {"content_type", "json"}, {"secret", "s"}};

TEST(GitHubForgeClient, SendsEveryOperationToItsRestPath) {
    FakeForge server;
    auto forge = clientFor(ForgeType::GitHub, server.url());
    const std::string r = "/repos/octo/hello";
    const std::vector<Expected> rows = {
        {CALL(getCurrentUser()), "GET", "/user"},
        {CALL(listRepositories(2, 50, "owner")), "GET", "/user/repos?page=2&per_page=50&type=owner"},
        {CALL(searchRepositories("vector db", 1, 10)), "GET",
         "/search/repositories?q=vector%20db&page=1&per_page=10"},
        {CALL(getRepository("octo", "hello")), "GET", r},
        {CALL(createRepository("new", "d", true, false)), "POST", "/user/repos",
         {{"name", "new"}, {"description", "d"}, {"private", true}, {"auto_init", false}}},
        {CALL(deleteRepository("octo", "hello")), "DELETE", r},
        {CALL(forkRepository("octo", "hello")), "POST", r + "/forks", json::object()},
        {CALL(listBranches("octo", "hello")), "GET", r + "/branches"},
        {CALL(getBranch("octo", "hello", "feature/x")), "GET", r + "/branches/feature/x"},
        {CALL(deleteBranch("octo", "hello", "old")), "DELETE", r + "/git/refs/heads/old"},
        {CALL(listCommits("octo", "hello", "dev", 1, 5)), "GET",
         r + "/commits?page=1&per_page=5&sha=dev"},
        {CALL(getCommit("octo", "hello", "abc")), "GET", r + "/commits/abc"},
        {CALL(compareCommits("octo", "hello", "main", "dev")), "GET", r + "/compare/main...dev"},
        {CALL(getFileContent("octo", "hello", "docs/a b.md", "dev")), "GET",
         r + "/contents/docs/a%20b.md?ref=dev"},
        {CALL(listDirectoryContents("octo", "hello", "docs", "")), "GET", r + "/contents/docs"},
        {CALL(createOrUpdateFile("octo", "hello", kChange)), "PUT", r + "/contents/docs/a%20b.txt",
         {{"message", "m"}, {"content", "aGk="}, {"sha", "s1"}, {"branch", "dev"}}},
        {CALL(deleteFile("octo", "hello", kChange)), "DELETE", r + "/contents/docs/a%20b.txt",
         {{"message", "m"}, {"sha", "s1"}, {"branch", "dev"}}},
        {CALL(listIssues("octo", "hello", "closed", 1, 20)), "GET",
         r + "/issues?page=1&per_page=20&state=closed"},
        {CALL(getIssue("octo", "hello", 7)), "GET", r + "/issues/7"},
        {CALL(createIssue("octo", "hello", {"t", "b", {"bug"}, {"ann"}})), "POST", r + "/issues",
         {{"title", "t"}, {"body", "b"}, {"labels", {"bug"}}, {"assignees", {"ann"}}}},
        {CALL(updateIssue("octo", "hello", 7, kClose)), "PATCH", r + "/issues/7",
         {{"state", "closed"}}},
        {CALL(addIssueComment("octo", "hello", 7, "hi")), "POST", r + "/issues/7/comments",
         {{"body", "hi"}}},
        {CALL(addIssueLabels("octo", "hello", 7, {"bug"})), "POST", r + "/issues/7/labels",
         {{"labels", {"bug"}}}},
        {CALL(listPullRequests("octo", "hello", "open", 1, 10)), "GET",
         r + "/pulls?page=1&per_page=10&state=open"},
        {CALL(getPullRequest("octo", "hello", 3)), "GET", r + "/pulls/3"},
        {CALL(createPullRequest("octo", "hello", {"t", "b", "dev", "main", true, {}})), "POST",
         r + "/pulls",
         {{"title", "t"}, {"body", "b"}, {"head", "dev"}, {"base", "main"}, {"draft", true}}},
        {CALL(mergePullRequest("octo", "hello", 3, "squash", "t")), "PUT", r + "/pulls/3/merge",
         {{"merge_method", "squash"}, {"commit_title", "t"}}},
        {CALL(addPullRequestReviewers("octo", "hello", 3, {"ann"})), "POST",
         r + "/pulls/3/requested_reviewers", {{"reviewers", {"ann"}}}},
        {CALL(listWebhooks("octo", "hello")), "GET", r + "/hooks"},
        {CALL(createWebhook("octo", "hello", kHook)), "POST", r + "/hooks",
         {{"name", "web"},
          {"active", true},
          {"events", WebhookConfig::defaultEvents()},
          {"config", kHookConfig}}},
        {CALL(deleteWebhook("octo", "hello", 9)), "DELETE", r + "/hooks/9"},
        {CALL(listLabels("octo", "hello")), "GET", r + "/labels"},
        {CALL(createLabel("octo", "hello", {"bug", "#ff0000", "d"})), "POST", r + "/labels",
         {{"name", "bug"}, {"color", "ff0000"}, {"description", "d"}}},
    };
    expectRequests(server, *forge, "/api/v3", "authorization", std::string("Bearer ") + kTestToken,
                   rows);

    const ForgeRequest request = server.last();
    EXPECT_EQ(request.header("x-github-api-version"), "2022-11-28");
    EXPECT_EQ(request.header("accept"), "application/json");
    EXPECT_EQ(request.header("content-type"), "application/json");
}

TEST(GitHubForgeClient, CreatesBranchFromTheBaseBranchHead) {
    FakeForge server;
    server.setHandler([](const ForgeRequest& request) {
        if (request.method == "GET") return ForgeReply{200, R"({"object":{"sha":"c0ffee"}})", {}};
        return ForgeReply{201, R"({"ref":"refs/heads/dev","object":{"sha":"c0ffee"}})", {}};
    });
    auto forge = clientFor(ForgeType::GitHub, server.url());
    const auto branch = forge->createBranch("octo", "hello", "dev", "main");
    ASSERT_TRUE(branch) << branch.error;
    EXPECT_EQ(branch.value.name, "dev");
    EXPECT_EQ(branch.value.commit_sha, "c0ffee");

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].target, "/api/v3/repos/octo/hello/git/ref/heads/main");
    EXPECT_EQ(requests[1].target, "/api/v3/repos/octo/hello/git/refs");
    EXPECT_EQ(json::parse(requests[1].body), json({{"ref", "refs/heads/dev"}, {"sha", "c0ffee"}}));
}

TEST(GitHubForgeClient, ReadsDocumentedAnswers) {
    FakeForge server;
    server.setHandler([](const ForgeRequest& request) -> ForgeReply {
        if (request.target.starts_with("/api/v3/search/"))
            return {200, R"({"total_count":1,"items":[{"id":5,"name":"hello",
                "full_name":"octo/hello","owner":{"login":"octo","id":1,"type":"User"},
                "private":false,"description":null,"stargazers_count":80,"topics":["db"],
                "clone_url":"https://github.com/octo/hello.git","default_branch":"main"}]})", {}};
        if (request.target.find("/issues?") != std::string::npos)
            return {200, R"([{"number":1,"title":"bug","user":{"login":"ann"},"comments":2,
                "labels":[{"name":"bug"}],"assignees":[{"login":"bob"}],"body":null},
                {"number":2,"title":"a pull request","pull_request":{}}])", {}};
        if (request.target.find("/pulls/") != std::string::npos)
            return {200, R"({"number":3,"state":"open","mergeable":null,"merged":false,
                "draft":true,"head":{"ref":"dev","sha":"h1"},"base":{"ref":"main","sha":"b1"},
                "changed_files":4})", {}};
        if (request.target.find("/commits/") != std::string::npos)
            return {200, R"({"sha":"abc","commit":{"message":"fix","author":{"name":"Ann",
                "email":"a@x","date":"2024-01-01T00:00:00Z"},"committer":{"name":"Bob",
                "email":"b@x"}},"stats":{"additions":3,"deletions":1},
                "files":[{"filename":"a.c"},{"filename":"b.c"}]})", {}};
        return {200, R"({"type":"file","name":"a.txt","path":"a.txt","sha":"s","size":5,
            "encoding":"base64","content":"aGVs\nbG8=\n"})", {}};
    });
    auto forge = clientFor(ForgeType::GitHub, server.url());

    const auto found = forge->searchRepositories("hello", 1, 10);
    ASSERT_TRUE(found) << found.error;
    ASSERT_EQ(found.value.size(), 1u);
    EXPECT_EQ(found.value[0].full_name, "octo/hello");
    EXPECT_EQ(found.value[0].owner.login, "octo");
    EXPECT_EQ(found.value[0].stargazers_count, 80);
    EXPECT_EQ(found.value[0].topics, std::vector<std::string>{"db"});

    const auto issues = forge->listIssues("octo", "hello", "open", 1, 10);
    ASSERT_EQ(issues.value.size(), 1u) << "pull requests are not issues";
    EXPECT_EQ(issues.value[0].user, "ann");
    EXPECT_EQ(issues.value[0].labels, std::vector<std::string>{"bug"});
    EXPECT_EQ(issues.value[0].assignees, std::vector<std::string>{"bob"});
    EXPECT_EQ(issues.value[0].comments, 2);

    const auto pr = forge->getPullRequest("octo", "hello", 3);
    EXPECT_TRUE(pr.value.draft);
    EXPECT_FALSE(pr.value.mergeable);
    EXPECT_EQ(pr.value.head_ref + pr.value.head_sha + pr.value.base_ref, "devh1main");
    EXPECT_EQ(pr.value.changed_files, 4);

    const auto commit = forge->getCommit("octo", "hello", "abc");
    EXPECT_EQ(commit.value.message, "fix");
    EXPECT_EQ(commit.value.author_email, "a@x");
    EXPECT_EQ(commit.value.committer_name, "Bob");
    EXPECT_EQ(commit.value.additions, 3);
    EXPECT_EQ(commit.value.files, (std::vector<std::string>{"a.c", "b.c"}));

    const auto file = forge->getFileContent("octo", "hello", "a.txt", "");
    ASSERT_TRUE(file) << file.error;
    EXPECT_EQ(file.value.decoded(), "hello");
}

TEST(GitHubForgeClient, ChoosesTheApiBase) {
    ForgeConfig config = testForgeConfig(ForgeType::GitHub, "https://github.com/");
    EXPECT_EQ(GitForgeFactory::create(config)->apiBase(), "https://api.github.com");
    config.url = "https://git.example.com";
    EXPECT_EQ(GitForgeFactory::create(config)->apiBase(), "https://git.example.com/api/v3");
    config.api_url = "https://api.example.com/v3/";
    EXPECT_EQ(GitForgeFactory::create(config)->apiBase(), "https://api.example.com/v3");
}

TEST(GitLabForgeClient, SendsEveryOperationToItsProjectPath) {
    FakeForge server;
    auto forge = clientFor(ForgeType::GitLab, server.url());
    const std::string p = "/projects/group%2Fsub";
    const json file_body = {
        {"branch", "dev"}, {"content", "aGk="}, {"encoding", "base64"}, {"commit_message", "m"}};
    const std::vector<Expected> rows = {
        {CALL(listRepositories(1, 20, "all")), "GET", "/projects?page=1&per_page=20&membership=true"},
        {CALL(searchRepositories("db", 1, 5)), "GET", "/projects?search=db&page=1&per_page=5"},
        {CALL(getRepository("group", "sub")), "GET", p},
        {CALL(getRepository("group/sub", "app")), "GET", "/projects/group%2Fsub%2Fapp"},
        {CALL(createRepository("new", "d", true, true)), "POST", "/projects",
         {{"name", "new"},
          {"description", "d"},
          {"visibility", "private"},
          {"initialize_with_readme", true}}},
        {CALL(forkRepository("group", "sub")), "POST", p + "/fork", json::object()},
        {CALL(getBranch("group", "sub", "feature/x")), "GET",
         p + "/repository/branches/feature%2Fx"},
        {CALL(createBranch("group", "sub", "dev", "main")), "POST", p + "/repository/branches",
         {{"branch", "dev"}, {"ref", "main"}}},
        {CALL(listCommits("group", "sub", "dev", 1, 5)), "GET",
         p + "/repository/commits?page=1&per_page=5&ref_name=dev"},
        {CALL(getCommit("group", "sub", "abc")), "GET", p + "/repository/commits/abc"},
        {CALL(compareCommits("group", "sub", "main", "dev")), "GET",
         p + "/repository/compare?from=main&to=dev"},
        {CALL(getFileContent("group", "sub", "docs/a.md", "")), "GET",
         p + "/repository/files/docs%2Fa.md?ref=main"},
        {CALL(listDirectoryContents("group", "sub", "docs", "dev")), "GET",
         p + "/repository/tree?path=docs&ref=dev"},
        {CALL(createOrUpdateFile("group", "sub", kNewFile)), "POST",
         p + "/repository/files/docs%2Fa%20b.txt", file_body},
        {CALL(createOrUpdateFile("group", "sub", kChange)), "PUT",
         p + "/repository/files/docs%2Fa%20b.txt", file_body},
        {CALL(listIssues("group", "sub", "open", 1, 20)), "GET",
         p + "/issues?state=opened&page=1&per_page=20"},
        {CALL(createIssue("group", "sub", {"t", "b", {"bug", "ui"}, {"12"}})), "POST",
         p + "/issues",
         {{"title", "t"}, {"description", "b"}, {"labels", "bug,ui"}, {"assignee_ids", {12}}}},
        {CALL(updateIssue("group", "sub", 7, kClose)), "PUT", p + "/issues/7",
         {{"state_event", "close"}}},
        {CALL(addIssueComment("group", "sub", 7, "hi")), "POST", p + "/issues/7/notes",
         {{"body", "hi"}}},
        {CALL(listPullRequests("group", "sub", "all", 1, 10)), "GET",
         p + "/merge_requests?state=all&page=1&per_page=10"},
        {CALL(createPullRequest("group", "sub", {"t", "b", "dev", "main", true, {"5"}})), "POST",
         p + "/merge_requests",
         {{"title", "Draft: t"},
          {"description", "b"},
          {"source_branch", "dev"},
          {"target_branch", "main"},
          {"reviewer_ids", {5}}}},
        {CALL(mergePullRequest("group", "sub", 3, "squash", "t")), "PUT",
         p + "/merge_requests/3/merge", {{"squash", true}, {"merge_commit_message", "t"}}},
        {CALL(createWebhook("group", "sub", kPushHook)), "POST", p + "/hooks",
         {{"url", "https://ci/hook"},
          {"enable_ssl_verification", true},
          {"token", ""},
          {"push_events", true},
          {"merge_requests_events", false},
          {"issues_events", true},
          {"note_events", false},
          {"tag_push_events", false},
          {"releases_events", false}}},
        {CALL(createLabel("group", "sub", {"bug", "ff0000", ""})), "POST", p + "/labels",
         {{"name", "bug"}, {"color", "#ff0000"}, {"description", ""}}},
    };
    expectRequests(server, *forge, "/api/v4", "private-token", kTestToken, rows);
    EXPECT_EQ(server.last().header("authorization"), "");
    EXPECT_EQ(server.last().header("x-github-api-version"), "");

    server.replyWith(202, R"({"message":"202 Accepted"})");
    EXPECT_TRUE(forge->deleteRepository("group", "sub"));
    server.replyWith(204, "");
    EXPECT_TRUE(forge->deleteBranch("group", "sub", "old"));
    EXPECT_EQ(server.last().target, "/api/v4/projects/group%2Fsub/repository/branches/old");

    const auto refused = forge->createIssue("group", "sub", {"t", "", {}, {"ann"}});
    EXPECT_FALSE(refused);
    EXPECT_NE(refused.error.find("ann"), std::string::npos);
}

TEST(GitLabForgeClient, TranslatesItsAnswerShapes) {
    FakeForge server;
    server.setHandler([](const ForgeRequest& request) -> ForgeReply {
        if (request.target.find("/merge_requests/") != std::string::npos)
            return {200, R"({"iid":4,"id":900,"title":"t","description":"d","state":"merged",
                "source_branch":"dev","target_branch":"main","sha":"h1","work_in_progress":true,
                "author":{"username":"ann"},"user_notes_count":3,"changes_count":"12",
                "web_url":"https://gl/g/p/-/merge_requests/4"})", {}};
        if (request.target.find("/issues") != std::string::npos)
            return {200, R"([{"iid":2,"id":800,"title":"bug","state":"opened",
                "labels":["bug"],"author":{"username":"bob"},"user_notes_count":1}])", {}};
        if (request.target.find("/commits/") != std::string::npos)
            return {200, R"({"id":"abc","message":"fix","author_name":"Ann","author_email":"a@x",
                "committer_name":"Bob","web_url":"https://gl/c/abc",
                "stats":{"additions":3,"deletions":1,"total":4}})", {}};
        if (request.target.find("/files/") != std::string::npos)
            return {200, R"({"file_name":"a.txt","file_path":"docs/a.txt","size":5,
                "encoding":"base64","content":"aGVsbG8=","blob_id":"b1"})", {}};
        return {200, R"({"id":7,"name":"app","path_with_namespace":"group/sub/app",
            "namespace":{"id":3,"full_path":"group/sub","kind":"group"},"visibility":"internal",
            "default_branch":"main","http_url_to_repo":"https://gl/group/sub/app.git",
            "ssh_url_to_repo":"git@gl:group/sub/app.git","star_count":9,"forks_count":2,
            "open_issues_count":1,"archived":false,"forked_from_project":{"id":1},
            "topics":["ml"],"web_url":"https://gl/group/sub/app"})", {}};
    });
    auto forge = clientFor(ForgeType::GitLab, server.url());

    const auto repo = forge->getRepository("group/sub", "app");
    ASSERT_TRUE(repo) << repo.error;
    EXPECT_EQ(repo.value.full_name, "group/sub/app");
    EXPECT_EQ(repo.value.owner.login, "group/sub");
    EXPECT_TRUE(repo.value.is_private);
    EXPECT_TRUE(repo.value.fork);
    EXPECT_EQ(repo.value.clone_url, "https://gl/group/sub/app.git");
    EXPECT_EQ(repo.value.stargazers_count, 9);
    EXPECT_EQ(repo.value.html_url, "https://gl/group/sub/app");

    const auto mr = forge->getPullRequest("group/sub", "app", 4);
    EXPECT_EQ(mr.value.number, 4) << "GitLab numbers by iid";
    EXPECT_EQ(mr.value.state, "closed");
    EXPECT_TRUE(mr.value.merged);
    EXPECT_TRUE(mr.value.draft);
    EXPECT_EQ(mr.value.head_ref, "dev");
    EXPECT_EQ(mr.value.base_ref, "main");
    EXPECT_EQ(mr.value.body, "d");
    EXPECT_EQ(mr.value.user, "ann");
    EXPECT_EQ(mr.value.comments, 3);
    EXPECT_EQ(mr.value.changed_files, 12);

    const auto issues = forge->listIssues("group/sub", "app", "open", 1, 10);
    ASSERT_EQ(issues.value.size(), 1u);
    EXPECT_EQ(issues.value[0].number, 2);
    EXPECT_EQ(issues.value[0].state, "open");
    EXPECT_EQ(issues.value[0].user, "bob");

    const auto commit = forge->getCommit("group/sub", "app", "abc");
    EXPECT_EQ(commit.value.sha, "abc");
    EXPECT_EQ(commit.value.author_name, "Ann");
    EXPECT_EQ(commit.value.html_url, "https://gl/c/abc");
    EXPECT_EQ(commit.value.deletions, 1);

    const auto file = forge->getFileContent("group/sub", "app", "docs/a.txt", "main");
    EXPECT_EQ(file.value.path, "docs/a.txt");
    EXPECT_EQ(file.value.sha, "b1");
    EXPECT_EQ(file.value.decoded(), "hello");
}

TEST(GiteaForgeClient, SendsGiteaFormsWhereTheyDiffer) {
    FakeForge server;
    auto forge = clientFor(ForgeType::Gitea, server.url());
    const std::string r = "/repos/octo/hello";
    const std::vector<Expected> rows = {
        {CALL(listRepositories(1, 20, "all")), "GET", "/user/repos?page=1&limit=20&type=all"},
        {CALL(searchRepositories("db", 2, 5)), "GET", "/repos/search?q=db&page=2&limit=5"},
        {CALL(createBranch("octo", "hello", "dev", "main")), "POST", r + "/branches",
         {{"new_branch_name", "dev"}, {"old_ref_name", "main"}}},
        {CALL(deleteBranch("octo", "hello", "old")), "DELETE", r + "/git/refs/heads/old"},
        {CALL(getCommit("octo", "hello", "abc")), "GET", r + "/git/commits/abc"},
        {CALL(listIssues("octo", "hello", "all", 1, 20)), "GET",
         r + "/issues?page=1&limit=20&state=all"},
        {CALL(createOrUpdateFile("octo", "hello", kNewFile)), "PUT",
         r + "/contents/docs/a%20b.txt", {{"message", "m"}, {"content", "aGk="}, {"branch", "dev"}}},
        {CALL(mergePullRequest("octo", "hello", 3, "rebase", "t")), "PUT", r + "/pulls/3/merge",
         {{"Do", "rebase"}, {"MergeTitleField", "t"}}},
        {CALL(createWebhook("octo", "hello", kHook)), "POST", r + "/hooks",
         {{"type", "gitea"},
          {"active", true},
          {"events", WebhookConfig::defaultEvents()},
          {"config", kHookConfig}}},
        {CALL(createLabel("octo", "hello", {"bug", "ff0000", ""})), "POST", r + "/labels",
         {{"name", "bug"}, {"color", "#ff0000"}, {"description", ""}}},
    };
    expectRequests(server, *forge, "/api/v1", "authorization", std::string("token ") + kTestToken,
                   rows);
    EXPECT_EQ(server.last().header("x-github-api-version"), "");
}

TEST(GiteaForgeClient, ReadsSearchResultsUnderData) {
    FakeForge server;
    server.replyWith(200, R"({"ok":true,"data":[{"id":1,"full_name":"octo/hello",
        "owner":{"login":"octo","username":"octo"},"stars_count":4}]})");
    auto forge = clientFor(ForgeType::Gitea, server.url());
    const auto found = forge->searchRepositories("hello", 1, 10);
    ASSERT_TRUE(found) << found.error;
    ASSERT_EQ(found.value.size(), 1u);
    EXPECT_EQ(found.value[0].full_name, "octo/hello");
    EXPECT_EQ(found.value[0].stargazers_count, 4);
}

TEST(ForgeClient, InitializeRefusesAnotherForgeType) {
    const std::pair<ForgeType, const char*> clients[] = {
        {ForgeType::GitHub, "Invalid forge type for GitHub"},
        {ForgeType::GitLab, "Invalid forge type for GitLab"},
        {ForgeType::Gitea, "Invalid forge type for Gitea"},
    };
    for (const auto& [type, message] : clients) {
        auto forge = GitForgeFactory::create(type);
        const ForgeStatus refused =
            forge->initialize(testForgeConfig(ForgeType::Bitbucket, "https://x"));
        EXPECT_FALSE(refused);
        EXPECT_EQ(refused.error, message);
        EXPECT_TRUE(forge->initialize(testForgeConfig(type, "https://x")));
    }
}

TEST(ForgeClient, ReportsFailuresWithoutTheToken) {
    FakeForge server;
    auto forge = clientFor(ForgeType::GitHub, server.url());

    server.replyWith(404, R"({"message":"Not Found"})");
    const auto missing = forge->getRepository("octo", "gone");
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.error, "HTTP error 404");
    EXPECT_EQ(missing.http_status, 404);

    server.replyWith(200, "<html>maintenance</html>");
    EXPECT_FALSE(forge->getRepository("octo", "hello"));

    auto unreachable =
        clientFor(ForgeType::GitHub, "http://127.0.0.1:" + std::to_string(test::freePort()));
    const auto refused = unreachable->getCurrentUser();
    EXPECT_FALSE(refused);
    EXPECT_TRUE(refused.error.starts_with("CURL error: ")) << refused.error;
    EXPECT_EQ(refused.error.find(kTestToken), std::string::npos);
}

TEST(ForgeClient, FollowsRedirectsButKeepsTheTokenOnItsOrigin) {
    FakeForge elsewhere;
    elsewhere.replyWith(200, R"({"login":"octo"})");
    FakeForge server;
    const std::string other = elsewhere.url();
    server.setHandler([&other](const ForgeRequest& request) -> ForgeReply {
        if (request.target == "/api/v4/user") return {301, "", {{"Location", "/api/v4/moved"}}};
        if (request.target == "/api/v4/moved") return {200, R"({"username":"octo"})", {}};
        return {302, "", {{"Location", other + "/away"}}};
    });
    auto forge = clientFor(ForgeType::GitLab, server.url());

    const auto user = forge->getCurrentUser();
    ASSERT_TRUE(user) << user.error;
    EXPECT_EQ(user.value.login, "octo");
    EXPECT_EQ(server.last().header("private-token"), kTestToken);

    EXPECT_TRUE(forge->listLabels("octo", "hello"));
    ASSERT_EQ(elsewhere.requests().size(), 1u);
    EXPECT_EQ(elsewhere.last().header("private-token"), "");
}

TEST(ForgeClient, VerifiesCertificatesUnlessTold) {
    test::TempFolder folder;
    const auto certificate = test::makeSelfSignedCertificate(folder.path());
    if (!certificate) GTEST_SKIP() << "the openssl command is not available";
    FakeForge server(certificate->first, certificate->second);
    server.replyWith(200, R"({"login":"octo"})");

    ForgeConfig config = testForgeConfig(ForgeType::Gitea, server.url());
    const auto checked = GitForgeFactory::create(config)->getCurrentUser();
    EXPECT_FALSE(checked);
    EXPECT_TRUE(checked.error.starts_with("CURL error: ")) << checked.error;

    config.verify_ssl = false;
    const auto trusted = GitForgeFactory::create(config)->getCurrentUser();
    ASSERT_TRUE(trusted) << trusted.error;
    EXPECT_EQ(trusted.value.login, "octo");
}

TEST(ForgeClient, CloneUrlsAndGitCredentials) {
    ForgeConfig config = testForgeConfig(ForgeType::GitLab, "https://gitlab.example.com:8443/");
    auto gitlab = GitForgeFactory::create(config);
    EXPECT_EQ(gitlab->getCloneUrl("group", "app"), "https://gitlab.example.com:8443/group/app.git");
    EXPECT_EQ(gitlab->gitCredentials().username, "oauth2");
    EXPECT_EQ(gitlab->gitCredentials().password, kTestToken);

    config.type = ForgeType::GitHub;
    config.default_protocol = "ssh";
    auto github = GitForgeFactory::create(config);
    EXPECT_EQ(github->getCloneUrl("octo", "hello"), "git@gitlab.example.com:octo/hello.git");
    EXPECT_EQ(github->gitCredentials().username, "x-access-token");

    config.type = ForgeType::Gitea;
    config.auth = {};
    EXPECT_TRUE(GitForgeFactory::create(config)->gitCredentials().empty());
}

TEST(ForgeClient, ParsesShortRepositoryNames) {
    const auto colon = GitForge::parseShortUrl("gh:octo/hello.git");
    ASSERT_TRUE(colon);
    EXPECT_EQ(colon->alias + "|" + colon->owner + "|" + colon->repo, "gh|octo|hello");
    const auto nested = GitForge::parseShortUrl("work/group/sub/app");
    ASSERT_TRUE(nested);
    EXPECT_EQ(nested->alias + "|" + nested->owner + "|" + nested->repo, "work|group/sub|app");

    for (const char* refused : {"https://github.com/octo/hello", "git@github.com:octo/hello",
                                "gh:hello", "gh:octo//hello", "gh:../hello", "gh:octo/he llo",
                                ":octo/hello", "gh"})
        EXPECT_FALSE(GitForge::parseShortUrl(refused)) << refused;
}

}  // namespace
}  // namespace vostra::git
