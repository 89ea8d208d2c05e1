#include "daemon/request_context.h"

#include <gtest/gtest.h>

#include "daemon/route_paths.h"

namespace vostra::data {
namespace {

std::string requestWith(const std::string& headers, const std::string& body = "") {
    return "GET /x HTTP/1.1\r\nHost: a\r\n" + headers + "\r\n" + body;
}

TEST(TenantExtraction, PrefersTheTenantHeaderThenApiKeyThenBearerToken) {
    EXPECT_EQ(extractTenantFromRequest(requestWith("X-Tenant-Id: acme\r\nX-API-Key: other.k\r\n"))
                  .tenant_id,
              "acme");
    EXPECT_EQ(extractTenantFromRequest(requestWith("X-API-Key: beta.secret\r\n")).tenant_id, "beta");
    EXPECT_EQ(extractTenantFromRequest(
                  requestWith("X-API-Key: nodot\r\nAuthorization: Bearer gamma.tok\r\n"))
                  .tenant_id,
              "gamma");
}

TEST(TenantExtraction, FallsBackToDefault) {
    EXPECT_EQ(extractTenantFromRequest(requestWith("")).tenant_id, "default");
    EXPECT_EQ(extractTenantFromRequest(requestWith("Authorization: Basic a.b\r\n")).tenant_id,
              "default");
    EXPECT_EQ(extractTenantFromRequest(requestWith("Authorization: Bearer nodot\r\n")).tenant_id,
              "default");
}

TEST(TenantExtraction, RetriesCaseInsensitivelyButKeepsTheValueAsSent) {
    auto context = extractTenantFromRequest(requestWith("authorization: Bearer t1.xyz\r\n"));
    EXPECT_EQ(context.tenant_id, "t1");
    EXPECT_EQ(extractTenantFromRequest(requestWith("x-tenant-id: MixedCase\r\n")).tenant_id,
              "MixedCase");
}

TEST(TenantExtraction, ReadsOrganisationAndUser) {
    auto context = extractTenantFromRequest(
        requestWith("X-Vostra-Org-Id: org-7\r\nX-Vostra-User-Id: u-9\r\n"));
    EXPECT_EQ(context.org_id, "org-7");
    EXPECT_EQ(context.user_id, "u-9");
}

TEST(TenantExtraction, IgnoresHeaderLookalikesInTheBody) {
    auto context = extractTenantFromRequest(requestWith("", "x\r\nX-Tenant-Id: evil\r\n"));
    EXPECT_EQ(context.tenant_id, "default");
}

TEST(RoutePaths, SplitsIdAndSubPath) {
    auto plain = splitIdAndSubPath("/api/v1/data/sources/abc", "/api/v1/data/sources/");
    EXPECT_EQ(plain.id, "abc");
    EXPECT_EQ(plain.rest, "");
    auto nested = splitIdAndSubPath("/api/v1/data/sources/abc/test", "/api/v1/data/sources/");
    EXPECT_EQ(nested.id, "abc");
    EXPECT_EQ(nested.rest, "/test");
    auto storage = splitTenantAndPath("/api/v1/storage/acme/docs/a.txt", "/api/v1/storage/");
    EXPECT_EQ(storage.id, "acme");
    EXPECT_EQ(storage.rest, "docs/a.txt");
}

}  // namespace
}  // namespace vostra::data
