// Start-up, options, shutdown and the connection cap of the real binary.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

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
    ProgramRun version = runDaemonBinary({"--version"});
    EXPECT_EQ(version.exit_status, 0);
    EXPECT_EQ(version.out, "vostra-datad 4.1.0\n");

    ProgramRun help = runDaemonBinary({"-h"});
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_NE(help.out.find("Storage Options:"), std::string::npos);

    ProgramRun unknown = runDaemonBinary({"--no-such-option"});
    EXPECT_EQ(unknown.exit_status, 1);
    EXPECT_NE(unknown.out.find("Usage: "), std::string::npos);

    ProgramRun missing = runDaemonBinary({"--config", dir_ + "/absent.json"});
    EXPECT_EQ(missing.exit_status, 1);
    EXPECT_NE(missing.err.find("Cannot open config file: " + dir_ + "/absent.json"),
              std::string::npos);

    std::ofstream(dir_ + "/broken.json") << "{\"port\": ";
    ProgramRun broken = runDaemonBinary({"--config", dir_ + "/broken.json"});
    EXPECT_EQ(broken.exit_status, 1);
    EXPECT_NE(broken.err.find("Error reading config file: "), std::string::npos);

    EXPECT_EQ(runDaemonBinary({"-p", "not-a-number"}).exit_status, 1);
}

TEST_F(DaemonLifecycleTest, ConnectionsOverTheCapAreTurnedAwayWithServerBusy) {
    DaemonProcess daemon({"--max-connections", "2"});
    ASSERT_TRUE(daemon.ready()) << daemon.stderrText();

    // Two requests whose headers never end hold both slots until they close.
    int held[2] = {connectTo(daemon.port()), connectTo(daemon.port())};
    for (int fd : held) sendAll(fd, "GET /health HTTP/1.1\r\nX-Slow: ");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    HttpResponse busy = request(daemon.port(), "GET", "/health");
    EXPECT_EQ(busy.status, 503);
    EXPECT_EQ(busy.body, R"({"error":"Server busy"})");

    for (int fd : held) close(fd);
    int status = 0;
    for (int attempt = 0; attempt < 100 && status != 200; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        status = request(daemon.port(), "GET", "/health").status;
    }
    EXPECT_EQ(status, 200);
}

TEST_F(DaemonLifecycleTest, KeepsRunningWhenItsPortIsTaken) {
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = 0;
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    listen(blocker, 1);
    socklen_t length = sizeof address;
    getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string taken = std::to_string(ntohs(address.sin_port));

    DaemonProcess daemon({"-p", taken}, false);
    std::string err;
    for (int i = 0; i < 200 && err.find("Failed to bind") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        err = daemon.stderrText();
    }
    EXPECT_NE(err.find("[DataDaemon] Failed to bind to port " + taken), std::string::npos);
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(daemon.stop(), 0);
    close(blocker);
}

// The pid of the process whose command line holds `needle`, or -1.
pid_t findProcessByArgument(const std::string& needle) {
    DIR* proc = opendir("/proc");
    pid_t found = -1;
    while (dirent* entry = readdir(proc)) {
        std::ifstream file(std::string("/proc/") + entry->d_name + "/cmdline");
        std::string cmdline((std::istreambuf_iterator<char>(file)), {});
        if (cmdline.find(needle) != std::string::npos && cmdline.find("vostra-datad") != std::string::npos) {
            found = std::atoi(entry->d_name);
            break;
        }
    }
    closedir(proc);
    return found;
}

TEST_F(DaemonLifecycleTest, BackgroundModeDetachesSilently) {
    const int port = freePort();
    const std::string marker = dir_ + "/background-storage";
    ProgramRun parent = runDaemonBinary({"-d", "-p", std::to_string(port), "--storage-path", marker});
    EXPECT_EQ(parent.exit_status, 0);
    EXPECT_EQ(parent.out, "");

    int status = 0;
    for (int i = 0; i < 250 && status != 200; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        status = request(port, "GET", "/health").status;
    }
    EXPECT_EQ(status, 200);
    pid_t child = findProcessByArgument(marker);
    ASSERT_GT(child, 0);
    kill(child, SIGTERM);
    for (int i = 0; i < 250 && kill(child, 0) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_NE(kill(child, 0), 0);
}

}  // namespace
}  // namespace vostra::test
