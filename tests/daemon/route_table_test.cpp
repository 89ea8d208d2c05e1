// Matching paths against area route patterns, and choosing between 404 and
// 405 when a row does not serve a request.
#include "daemon/route_table.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/http_test_client.h"

namespace vostra::data {
namespace {

// "<matched?>|name=value|..." for the names asked.
std::string match(std::string_view pattern, std::string_view path,
                  std::initializer_list<std::string_view> names) {
    RouteParams params;
    std::string out = matchRoute(pattern, path, params) ? "yes" : "no";
    for (std::string_view name : names) out += "|" + std::string(name) + "=" + params.get(name);
    return out;
}

TEST(RoutePatterns, SplitIdsAndSubPathsAsTheRouterExpects) {
    EXPECT_EQ(match("/api/v1/data/sources/{id}", "/api/v1/data/sources/abc", {"id"}), "yes|id=abc");
    EXPECT_EQ(match("/api/v1/data/sources/{id}/test", "/api/v1/data/sources/abc/test", {"id"}),
              "yes|id=abc");
    EXPECT_EQ(match("/api/v1/data/sources/{id}", "/api/v1/data/sources/abc/test", {}), "no");
    EXPECT_EQ(match("/api/v1/data/sources/{id}", "/api/v1/data/sources/", {"id"}), "yes|id=");
    EXPECT_EQ(match("/api/v1/storage/{tenant}/{path*}", "/api/v1/storage/acme/docs/a.txt",
                    {"tenant", "path"}),
              "yes|tenant=acme|path=docs/a.txt");
    // A query string is part of the path as received.
    EXPECT_EQ(match("/health", "/health?x=1", {}), "no");
    EXPECT_EQ(match("/api/v1/data/sources/{id}", "/api/v1/data/sources/a?b", {"id"}), "yes|id=a?b");
}

TEST(RoutePatterns, RestCapturesMayBeEmptyOrMustHoldSomething) {
    const char* files = "/api/v1/storage/{tenant}/{path*}";
    EXPECT_EQ(match(files, "/api/v1/storage/acme", {"tenant", "path"}), "yes|tenant=acme|path=");
    EXPECT_EQ(match(files, "/api/v1/storage/acme/", {"tenant", "path"}), "yes|tenant=acme|path=");
    EXPECT_EQ(match(files, "/api/v1/storage/acme/a//b/", {"path"}), "yes|path=a//b/");
    EXPECT_EQ(match(files, "/api/v1/storage", {}), "no");

    const char* document = "/d/{tenant}/{ns}/{id+}";
    EXPECT_EQ(match(document, "/d/t/n/x/y", {"id"}), "yes|id=x/y");
    EXPECT_EQ(match(document, "/d/t/n/", {}), "no");
    EXPECT_EQ(match(document, "/d/t/n", {}), "no");

    // A trailing "/" in a pattern matches only an empty last segment.
    EXPECT_EQ(match("/d/{tenant}/{ns}/", "/d/t/n/", {"ns"}), "yes|ns=n");
    EXPECT_EQ(match("/d/{tenant}/{ns}/", "/d/t/n", {}), "no");
    EXPECT_EQ(match("/d/{tenant}/{ns}/", "/d/t/n/x", {}), "no");
}

// Serves `method path` with the rows below and returns "<status> <error>".
struct Calls {
    std::string log;
};
void record(Calls& calls, const HttpRequest&, const RouteParams& params) {
    calls.log += "item " + params.get("id") + ";";
}
using TestRoute = Route<void (*)(Calls&, const HttpRequest&, const RouteParams&)>;
constexpr TestRoute kRows[] = {
    {"GET", "/items/{id}", record},
    {"DELETE", "/items/{id}", record},
    {"GET", "/items/{id}/{rest*}", nullptr},
};

std::string serve(Calls& calls, const std::string& method, const std::string& path) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return "socketpair failed";
    HttpRequest request;
    request.fd = fds[0];
    request.method = method;
    request.path = path;
    serveRoutes(calls, kRows, request, "No such item");
    close(fds[0]);
    const test::HttpResponse response = test::parseResponse(test::readAll(fds[1], 2000));
    close(fds[1]);
    return response.status == 0 ? "answered by handler" : response.outcome();
}

TEST(ServeRoutes, AnswersFromTheRowsOr404WithTheAreasMessageOr405) {
    Calls calls;
    EXPECT_EQ(serve(calls, "GET", "/items/7"), "answered by handler");
    EXPECT_EQ(serve(calls, "DELETE", "/items/8"), "answered by handler");
    EXPECT_EQ(calls.log, "item 7;item 8;");
    EXPECT_EQ(serve(calls, "PUT", "/items/7"), "405 Method not allowed");
    EXPECT_EQ(serve(calls, "GET", "/items/7/parts"), "404 No such item");
    EXPECT_EQ(serve(calls, "POST", "/items/7/parts"), "405 Method not allowed");
    EXPECT_EQ(serve(calls, "GET", "/things"), "404 No such item");
    EXPECT_EQ(calls.log, "item 7;item 8;");
}

}  // namespace
}  // namespace vostra::data
