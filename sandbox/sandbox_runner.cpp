#include "sandbox/sandbox_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "common/random_id.h"
#include "sandbox/cgroup_limits.h"

namespace vostra::sandbox {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kPathEntry[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr const char* kPath = kPathEntry + 5;

// Host files a program needs to start, name users and check certificates;
// nothing secret (no shadow, no keys, no daemon configuration).
constexpr const char* kEtcFiles[] = {
    "/etc/alternatives", "/etc/ld.so.cache", "/etc/ld.so.conf", "/etc/ld.so.conf.d",
    "/etc/ssl/certs",    "/etc/ca-certificates", "/etc/localtime", "/etc/passwd",
    "/etc/group",        "/etc/nsswitch.conf",   "/etc/hosts",     "/etc/mime.types",
    "/etc/protocols",    "/etc/services",
};

// On a merged-/usr system these are links into /usr, kept as links.
constexpr const char* kTopFolders[] = {"/bin", "/sbin", "/lib", "/lib64", "/lib32", "/libx32"};

std::string resolveProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0 ? name : "";
    const char* path = getenv("PATH");
    std::string dirs = path ? path : kPath;
    std::size_t begin = 0;
    while (begin <= dirs.size()) {
        std::size_t end = dirs.find(':', begin);
        if (end == std::string::npos) end = dirs.size();
        const std::string candidate = dirs.substr(begin, end - begin) + "/" + name;
        if (end > begin && access(candidate.c_str(), X_OK) == 0) return candidate;
        begin = end + 1;
    }
    return "";
}

int runningThreads() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("Threads:")) return std::atoi(line.c_str() + 8);
    return 0;
}

// The text of `value` in `buffer` without allocating (the child of fork
// may not). Returns its length.
std::size_t formatNumber(long value, char (&buffer)[24]) {
    char digits[24];
    std::size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value > 0 && n < sizeof digits);
    for (std::size_t i = 0; i < n; ++i) buffer[i] = digits[n - 1 - i];
    return n;
}

struct Stream {
    int fd = -1;
    std::string* kept;
    uint64_t* dropped;
};

// Reads what is there; false at end of input or error.
bool drain(Stream& stream, std::size_t cap) {
    std::array<char, 65536> chunk;
    const ssize_t n = read(stream.fd, chunk.data(), chunk.size());
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (n <= 0) return false;
    const std::size_t room = cap > stream.kept->size() ? cap - stream.kept->size() : 0;
    const std::size_t keep = std::min(room, static_cast<std::size_t>(n));
    stream.kept->append(chunk.data(), keep);
    *stream.dropped += static_cast<uint64_t>(n) - keep;
    return true;
}

}  // namespace

SandboxRunner::SandboxRunner(std::string bwrap_path) {
    bwrap_ = resolveProgram(bwrap_path);
    if (bwrap_.empty()) bwrap_ = std::move(bwrap_path);
}

std::vector<std::string> SandboxRunner::bwrapArguments(const SandboxCommand& command) {
    std::vector<std::string> args = {
        "--die-with-parent", "--new-session", "--unshare-all", "--cap-drop", "ALL",
        "--hostname",        "sandbox",       "--clearenv",    "--setenv",   "PATH",
        kPath,               "--setenv",      "HOME",          kWorkspaceMount,
        "--setenv",          "LANG",          "C.UTF-8",       "--setenv",   "TMPDIR",
        "/tmp",
    };
    if (command.network) args.push_back("--share-net");
    for (const auto& [name, value] : command.env) args.insert(args.end(), {"--setenv", name, value});
    args.insert(args.end(), {"--ro-bind", "/usr", "/usr"});
    for (const char* folder : kTopFolders) {
        std::error_code error;
        const fs::file_status status = fs::symlink_status(folder, error);
        if (fs::is_symlink(status))
            args.insert(args.end(), {"--symlink", fs::read_symlink(folder, error).string(), folder});
        else if (fs::is_directory(status))
            args.insert(args.end(), {"--ro-bind", folder, folder});
    }
    for (const char* file : kEtcFiles) args.insert(args.end(), {"--ro-bind-try", file, file});
    if (command.network) args.insert(args.end(), {"--ro-bind-try", "/etc/resolv.conf", "/etc/resolv.conf"});
    args.insert(args.end(), {"--proc", "/proc", "--dev", "/dev", "--tmpfs", "/tmp", "--bind",
                             command.host_dir, kWorkspaceMount, "--chdir", kWorkspaceMount,
                             // The skeleton bwrap built (/, /etc) is read-only too.
                             "--remount-ro", "/", "--"});
    args.insert(args.end(), command.argv.begin(), command.argv.end());
    return args;
}

std::string SandboxRunner::probe() const {
    if (access(bwrap_.c_str(), X_OK) != 0)
        return "bwrap was not found (install the bubblewrap package)";
    char dir_template[] = "/tmp/vostra-sandbox-probe-XXXXXX";
    if (!mkdtemp(dir_template)) return "No temporary folder for a trial run";
    SandboxCommand trial;
    trial.argv = {"true"};
    trial.host_dir = dir_template;
    trial.limits.timeout_seconds = 20;
    const SandboxOutcome outcome = run(trial);
    std::error_code error;
    fs::remove_all(dir_template, error);
    if (outcome.started && outcome.exit_code == 0 && !outcome.timed_out) return "";
    std::string reason = outcome.started ? outcome.stderr_text : outcome.error;
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) reason.pop_back();
    return "The sandbox tool cannot create namespaces here: " +
           (reason.empty() ? std::string("exit status ") + std::to_string(outcome.exit_code) : reason);
}

SandboxOutcome SandboxRunner::run(const SandboxCommand& command, std::stop_token stop) const {
    SandboxOutcome outcome;
    if (command.argv.empty()) {
        outcome.error = "No command to run";
        return outcome;
    }
    std::vector<std::string> args = bwrapArguments(command);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(bwrap_.c_str()));
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    char path_entry[sizeof kPathEntry];
    std::copy(std::begin(kPathEntry), std::end(kPathEntry), path_entry);
    char lang_entry[] = "LANG=C.UTF-8";
    char* envp[] = {path_entry, lang_entry, nullptr};

    const SandboxLimits& limits = command.limits;
    CgroupLimits groups("vostra-sandbox-" + randomHex(16), limits.memory_bytes, limits.max_processes);
    const bool cap_memory = !groups.holdsMemory();
    outcome.memory_limit = cap_memory ? "rlimit" : "cgroup";
    // The process rlimit counts every task of the user, ours included, and
    // binds nobody running as root.
    const bool cap_processes = !groups.holdsProcesses() && geteuid() != 0;
    outcome.process_limit = groups.holdsProcesses() ? "cgroup" : cap_processes ? "rlimit" : "none";
    const rlim_t process_cap = static_cast<rlim_t>(limits.max_processes + runningThreads() + 8);

    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0) {
        outcome.error = "No pipe for the output";
        return outcome;
    }
    if (pipe2(err_pipe, O_CLOEXEC) != 0) {
        close(out_pipe[0]);
        close(out_pipe[1]);
        outcome.error = "No pipe for the output";
        return outcome;
    }
    const int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::vector<int>& attach = groups.attachFds();

    const Clock::time_point began = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls from here to exec.
        setpgid(0, 0);
        char number[24];
        const std::size_t length = formatNumber(static_cast<long>(getpid()), number);
        for (int fd : attach)
            if (write(fd, number, length) < 0) _exit(126);
        if (cap_memory) {
            const rlimit memory{static_cast<rlim_t>(limits.memory_bytes),
                                static_cast<rlim_t>(limits.memory_bytes)};
            setrlimit(RLIMIT_AS, &memory);
        }
        if (cap_processes) {
            const rlimit processes{process_cap, process_cap};
            setrlimit(RLIMIT_NPROC, &processes);
        }
        const rlimit no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        if (null_fd >= 0) dup2(null_fd, STDIN_FILENO);
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(err_pipe[1], STDERR_FILENO);
        struct sigaction defaults {};
        defaults.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &defaults, nullptr);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execve(argv[0], argv.data(), envp);
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (null_fd >= 0) close(null_fd);
    if (pid < 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        outcome.error = "Could not start the sandbox";
        return outcome;
    }
    setpgid(pid, pid);
    outcome.started = true;

    Stream streams[2] = {{out_pipe[0], &outcome.stdout_text, &outcome.stdout_dropped},
                         {err_pipe[0], &outcome.stderr_text, &outcome.stderr_dropped}};
    const Clock::time_point deadline = began + std::chrono::seconds(limits.timeout_seconds);
    bool killed = false;
    Clock::time_point give_up = Clock::time_point::max();
    auto killTree = [&] {
        kill(-pid, SIGKILL);
        groups.killAll();
        if (!killed) give_up = Clock::now() + std::chrono::seconds(5);
        killed = true;
    };
    // Kills the tree once, at the time limit or when asked to stop.
    auto enforce = [&] {
        if (killed) return;
        if (Clock::now() >= deadline) {
            outcome.timed_out = true;
            killTree();
        } else if (stop.stop_requested()) {
            outcome.cancelled = true;
            killTree();
        }
    };
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        enforce();
        if (Clock::now() >= give_up) break;  // something outside our reach holds the pipe
        pollfd fds[2];
        nfds_t count = 0;
        for (Stream& stream : streams)
            if (stream.fd >= 0) fds[count++] = {stream.fd, POLLIN, 0};
        if (poll(fds, count, 100) < 0 && errno != EINTR) break;
        for (nfds_t i = 0; i < count; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            for (Stream& stream : streams) {
                if (stream.fd != fds[i].fd) continue;
                if (!drain(stream, limits.output_bytes)) {
                    close(stream.fd);
                    stream.fd = -1;
                }
            }
        }
    }
    for (Stream& stream : streams)
        if (stream.fd >= 0) close(stream.fd);

    // The command may have closed its output and still run: the same
    // limits hold until it is reaped.
    int status = 0;
    for (;;) {
        const pid_t reaped = waitpid(pid, &status, WNOHANG);
        if (reaped == pid || (reaped < 0 && errno != EINTR)) break;
        if (killed) kill(-pid, SIGKILL);
        enforce();
        std::this_thread::sleep_for(std::chrono::milliseconds(killed ? 5 : 20));
    }
    groups.killAll();
    if (WIFEXITED(status)) outcome.exit_code = WEXITSTATUS(status);
    else if (WIFSIGNALED(status)) outcome.exit_code = 128 + WTERMSIG(status);
    outcome.duration_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count();
    return outcome;
}

}  // namespace vostra::sandbox
