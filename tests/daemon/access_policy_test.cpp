// The rule for tenant keys, route by route: their own areas open, another
// tenant's (by path, header or body, encoded or not) and the daemon's
// closed.
#include <gtest/gtest.h>

#include "daemon/access_policy.h"

namespace vostra::data {
namespace {

bool reach(std::string_view method, std::string_view path, std::string_view header = "",
           std::string_view body = "") {
    return tenantMayReach("acme", method, path, header, body);
}

TEST(AccessPolicy, OpenRequestsAreHealthTheRedirectAndDashboardPages) {
    for (const char* path : {"/", "/health", "/api/v1/health", "/health?x=1", "/dashboard", "/dashboard/data"})
        EXPECT_TRUE(isOpenRequest("GET", path)) << path;
    EXPECT_TRUE(isOpenRequest("HEAD", "/health"));
    EXPECT_FALSE(isOpenRequest("POST", "/health"));
    for (const char* path : {"/info", "/metrics", "/api/v1/info", "/dashboards", "/healthz", "/api/v1/storage/a/b"})
        EXPECT_FALSE(isOpenRequest("GET", path)) << path;
}

TEST(AccessPolicy, TenantKeysReachTheirOwnAreasOnly) {
    for (const char* path :
         {"/api/v1/storage/acme/a.txt", "/api/v1/storage/ac%6De/a.txt", "/api/v1/vector/search",
          "/api/v1/vector/namespaces", "/api/v1/vector/namespaces/acme/docs",
          "/api/v1/vector/documents/acme/ns/1", "/api/v1/swarms/s1/goal", "/api/v1/workspaces",
          "/api/v1/outputs/o", "/api/v1/skills", "/api/v1/automations/a", "/api/v1/sandboxes?limit=2",
          "/api/v1/cicd/runs", "/api/v1/triage/analyze", "/api/v1/git/repos/r1/tree",
          "/api/v1/tenants/acme", "/api/v1/tenants/acme/usage", "/api/v1/auth/whoami"})
        EXPECT_TRUE(reach("GET", path)) << path;

    for (const char* path :
         {"/api/v1/storage/beta/a.txt", "/api/v1/storage/acme2/a.txt", "/api/v1/storage/", "/api/v1/vector/config",
          "/api/v1/vector/health", "/api/v1/vector/namespaces/beta", "/api/v1/vector/documents/beta/ns/1",
          "/api/v1/data/sources", "/api/v1/data/query", "/api/v1/tenants", "/api/v1/tenants/beta",
          "/api/v1/nfs/config", "/api/v1/git/forges", "/api/v1/science/api-keys", "/api/v1/models",
          "/api/v1/agents", "/api/v1/auth/tenants/acme/keys", "/info", "/metrics", "/api/v1/metrics",
          "/api/v1/data/cluster-resources", "/nowhere"})
        EXPECT_FALSE(reach("GET", path)) << path;
    EXPECT_FALSE(reach("PUT", "/api/v1/tenants/acme"));
    EXPECT_FALSE(reach("DELETE", "/api/v1/tenants/acme"));
}

TEST(AccessPolicy, AnotherTenantNamedInAHeaderOrBodyIsRefused) {
    EXPECT_TRUE(reach("POST", "/api/v1/vector/search", "acme", R"({"tenant_id":"acme","query":"x"})"));
    EXPECT_TRUE(reach("POST", "/api/v1/vector/search", "", R"({"query":"x"})"));
    EXPECT_FALSE(reach("POST", "/api/v1/vector/search", "beta"));
    EXPECT_FALSE(reach("POST", "/api/v1/vector/search", "", R"({"tenant_id":"beta","query":"x"})"));
    EXPECT_FALSE(reach("POST", "/api/v1/vector/ingest", "", R"({"tenant_id":7})"));
    // A body that only mentions the key as data is not a claim.
    EXPECT_TRUE(reach("PUT", "/api/v1/storage/acme/notes.txt", "", R"(text "tenant_id" in a file)"));
}

TEST(AccessPolicy, KeysComeFromTheApiKeyHeaderOrABearerToken) {
    EXPECT_EQ(presentedKey("GET / HTTP/1.1\r\nX-API-Key: a.b\r\n\r\n"), "a.b");
    EXPECT_EQ(presentedKey("GET / HTTP/1.1\r\nAuthorization: Bearer t.k\r\n\r\n"), "t.k");
    EXPECT_EQ(presentedKey("GET / HTTP/1.1\r\nx-api-key: first\r\nAuthorization: Bearer second\r\n\r\n"), "first");
    EXPECT_EQ(presentedKey("GET / HTTP/1.1\r\nAuthorization: Basic dXNlcjpwYXNz\r\n\r\n"), "");
    EXPECT_EQ(presentedKey("GET / HTTP/1.1\r\n\r\nX-API-Key: in-the-body"), "");
}

}  // namespace
}  // namespace vostra::data
