// The page set and what every page must carry: its title and active link,
// the shared API helper, the calls of its area, and nothing fetched from
// elsewhere; the handler's answers for pages and for paths that are none.
#include <gtest/gtest.h>

#include "dashboard/datad_dashboard.h"
#include "tests/support/in_process_daemon.h"

namespace vostra::data {
namespace {

struct PageCase {
    const char* path;
    const char* title;
    const char* active_href;
    std::vector<const char*> calls;  // API paths the page must use
};

const std::vector<PageCase> kPages = {
    {"/dashboard", "Data Worker Overview", "/dashboard/", {"'/metrics'", "'/health'"}},
    {"/dashboard/databases", "Database Sources", "/dashboard/databases", {"'/data/sources'", "'/data/query'"}},
    {"/dashboard/storage", "Storage Management", "/dashboard/storage", {"'/storage/'", "base64"}},
    {"/dashboard/vector", "Vector Store", "/dashboard/vector",
     {"'/vector/config'", "'/vector/health'", "'/vector/search'", "'/vector/ingest'", "'/api/v1/data/cluster-resources'"}},
    {"/dashboard/nfs", "NFS Sharing", "/dashboard/nfs",
     {"'/nfs/config'", "'/nfs/exports'", "'/nfs/mounts'", "'/nfs/ganesha-conf'", "'/nfs/apply'"}},
    {"/dashboard/science", "Scientific Data Providers", "/dashboard/science", {"'/science/providers'", "'/science/query'"}},
    {"/dashboard/agents", "Agent Storage", "/dashboard/agents", {"'/api/v1/data/agents'", "'/api/v1/data/agents/seed'"}},
    {"/dashboard/devtoolbox", "DevToolBox", "/dashboard/devtoolbox",
     {"'/api/v1/git/forges'", "'/api/v1/skills'", "'/api/v1/automations'", "'/api/v1/sandboxes'", "'/api/v1/triage/analyze'"}},
};

TEST(DatadDashboard, EveryPageIsWholeAndSelfContained) {
    for (const PageCase& page : kPages) {
        const std::optional<std::string> html = DatadDashboard::pageFor(page.path);
        ASSERT_TRUE(html) << page.path;
        EXPECT_TRUE(html->starts_with("<!DOCTYPE html>")) << page.path;
        EXPECT_NE(html->find(std::string("<title>") + page.title + " - Vostra Data Worker</title>"), std::string::npos)
            << page.path;
        EXPECT_NE(html->find(std::string("<h1>") + page.title + "</h1>"), std::string::npos) << page.path;
        EXPECT_NE(html->find(std::string("href=\"") + page.active_href + "\" class=\"active\""), std::string::npos)
            << page.path;
        EXPECT_EQ(html->find("class=\"active\""), html->rfind("class=\"active\"")) << page.path;
        EXPECT_NE(html->find("class=\"main-content\""), std::string::npos);
        EXPECT_NE(html->find("async function api(method, path, body)"), std::string::npos);
        EXPECT_NE(html->find("window.COMPONENT_API_BASE"), std::string::npos);
        for (const char* call : page.calls) EXPECT_NE(html->find(call), std::string::npos) << page.path << " " << call;
        for (const char* outside : {"src=\"http", "href=\"http", "url(http", "@import", "<link rel=\"stylesheet"})
            EXPECT_EQ(html->find(outside), std::string::npos) << page.path << " " << outside;
        EXPECT_EQ(html->find("</html>"), html->size() - 8) << page.path;
    }
    EXPECT_EQ(DatadDashboard::pageFor("/dashboard/"), DatadDashboard::pageFor("/dashboard"));
    EXPECT_EQ(DatadDashboard::pageFor("/dashboard/storage?tenant=x"), DatadDashboard::getStorageHtml());
    for (const char* none : {"/dashboard/nope", "/dashboard/storage/", "/dashboard//", "/dashboardx"})
        EXPECT_FALSE(DatadDashboard::pageFor(none)) << none;
}

TEST(DatadDashboard, ServedAsHtmlAndUnknownPagesAnswerJson) {
    test::InProcessDaemon daemon;
    ASSERT_TRUE(daemon.initialized());
    const test::HttpResponse overview = daemon.call("GET", "/dashboard");
    EXPECT_EQ(overview.status, 200);
    EXPECT_NE(overview.raw.find("Content-Type: text/html\r\n"), std::string::npos);
    EXPECT_EQ(overview.body, daemon.call("GET", "/dashboard/").body);
    EXPECT_EQ(daemon.call("GET", "/dashboard/missing").outcome(), "404 Dashboard page not found");
    EXPECT_EQ(daemon.call("GET", "/dashboard/missing").json()["error"], "Dashboard page not found");
}

}  // namespace
}  // namespace vostra::data
