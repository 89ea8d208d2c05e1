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

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

pid_t spawn(const std::vector<std::string>& args, const std::string& out_path,
            const std::string& err_path) {
    std::string binary = VOSTRA_DATAD_BINARY;
    std::vector<char*> argv = {binary.data()};
    for (const auto& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        // A test process that crashes must not leave daemons behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 1);
        dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Waits up to `timeout_ms` for `pid` to end; true with its status decoded
// (-1 for a signal) when it did.
bool reap(pid_t pid, int timeout_ms, int& status_out) {
    return eventually(
        [&] {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) != pid) return false;
            status_out = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            return true;
        },
        timeout_ms);
}

void kill9(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace

int bindLoopback(int& port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

std::pair<int, int> resourcesOf(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    const auto fds = std::distance(std::filesystem::directory_iterator(proc + "/fd"), {});
    std::ifstream status(proc + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("Threads:", 0) != 0) {
    }
    return {static_cast<int>(fds), std::atoi(line.c_str() + 8)};
}

std::string runCommand(const std::string& command, int* status) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return out;
    char buffer[4096];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    const int raw = pclose(pipe);
    if (status) *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return out;
}

int freePort() {
    int port = 0;
    close(bindLoopback(port));
    return port;
}

std::string makeTempDir(const std::string& tag) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + tag + "-XXXXXX";
    return mkdtemp(pattern.data()) ? pattern : "";
}

void removeTree(const std::string& path) {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

bool eventually(const std::function<bool()>& done, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

ProgramRun runDaemonBinary(const std::vector<std::string>& args, int timeout_ms) {
    std::string dir = makeTempDir("vostra-run");
    ProgramRun run;
    pid_t pid = spawn(args, dir + "/out", dir + "/err");
    if (!reap(pid, timeout_ms, run.exit_status)) kill9(pid);
    run.out = readFile(dir + "/out");
    run.err = readFile(dir + "/err");
    removeTree(dir);
    return run;
}

DaemonProcess::DaemonProcess(std::vector<std::string> extra_args, bool wait_ready) {
    launch(extra_args, nullptr, wait_ready);
}

DaemonProcess::DaemonProcess(const ConfigFile& config) {
    launch({}, config.settings, true);
}

void DaemonProcess::launch(const std::vector<std::string>& extra_args, const nlohmann::json& config,
                           bool wait_ready) {
    dir_ = makeTempDir("vostra-daemon");
    // A port picked by freePort() can be taken again before the daemon binds
    // it; a few attempts make that race harmless.
    for (int attempt = 0; attempt < 3; ++attempt) {
        port_ = freePort();
        std::vector<std::string> args = {"-p",
                                         std::to_string(port_),
                                         "--storage-path",
                                         dir_ + "/storage",
                                         "--git-path",
                                         dir_ + "/git",
                                         "--science-keys-file",
                                         dir_ + "/science/science_api_keys.json"};
        if (!config.is_null()) {
            nlohmann::json file = {{"storage_path", dir_ + "/storage"},
                                   {"vector_path", dir_ + "/vectors"},
                                   {"git_path", dir_ + "/git"},
                                   {"science_keys_file", dir_ + "/science/science_api_keys.json"}};
            file.update(config);
            file["port"] = port_;
            std::ofstream(dir_ + "/config.json") << file;
            args = {"--config", dir_ + "/config.json"};
        }
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
    if (running()) kill9(pid_);
    removeTree(dir_);
}

bool DaemonProcess::waitReady(int port, int timeout_ms) {
    return eventually([&] { return !running() || request(port, "GET", "/health").status == 200; },
                      timeout_ms) &&
           running();
}

bool DaemonProcess::running() {
    if (pid_ > 0 && reap(pid_, 0, status_)) pid_ = -1;
    return pid_ > 0;
}

int DaemonProcess::stop(int timeout_ms) {
    if (!running()) return status_;
    kill(pid_, SIGTERM);
    if (!reap(pid_, timeout_ms, status_)) {
        kill9(pid_);
        status_ = -1;
    }
    pid_ = -1;
    return status_;
}

std::string DaemonProcess::stdoutText() const {
    return readFile(dir_ + "/stdout");
}
std::string DaemonProcess::stderrText() const {
    return readFile(dir_ + "/stderr");
}

}  // namespace vostra::test
