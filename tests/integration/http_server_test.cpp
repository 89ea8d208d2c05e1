// The HTTP server of the real binary, spoken to over loopback.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

class HttpServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { daemon_ = new DaemonProcess(); }
    static void TearDownTestSuite() {
        delete daemon_;
        daemon_ = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText(); }
    void TearDown() override {
        // Whatever a test sent, the daemon must still be serving afterwards.
        EXPECT_EQ(request(port(), "GET", "/health").status, 200);
    }
    static int port() { return daemon_->port(); }

    // True when the server answers on `fd` within `ms`.
    static bool answersWithin(int fd, int ms) {
        pollfd waiting{fd, POLLIN, 0};
        return poll(&waiting, 1, ms) > 0;
    }

    static DaemonProcess* daemon_;
};
DaemonProcess* HttpServerTest::daemon_ = nullptr;

TEST_F(HttpServerTest, CoreEndpointsAnswerWithTheirKeys) {
    auto health = request(port(), "GET", "/health");
    EXPECT_EQ(health.status, 200);
    EXPECT_EQ(health.header("Content-Type"), "application/json");
    EXPECT_EQ(health.header("Connection"), "close");
    auto h = health.json();
    EXPECT_EQ(h["status"], "healthy");
    EXPECT_EQ(h["daemon_id"].get<std::string>().rfind("data-", 0), 0u);
    EXPECT_EQ(h["daemon_id"].get<std::string>().size(), 17u);
    EXPECT_TRUE(h.contains("uptime_seconds"));
    EXPECT_EQ(h["total_sources"], 0);

    auto info = request(port(), "POST", "/api/v1/info").json();
    EXPECT_EQ(info["version"], "1.0.0");
    EXPECT_EQ(info["port"], port());
    EXPECT_EQ(info["daemon_id"], h["daemon_id"]);
    for (const char* key : {"daemon_name", "bind_address", "hostname", "ip_address",
                            "available_connectors"})
        EXPECT_TRUE(info.contains(key)) << key;

    auto metrics = request(port(), "OPTIONS", "/api/v1/metrics").json();
    EXPECT_EQ(metrics["total_queries"], 0);
    EXPECT_TRUE(metrics["sources"].is_array());
}

TEST_F(HttpServerTest, ExactRoutesDoNotMatchWithAQueryString) {
    auto response = request(port(), "GET", "/health?x=1");
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.body, R"({"error":"Not found"})");
    EXPECT_EQ(request(port(), "GET", "/api/v1/agents-x").status, 404);
    EXPECT_EQ(request(port(), "GET", "/nothing/here").status, 404);
}

TEST_F(HttpServerTest, RootRedirectsWithTheBareLiteral) {
    EXPECT_EQ(sendRaw(port(), "GET / HTTP/1.1\r\n\r\n").raw,
              "HTTP/1.1 302 Found\r\nLocation: /dashboard\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(HttpServerTest, WaitsForABodyAnnouncedInEitherLengthSpelling) {
    for (const char* header : {"Content-Length: 4", "content-length: 4"}) {
        int fd = connectTo(port());
        sendAll(fd, std::string("POST /health HTTP/1.1\r\n") + header + "\r\n\r\n");
        EXPECT_FALSE(answersWithin(fd, 300)) << header;
        sendAll(fd, "ab");
        EXPECT_FALSE(answersWithin(fd, 200)) << header;
        sendAll(fd, "cd");
        EXPECT_EQ(parseResponse(readAll(fd)).status, 200) << header;
        close(fd);
    }
}

TEST_F(HttpServerTest, IgnoresALengthHeaderInCapitals) {
    int fd = connectTo(port());
    sendAll(fd, "POST /health HTTP/1.1\r\nCONTENT-LENGTH: 4\r\n\r\n");
    EXPECT_TRUE(answersWithin(fd, 3000));
    EXPECT_EQ(parseResponse(readAll(fd)).status, 200);
    close(fd);
}

TEST_F(HttpServerTest, AnswersOneRequestPerConnection) {
    auto response = sendRaw(port(), "GET /health HTTP/1.1\r\n\r\nGET /info HTTP/1.1\r\n\r\n");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.raw.find("HTTP/1.1", 1), std::string::npos);
    EXPECT_NE(response.body.find("healthy"), std::string::npos);
}

TEST_F(HttpServerTest, SurvivesGarbageAndOversizedRequestLines) {
    EXPECT_EQ(sendRaw(port(), "\x16\x03\x01 binary junk\r\n\r\n").status, 404);
    EXPECT_EQ(sendRaw(port(), "\r\n\r\n").status, 404);

    const std::string long_word(100 * 1024, 'A');
    EXPECT_EQ(sendRaw(port(), long_word + " /health HTTP/1.1\r\n\r\n").status, 200);
    EXPECT_EQ(sendRaw(port(), "GET /" + long_word + " HTTP/1.1\r\n\r\n").status, 404);

    int silent = connectTo(port());
    close(silent);  // an empty connection gets no answer and costs nothing
}

TEST_F(HttpServerTest, DispatchesStalledRequestsWithWhatArrived) {
    // Each of these stalls until the server's receive time-out; run them side by side.
    auto stalled = [](std::string bytes) {
        return std::async(std::launch::async, [bytes] {
            int fd = connectTo(port());
            sendAll(fd, bytes);
            HttpResponse response = parseResponse(readAll(fd, 15000));
            close(fd);
            return response;
        });
    };
    auto unfinished_headers = stalled("GET /health HTTP/1.1\r\nX-Partial: yes");
    auto short_body = stalled("POST /nowhere HTTP/1.1\r\nContent-Length: 100\r\n\r\nonly this");
    auto not_http = stalled("this is not http at all");

    EXPECT_EQ(unfinished_headers.get().status, 200);
    EXPECT_EQ(short_body.get().status, 404);
    EXPECT_EQ(not_http.get().status, 404);
}

}  // namespace
}  // namespace vostra::test
