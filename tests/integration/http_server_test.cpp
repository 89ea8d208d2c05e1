// The real binary's HTTP server spoken to over loopback, then its start-up,
// options, shutdown and connection cap.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/fake_http_server.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

class HttpServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { daemon_ = std::make_unique<DaemonProcess>(); }
    static void TearDownTestSuite() { daemon_.reset(); }
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

    static inline std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(HttpServerTest, CoreEndpointsAnswerAnyMethodWithExactlyTheFourHeaderLines) {
    const HttpResponse health = request(port(), "GET", "/health");
    EXPECT_EQ(health.head, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                               std::to_string(health.body.size()) + "\r\nConnection: close\r\n");
    const nlohmann::json h = health.json();
    EXPECT_EQ(h["status"], "healthy");
    EXPECT_EQ(h["daemon_id"].get<std::string>().rfind("data-", 0), 0u);
    EXPECT_EQ(h["daemon_id"].get<std::string>().size(), 17u);

    const nlohmann::json info = request(port(), "POST", "/api/v1/info").json();
    EXPECT_EQ(info["version"], "1.0.0");
    EXPECT_EQ(info["port"], port());
    EXPECT_EQ(info["daemon_id"], h["daemon_id"]);
    EXPECT_EQ(request(port(), "OPTIONS", "/api/v1/metrics").json()["total_queries"], 0);
}

TEST_F(HttpServerTest, ExactRoutesDoNotMatchWithAQueryString) {
    for (const char* path : {"/health?x=1", "/api/v1/agents-x", "/nothing/here"}) {
        const HttpResponse response = request(port(), "GET", path);
        EXPECT_EQ(response.status, 404) << path;
        EXPECT_EQ(response.body, R"({"error":"Not found"})") << path;
    }
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

class DaemonLifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { dir_ = makeTempDir("vostra-life"); }
    void TearDown() override { removeTree(dir_); }

    std::string writeConfig(const nlohmann::json& json) {
        std::string path = dir_ + "/config.json";
        std::ofstream(path) << json.dump();
        return path;
    }

    std::string dir_;
};

TEST_F(DaemonLifecycleTest, SigtermDuringALongHeartbeatPeriodExitsZeroPromptly) {
    DaemonProcess daemon({"--heartbeat", "30000"});
    ASSERT_TRUE(daemon.ready()) << daemon.stderrText();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(daemon.stop(3000), 0);

    const std::string out = daemon.stdoutText();
    EXPECT_NE(out.find("(standalone)"), std::string::npos);
    EXPECT_NE(out.find("Data daemon started"), std::string::npos);
    EXPECT_NE(out.find("[vostra-datad] Received signal 15, shutting down..."), std::string::npos);
    EXPECT_NE(out.find("[DataDaemon] Stopped"), std::string::npos);
}

TEST_F(DaemonLifecycleTest, OptionsBeforeConfigAreLostAndOptionsAfterItWin) {
    const int file_port = freePort();
    const std::string file = writeConfig({{"port", file_port}, {"daemon_name", "from-file"}});

    // The fixture's own "-p" comes first, so the file's port must win here.
    DaemonProcess first({"--config", file}, /*wait_ready=*/false);
    ASSERT_TRUE(first.waitReady(file_port)) << first.stderrText();
    EXPECT_EQ(request(file_port, "GET", "/info").json()["daemon_name"], "from-file");
    EXPECT_EQ(first.stop(), 0);

    const int option_port = freePort();
    DaemonProcess second({"--config", file, "-p", std::to_string(option_port)}, false);
    ASSERT_TRUE(second.waitReady(option_port)) << second.stderrText();
    EXPECT_EQ(request(option_port, "GET", "/info").json()["port"], option_port);
    EXPECT_EQ(second.stop(), 0);
}

TEST_F(DaemonLifecycleTest, InformationalOptionsAndBadInputSetTheExitStatus) {
    const std::string absent = dir_ + "/absent.json";
    std::ofstream(dir_ + "/broken.json") << "{\"port\": ";
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    } cases[] = {
        {{"--version"}, 0, "vostra-datad 4.1.0\n", ""},
        {{"-h"}, 0, "Storage Options:", ""},
        {{"--list-connectors"}, 0, "  - postgresql (libpq)\n", ""},
        {{"--no-such-option"}, 1, "Usage: ", ""},
        {{"-p"}, 1, "Usage: ", ""},
        {{"-p", "not-a-number"}, 1, "", ""},
        {{"--config", absent}, 1, "", "Cannot open config file: " + absent},
        {{"--config", dir_ + "/broken.json"}, 1, "", "Error reading config file: "},
        {{"--config", writeConfig({{"port", "eighty"}})}, 1, "", "Error reading config file: "},
    };
    for (const auto& c : cases) {
        const ProgramRun run = runDaemonBinary(c.args);
        EXPECT_EQ(run.exit_status, c.status) << c.args[0];
        EXPECT_NE(run.out.find(c.out), std::string::npos) << c.args[0] << ": " << run.out;
        EXPECT_NE(run.err.find(c.err), std::string::npos) << c.args[0] << ": " << run.err;
    }
}

TEST_F(DaemonLifecycleTest, RequestsOverEitherCapAreTurnedAwayWithServerBusy) {
    // Connections still sending their head are capped by the waiting limit.
    {
        DaemonProcess daemon({"--max-waiting-connections", "2"});
        ASSERT_TRUE(daemon.ready()) << daemon.stderrText();
        int held[2] = {connectTo(daemon.port()), connectTo(daemon.port())};
        for (int fd : held) sendAll(fd, "GET /health HTTP/1.1\r\nX-Slow: ");
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(request(daemon.port(), "GET", "/health").outcome(), "503 Server busy");
        for (int fd : held) close(fd);
        EXPECT_TRUE(
            eventually([&] { return request(daemon.port(), "GET", "/health").status == 200; }));
    }
    // Requests being answered are capped by max_connections: two downloads
    // whose clients do not read hold both slots.
    DaemonProcess daemon({"--max-connections", "2"});
    ASSERT_TRUE(daemon.ready()) << daemon.stderrText();
    const std::string folder = daemon.dir() + "/storage/tenants/default";
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/big.txt") << std::string(32 << 20, 'x');
    int held[2];
    for (int& fd : held) {
        fd = connectTo(daemon.port());
        sendAll(fd, "GET /api/v1/storage/default/big.txt HTTP/1.1\r\n\r\n");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(request(daemon.port(), "GET", "/health").outcome(), "503 Server busy");
    for (int fd : held) close(fd);
    EXPECT_TRUE(eventually([&] { return request(daemon.port(), "GET", "/health").status == 200; }));
}

TEST_F(DaemonLifecycleTest, KeepsRunningWhenItsPortIsTaken) {
    FakeHttpServer holder;
    const std::string taken = std::to_string(holder.port());
    DaemonProcess daemon({"-p", taken}, /*wait_ready=*/false);
    EXPECT_TRUE(eventually([&] {
        return daemon.stderrText().find("[DataDaemon] Failed to bind to port " + taken) !=
               std::string::npos;
    }));
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(daemon.stop(), 0);
}

// The pid of the vostra-datad process whose command line holds `needle`, or -1.
pid_t findDaemonByArgument(const std::string& needle) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        std::ifstream file(entry.path() / "cmdline");
        const std::string cmdline{std::istreambuf_iterator<char>(file), {}};
        if (cmdline.find(needle) != std::string::npos &&
            cmdline.find("vostra-datad") != std::string::npos)
            return std::atoi(entry.path().filename().c_str());
    }
    return -1;
}

TEST_F(DaemonLifecycleTest, BackgroundModeDetachesSilently) {
    const int port = freePort();
    const std::string marker = dir_ + "/background-storage";
    ProgramRun parent =
        runDaemonBinary({"-d", "-p", std::to_string(port), "--storage-path", marker});
    EXPECT_EQ(parent.exit_status, 0);
    EXPECT_EQ(parent.out, "");

    EXPECT_TRUE(eventually([&] { return request(port, "GET", "/health").status == 200; }));
    pid_t child = findDaemonByArgument(marker);
    ASSERT_GT(child, 0);
    kill(child, SIGTERM);
    EXPECT_TRUE(eventually([&] { return kill(child, 0) != 0; }));
}

}  // namespace
}  // namespace vostra::test
