// The real binary's HTTP server as real clients meet it: curl's chunked and
// "Expect: 100-continue" uploads, a slow download, oversized heads,
// percent-encoded paths, HEAD, absolute targets, and a crowd of clients that
// drip their requests a byte at a time.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

namespace fs = std::filesystem;

const std::string kFiles = "/api/v1/storage/default/";

class HttpClientsTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_ = std::make_unique<DaemonProcess>();
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
        folder_ = daemon_->dir() + "/storage/tenants/default/";
    }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(daemon_->port()) + path;
    }
    std::string slurp(const std::string& path) const {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // A text file of `size` bytes without NUL bytes, under the test's folder.
    std::string makeText(const std::string& name, std::size_t size) const {
        std::string text(size, 'x');
        for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 3) % 26);
        std::ofstream(daemon_->dir() + "/" + name, std::ios::binary) << text;
        return daemon_->dir() + "/" + name;
    }

    std::unique_ptr<DaemonProcess> daemon_;
    std::string folder_;
};

TEST_F(HttpClientsTest, CurlUploadsChunkedFromStdinAndWithExpectContinue) {
    const std::string source = makeText("source.txt", 3 << 20);
    int status = -1;
    runCommand("curl -sS -T - " + url(kFiles + "piped.txt") + " < " + source, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(slurp(folder_ + "piped.txt"), slurp(source));

    runCommand("curl -sS --expect100-timeout 60 -H 'Expect: 100-continue' -X PUT --data-binary @" +
                   source + " " + url(kFiles + "expected.txt"),
               &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(slurp(folder_ + "expected.txt"), slurp(source));
}

TEST_F(HttpClientsTest, AnswersContinueBeforeTheBodyIsSent) {
    const int fd = connectTo(daemon_->port());
    ASSERT_TRUE(sendAll(fd, "PUT " + kFiles + "c.txt HTTP/1.1\r\nContent-Length: 4\r\n"
                                              "Expect: 100-continue\r\n\r\n"));
    pollfd waiting{fd, POLLIN, 0};
    ASSERT_EQ(poll(&waiting, 1, 10000), 1);
    char interim[64] = {};
    const ssize_t got = recv(fd, interim, sizeof interim - 1, 0);
    EXPECT_EQ(std::string(interim, got > 0 ? got : 0), "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_TRUE(sendAll(fd, "body"));
    EXPECT_EQ(parseResponse(readAll(fd)).status, 201);
    close(fd);
    EXPECT_EQ(slurp(folder_ + "c.txt"), "body");
}

TEST_F(HttpClientsTest, ASlowReaderGetsTheWholeDownload) {
    // Read at 512 KiB/s through a small receive buffer: the server is kept
    // sending for well over the 30 s a send may go without progress.
    constexpr std::size_t kSize = 24 << 20;
    constexpr std::size_t kPiece = 16 << 10;
    const std::string source = makeText("slow.txt", kSize);
    fs::create_directories(folder_);
    fs::copy_file(source, folder_ + "slow.txt");

    const int fd = connectTo(daemon_->port(), /*receive_buffer=*/64 << 10);
    ASSERT_TRUE(sendAll(fd, "GET " + kFiles + "slow.txt HTTP/1.1\r\n\r\n"));
    std::string received;
    char buffer[kPiece];
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        received.append(buffer, static_cast<std::size_t>(n));
        next += std::chrono::microseconds(1000000 * n / (512 << 10));
        std::this_thread::sleep_until(next);
    }
    close(fd);
    const HttpResponse response = parseResponse(received);
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body.size(), kSize);
    EXPECT_TRUE(response.body == slurp(source));
}

TEST_F(HttpClientsTest, ATooLargeHeadIsAnswered431AndNeverDispatched) {
    const std::string head = "PUT " + kFiles + "h.txt HTTP/1.1\r\nX-Pad: " +
                             std::string(1100 * 1024, 'p') + "\r\nContent-Length: 1\r\n\r\nz";
    EXPECT_EQ(sendRaw(daemon_->port(), head).outcome(), "431 Request header fields too large");
    EXPECT_FALSE(fs::exists(folder_ + "h.txt"));
}

TEST_F(HttpClientsTest, PathsArePercentDecodedAfterRouting) {
    fs::create_directories(folder_);
    std::ofstream(folder_ + "a b.txt") << "spaced";
    EXPECT_EQ(request(daemon_->port(), "GET", kFiles + "a%20b.txt").body, "spaced");
    EXPECT_EQ(request(daemon_->port(), "PUT", kFiles + "c%2Fd.txt", "nested").status, 201);
    EXPECT_EQ(slurp(folder_ + "c/d.txt"), "nested");

    EXPECT_EQ(request(daemon_->port(), "POST", "/api/v1/data/sources",
                      R"({"id":"a b","type":"sqlite","path":""})")
                  .status,
              201);
    EXPECT_EQ(request(daemon_->port(), "GET", "/api/v1/data/sources/a%20b").json()["id"], "a b");
    EXPECT_EQ(request(daemon_->port(), "DELETE", "/api/v1/data/sources/a%20b").status, 200);
    for (const char* bad : {"/api/v1/data/sources/a%2Fb", "/api/v1/data/sources/a%00b",
                            "/api/v1/tenants/x%2F..", "/api/v1/storage/default/a%00.txt"})
        EXPECT_EQ(request(daemon_->port(), "GET", bad).outcome(),
                  "400 Invalid encoded character in path")
            << bad;
}

TEST_F(HttpClientsTest, HeadAnswersLikeGetWithoutTheBodyAndAbsoluteTargetsAreRouted) {
    const HttpResponse get = request(daemon_->port(), "GET", "/api/v1/info");
    const HttpResponse head = request(daemon_->port(), "HEAD", "/api/v1/info");
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.head, get.head);
    EXPECT_EQ(head.body, "");

    const HttpResponse absolute = sendRaw(
        daemon_->port(),
        "GET http://127.0.0.1:" + std::to_string(daemon_->port()) + "/health HTTP/1.1\r\n\r\n");
    EXPECT_EQ(absolute.json()["status"], "healthy");
}

TEST(HttpServerBind, AnAddressWithAColonIsIPv6) {
    if (runCommand("ip -6 addr show lo 2>/dev/null").find("::1") == std::string::npos)
        GTEST_SKIP() << "no IPv6 loopback here";
    DaemonProcess daemon({"-b", "::1"}, /*wait_ready=*/false);
    const std::string url = "http://[::1]:" + std::to_string(daemon.port()) + "/health";
    EXPECT_TRUE(eventually([&] {
        return runCommand("curl -sg " + url).find("\"healthy\"") != std::string::npos;
    }));
    EXPECT_EQ(connectTo(daemon.port()), -1);  // not on IPv4 loopback
}

TEST_F(HttpClientsTest, ClientsThatDripTheirRequestsCostNoSlots) {
    // Leave the process's descriptors for the crowd.
    const auto before = resourcesOf(daemon_->pid());
    std::vector<int> crowd;
    for (int i = 0; i < 600; ++i) {
        const int fd = connectTo(daemon_->port());
        ASSERT_GE(fd, 0) << i;
        crowd.push_back(fd);
    }
    const std::string head = "GET /health HTTP/1.1\r\nX-Drip: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
    std::size_t dripped = 0;
    int answered = 0;
    int refused = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    auto next_drip = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() < end) {
        if (std::chrono::steady_clock::now() >= next_drip) {
            for (int fd : crowd) sendAll(fd, std::string(1, head[dripped % head.size()]));
            ++dripped;
            next_drip += std::chrono::seconds(3);
        }
        const HttpResponse normal = request(daemon_->port(), "GET", "/health");
        normal.status == 200 ? ++answered : ++refused;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_EQ(refused, 0);
    EXPECT_GT(answered, 50);
    for (int fd : crowd) close(fd);
    // The reader lets go of every connection; no thread was ever started for them.
    EXPECT_TRUE(eventually(
        [&] {
            const auto now = resourcesOf(daemon_->pid());
            return now.first <= before.first && now.second <= before.second + 2;
        },
        15000));
}

}  // namespace
}  // namespace vostra::test
