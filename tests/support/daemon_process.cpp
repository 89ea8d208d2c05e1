#include "tests/support/daemon_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

pid_t spawn(const std::vector<std::string>& args, const std::string& out_path,
            const std::string& err_path) {
    std::vector<char*> argv;
    std::string binary = VOSTRA_DATAD_BINARY;
    argv.push_back(binary.data());
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        // A test process that crashes must not leave daemons behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int in = open("/dev/null", O_RDONLY);
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Waits for `pid`; returns true when it ended, with its status decoded.
bool waitFor(pid_t pid, int timeout_ms, int& status_out) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            status_out = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            return true;
        }
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

std::string makeTempDir(const std::string& tag) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + tag + "-XXXXXX";
    if (!mkdtemp(pattern.data())) return {};
    return pattern;
}

void removeTree(const std::string& path) {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

ProgramRun runDaemonBinary(const std::vector<std::string>& args, int timeout_ms) {
    std::string dir = makeTempDir("vostra-run");
    ProgramRun run;
    pid_t pid = spawn(args, dir + "/out", dir + "/err");
    if (!waitFor(pid, timeout_ms, run.exit_status)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        run.exit_status = -1;
    }
    run.out = readFile(dir + "/out");
    run.err = readFile(dir + "/err");
    removeTree(dir);
    return run;
}

DaemonProcess::DaemonProcess(std::vector<std::string> extra_args, bool wait_ready) {
    dir_ = makeTempDir("vostra-daemon");
    // A port picked by freePort() can be taken again before the daemon binds
    // it; a few attempts make that race harmless.
    for (int attempt = 0; attempt < 3; ++attempt) {
        port_ = freePort();
        std::vector<std::string> args = {"-p", std::to_string(port_), "--storage-path",
                                         dir_ + "/storage"};
        args.insert(args.end(), extra_args.begin(), extra_args.end());
        pid_ = spawn(args, dir_ + "/stdout", dir_ + "/stderr");
        if (!wait_ready) return;
        ready_ = waitReady(port_);
        if (ready_ || !running()) return;
        if (stderrText().find("Failed to bind") == std::string::npos) return;
        stop();
    }
}

DaemonProcess::~DaemonProcess() {
    if (pid_ > 0 && running()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    removeTree(dir_);
}

bool DaemonProcess::waitReady(int port, int timeout_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (Clock::now() < deadline) {
        if (!running()) return false;
        if (request(port, "GET", "/health").status == 200) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

bool DaemonProcess::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid_ = -1;
        return false;
    }
    return true;
}

int DaemonProcess::wait(int timeout_ms) {
    if (pid_ > 0 && waitFor(pid_, timeout_ms, status_)) pid_ = -1;
    return pid_ > 0 ? -1 : status_;
}

int DaemonProcess::stop(int timeout_ms) {
    if (!running()) return status_;
    kill(pid_, SIGTERM);
    if (waitFor(pid_, timeout_ms, status_)) {
        pid_ = -1;
        return status_;
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    status_ = -1;
    return -1;
}

std::string DaemonProcess::stdoutText() const { return readFile(dir_ + "/stdout"); }
std::string DaemonProcess::stderrText() const { return readFile(dir_ + "/stderr"); }

}  // namespace vostra::test
