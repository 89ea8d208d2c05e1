// What the daemon makes of a request: its framing, its parts, the tenant it
// acts for, and the answer's status line.
#include "daemon/http_message.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "daemon/request_context.h"
#include "tests/support/http_test_client.h"

namespace vostra::data {
namespace {

// The split and short requests that need a server's time-out are checked
// against the real binary; these are the parsing rules in detail.
TEST(ContentLength, HonoursOnlyTheTwoSpellingsAndUnsignedNumbers) {
    const std::pair<const char*, std::optional<std::size_t>> cases[] = {
        {"Content-Length: 12", 12},
        {"content-length:\t 7", 7},
        {"CONTENT-LENGTH: 7", {}},
        {"Content-length: 7", {}},
        {"Content-Length: abc", {}},
        {"Content-Length: -5", {}},
        {"Content-Length: 99999999999999999999999", {}},
        {"Host: x", {}},
    };
    for (const auto& [line, length] : cases)
        EXPECT_EQ(parseContentLength(std::string("POST / HTTP/1.1\r\n") + line + "\r\n"), length)
            << line;
}

TEST(ParseRequest, SplitsMethodPathAndBody) {
    std::string method, path, body;
    parseRequest("POST /api/v1/data/query?x=1 HTTP/1.1\r\nHost: a\r\n\r\n{\"a\":1}\r\n\r\nmore",
                 method, path, body);
    EXPECT_EQ(method + "|" + path + "|" + body,
              "POST|/api/v1/data/query?x=1|{\"a\":1}\r\n\r\nmore");
    parseRequest("garbage", method, path, body);
    EXPECT_EQ(method + "|" + path + "|" + body, "garbage||");
}

TEST(FormatResponse, UsesUnknownForStatusesOutsideTheTable) {
    EXPECT_STREQ(reasonPhrase(405), "Method Not Allowed");
    EXPECT_STREQ(reasonPhrase(503), "Unknown");
    EXPECT_EQ(formatResponse(418, "", "text/plain").rfind("HTTP/1.1 418 Unknown\r\n", 0), 0u);
}

TEST(ReadRequest, AssemblesPiecesAndCutsEachAtItsFirstNulByte) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::thread writer([&] {
        // The length header itself is split; the body's second piece carries a NUL.
        const std::string pieces[] = {"POST /x HTTP/1.1\r\nConte", "nt-Length: 10\r\n", "\r\n01234",
                                      std::string("56\0"
                                                  "789",
                                                  6)};
        for (const std::string& piece : pieces) {
            test::sendAll(fds[1], piece);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        close(fds[1]);
    });
    const auto request = readRequest(fds[0]);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->raw + request->body,
              "POST /x HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456");
    writer.join();
    close(fds[0]);
}

TEST(TenantExtraction, TriesTheTenantHeaderThenApiKeyThenBearerTokenThenDefault) {
    const std::pair<const char*, const char*> cases[] = {
        {"X-Tenant-Id: acme\r\nX-API-Key: other.k\r\n", "acme"},
        {"X-API-Key: beta.secret\r\n", "beta"},
        {"X-API-Key: nodot\r\nAuthorization: Bearer gamma.tok\r\n", "gamma"},
        // The lower-case retry matches any case; the value keeps its own.
        {"authorization: Bearer t1.xyz\r\n", "t1"},
        {"x-tenant-id: MixedCase\r\n", "MixedCase"},
        {"", "default"},
        {"Authorization: Basic a.b\r\n", "default"},
        {"Authorization: Bearer nodot\r\n", "default"},
        // A body can never pose as a header.
        {"\r\nx\r\nX-Tenant-Id: evil\r\n", "default"},
    };
    for (const auto& [headers, tenant] : cases)
        EXPECT_EQ(extractTenantFromRequest(std::string("GET /x HTTP/1.1\r\nHost: a\r\n") + headers +
                                           "\r\n")
                      .tenant_id,
                  tenant)
            << headers;
    const TenantContext context = extractTenantFromRequest(
        "GET /x HTTP/1.1\r\nX-Vostra-Org-Id: org-7\r\nX-Vostra-User-Id: u-9\r\n\r\n");
    EXPECT_EQ(context.org_id + " " + context.user_id, "org-7 u-9");
}

}  // namespace
}  // namespace vostra::data
