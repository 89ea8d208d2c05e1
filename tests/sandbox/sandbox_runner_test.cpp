// The sandbox itself, against a hostile command: what it must not see or
// reach, and the limits that must hold. Skipped, saying why, on a host
// where bubblewrap cannot make namespaces.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "sandbox/sandbox_runner.h"

namespace vostra::sandbox {
namespace {

namespace fs = std::filesystem;

// Processes on the host whose command line is exactly `argv`.
int processesRunning(const std::vector<std::string>& argv) {
    std::string wanted;
    for (const std::string& arg : argv) wanted.append(arg).push_back('\0');
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline");
        const std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (line == wanted) ++count;
    }
    return count;
}

class SandboxRunnerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string problem = runner_.probe(); !problem.empty()) GTEST_SKIP() << problem;
        char root[] = "/tmp/vostra-sandbox-test-XXXXXX";
        ASSERT_NE(mkdtemp(root), nullptr);
        root_ = root;
        fs::create_directories(root_ + "/tenants/a/workspaces/w");
        fs::create_directories(root_ + "/tenants/b/workspaces/w");
        std::ofstream(root_ + "/tenants/b/workspaces/w/secret.txt") << "tenant b";
        std::ofstream(root_ + "/state.json") << "daemon state";
    }
    void TearDown() override {
        std::error_code ignored;
        if (!root_.empty()) fs::remove_all(root_, ignored);
    }
    SandboxOutcome run(std::vector<std::string> argv, SandboxLimits limits = {}) {
        SandboxCommand command;
        command.argv = std::move(argv);
        command.host_dir = root_ + "/tenants/a/workspaces/w";
        command.limits = limits;
        return runner_.run(command);
    }
    SandboxOutcome shell(const std::string& script, SandboxLimits limits = {}) {
        return run({"bash", "-c", script}, limits);
    }

    SandboxRunner runner_;
    std::string root_;
};

TEST_F(SandboxRunnerTest, SeesOnlyItsWorkspaceAndTheSystemReadOnly) {
    const SandboxOutcome own = shell("echo made > /workspace/out.txt && cat /workspace/out.txt && pwd");
    ASSERT_TRUE(own.started) << own.error;
    EXPECT_EQ(own.exit_code, 0) << own.stderr_text;
    EXPECT_EQ(own.stdout_text, "made\n/workspace\n");
    EXPECT_TRUE(fs::exists(root_ + "/tenants/a/workspaces/w/out.txt"));

    // Each attempt must fail inside; none may print what it went for.
    for (const std::string& attempt : std::vector<std::string>{
             "cat /etc/shadow",
             "cat " + root_ + "/state.json",
             "cat " + root_ + "/tenants/b/workspaces/w/secret.txt",
             "ls " + root_,
             "cat /workspace/../../b/workspaces/w/secret.txt",
             "ls /var/lib /root /home 2>/dev/null | grep -q . && exit 0 || exit 1",
             "touch /usr/escaped",
             "touch /etc/escaped",
             "mount -t tmpfs none /usr",
         }) {
        const SandboxOutcome outcome = shell(attempt);
        EXPECT_NE(outcome.exit_code, 0) << attempt << ": " << outcome.stdout_text;
        EXPECT_EQ(outcome.stdout_text.find("tenant b"), std::string::npos) << attempt;
        EXPECT_EQ(outcome.stdout_text.find("daemon state"), std::string::npos) << attempt;
    }
    EXPECT_FALSE(fs::exists("/usr/escaped"));

    // /tmp is the sandbox's own, gone afterwards.
    EXPECT_EQ(shell("echo x > /tmp/left-behind && ls /tmp").stdout_text, "left-behind\n");
    EXPECT_EQ(shell("ls /tmp").stdout_text, "");
}

TEST_F(SandboxRunnerTest, ReachesNoNetworkAndNoHostSocket) {
    int port = 0;
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);

    const SandboxOutcome local = shell("echo > /dev/tcp/127.0.0.1/" + std::to_string(port));
    EXPECT_NE(local.exit_code, 0);
    EXPECT_NE(local.stderr_text.find("refused"), std::string::npos) << local.stderr_text;
    const SandboxOutcome remote = shell("echo > /dev/tcp/192.0.2.1/80");
    EXPECT_NE(remote.exit_code, 0);
    EXPECT_NE(remote.stderr_text.find("unreachable"), std::string::npos) << remote.stderr_text;
    EXPECT_EQ(shell("ls /sys/class/net").stdout_text.find("eth"), std::string::npos);
    close(listener);
}

TEST_F(SandboxRunnerTest, LimitsHoldAgainstForkBombsHogsAndFloods) {
    SandboxLimits limits;
    limits.timeout_seconds = 20;
    limits.max_processes = 32;
    limits.memory_bytes = 64LL << 20;
    limits.output_bytes = 1000;

    // The bomb meets the process limit; the survivor reports back.
    const SandboxOutcome bomb = shell("b() { b | b & }; b; sleep 2; echo survived", limits);
    EXPECT_FALSE(bomb.timed_out);
    EXPECT_NE(bomb.process_limit, "none");
    EXPECT_NE(bomb.stderr_text.find("fork"), std::string::npos);

    // A line that never ends, held in memory by tail.
    const SandboxOutcome hog = run({"tail", "/dev/zero"}, limits);
    EXPECT_FALSE(hog.timed_out);
    EXPECT_NE(hog.exit_code, 0);

    // 1 GB of output: the first bytes are kept, the rest counted.
    const SandboxOutcome flood = run({"head", "-c", "1000000000", "/dev/zero"}, limits);
    EXPECT_EQ(flood.exit_code, 0);
    EXPECT_EQ(flood.stdout_text.size(), 1000u);
    EXPECT_EQ(flood.stdout_dropped, 1000000000u - 1000u);

    // The time limit kills the whole tree, daemons and closed outputs too.
    limits.timeout_seconds = 1;
    const SandboxOutcome endless = shell("(setsid sleep 300 &) ; exec >&- 2>&-; exec sleep 300", limits);
    EXPECT_TRUE(endless.timed_out);
    EXPECT_LT(endless.duration_ms, 10000);
    EXPECT_EQ(processesRunning({"sleep", "300"}), 0);
}

TEST_F(SandboxRunnerTest, StopEndsARunningCommand) {
    std::stop_source stop;
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        stop.request_stop();
    });
    SandboxCommand command;
    command.argv = {"sleep", "60"};
    command.host_dir = root_ + "/tenants/a/workspaces/w";
    const SandboxOutcome outcome = runner_.run(command, stop.get_token());
    stopper.join();
    EXPECT_TRUE(outcome.cancelled);
    EXPECT_LT(outcome.duration_ms, 10000);
}

TEST(SandboxRunner, SaysWhyItCannotRun) {
    EXPECT_NE(SandboxRunner("/nonexistent/bwrap").probe().find("bwrap was not found"), std::string::npos);
    const std::string refused = SandboxRunner("false").probe();
    EXPECT_NE(refused.find("cannot create namespaces"), std::string::npos) << refused;
}

}  // namespace
}  // namespace vostra::sandbox
